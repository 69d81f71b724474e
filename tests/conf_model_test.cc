// The configuration object graph, value syntaxes, conf_verify and the log.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "cache/RecordConversion.h"
#include "conf_fixture.h"
#include "storage/LunPaths.h"
#include "zel/TargetInfo.h"

namespace zel {
namespace test {
namespace {

using ConfModel = ConfFixture;
using platform::LogLevel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kIqn = "iqn.2020-01.com.example:disk1";

TEST_F(ConfModel, TargetNamesAreLowerCasedUniqueAcrossCaseAndMalformedOnesOnlyWarn) {
  struct target* t = target_new(conf_, "IQN.2020-01.com.Example:Disk1");
  ASSERT_NE(nullptr, t);
  EXPECT_EQ(kIqn, t->t_name);
  EXPECT_EQ(t, target_find(conf_, "iqn.2020-01.COM.example:disk1"));
  EXPECT_EQ(nullptr, target_new(conf_, "iqn.2020-01.com.example:DISK1"));
  EXPECT_EQ(nullptr, TAILQ_NEXT(t, t_next));
  for (const char* good : {"EUI.0123456789ABCDEF", "naa.52004567BA64678D"})
    EXPECT_NE(nullptr, target_new(conf_, good)) << good;
  const std::string naa33 = "naa." + std::string(33, 'a');
  for (const char* bad : {"iqn.2020-01.com.example:a_b c", "eui.0123", "eui.0123456789abcdeg",
                          naa33.c_str(), "target0"})
    EXPECT_NE(nullptr, target_new(conf_, bad)) << bad;
  EXPECT_THAT(
      Logged(),
      ElementsAre("duplicated target \"iqn.2020-01.com.example:DISK1\"",
                  "invalid character \"_\" in target name \"iqn.2020-01.com.example:a_b c\"; "
                  "allowed characters are letters, digits, '-', '.', and ':'",
                  "invalid target name \"eui.0123\"; the \"eui.\" should be followed by "
                  "exactly 16 hexadecimal digits",
                  "invalid character \"g\" in target name \"eui.0123456789abcdeg\"; allowed "
                  "characters are 1-9 and A-F",
                  "invalid target name \"" + naa33 +
                      "\"; the \"naa.\" should be followed by at most 32 hexadecimal digits",
                  "invalid target name \"target0\"; should start with either \"iqn.\", "
                  "\"eui.\", or \"naa.\""));
}
TEST_F(ConfModel, NamesOf223CharactersOrMoreAreRefused) {
  const std::string longest = "iqn." + std::string(218, 'x');
  EXPECT_TRUE(valid_iscsi_name(longest.c_str()));
  EXPECT_NE(nullptr, target_new(conf_, longest.c_str()));
  const std::string overlong = longest + "y";
  EXPECT_EQ(nullptr, target_new(conf_, overlong.c_str()));
  // The name pushes the first message past the 255 characters a line keeps.
  const std::string message = "overlong name for target \"" + overlong +
                              "\"; max length allowed by iSCSI specification is 223 characters";
  EXPECT_THAT(Logged(), ElementsAre(message.substr(0, 255),
                                    "target name \"" + overlong + "\" is invalid"));
}
TEST_F(ConfModel, DuplicatesAreRefusedWithTheirOwnTexts) {
  struct target* t = target_new(conf_, kIqn.c_str());
  target_option_new(t, "uuid", "u1");
  EXPECT_EQ(nullptr, target_option_new(t, "uuid", "u2"));
  EXPECT_STREQ("u1", target_option_find(t, "uuid")->to_value);
  struct lun* lun = lun_new(conf_, "l");
  EXPECT_EQ(nullptr, lun_new(conf_, "l"));
  option_new(&lun->l_options, "lun-alias", "a");
  EXPECT_EQ(nullptr, option_new(&lun->l_options, "lun-alias", "b"));
  auth_group_new(conf_, "ag");
  EXPECT_EQ(nullptr, auth_group_new(conf_, "ag"));
  EXPECT_NE(nullptr, auth_group_new(conf_, "AG"));
  portal_group_new(conf_, "pg");
  EXPECT_EQ(nullptr, portal_group_new(conf_, "pg"));
  conf_option_new(conf_, "first", "1");
  EXPECT_EQ(nullptr, conf_option_new(conf_, "first", "again"));
  EXPECT_THAT(Logged(), ElementsAre("duplicated target option uuid for target \"" + kIqn + "\"",
                                    "duplicated lun \"l\"", "duplicated option \"lun-alias\"",
                                    "duplicated auth-group \"ag\"",
                                    "duplicated portal-group \"pg\"",
                                    "duplicated config option first "));
  // A new top-level option replaces all earlier ones.
  struct conf_option* second = conf_option_new(conf_, "second", "2");
  EXPECT_EQ(second, TAILQ_FIRST(&conf_->conf_options));
  EXPECT_EQ(nullptr, TAILQ_NEXT(second, co_next));
}
TEST_F(ConfModel, LunNamesCarryTargetAndNumberAndLeadBackToTheTarget) {
  struct target* t = target_new(conf_, kIqn.c_str());
  target_new(conf_, "iqn.2020-01.com.example:disk10");
  char name[256];
  zeld_target_lun_name(name, sizeof(name), t, 10);
  EXPECT_STREQ("iqn.2020-01.com.example:disk1,L,0x000000000000000a", name);
  struct lun* lun = lun_new(conf_, name);
  EXPECT_EQ(t, lun_target_find(conf_, lun));
  EXPECT_EQ(nullptr, lun_find(conf_, "IQN.2020-01.com.example:disk1,L,0x000000000000000a"));
  // Moving the LUN rewrites the uuid prefix of its path.
  target_option_new(t, "uuid", "bbbbbbbb-2222");
  lun_set_path(lun, "aaaaaaaa-1111/disk.qdsk");
  lun_modify_target_path(lun, t);
  EXPECT_STREQ("bbbbbbbb-2222/disk.qdsk", lun->l_path);
}
TEST_F(ConfModel, DeletingALunEmptiesEveryTableSlotThatHeldIt) {
  struct target* a = target_new(conf_, "iqn.2020-01.com.example:a");
  struct target* b = target_new(conf_, "iqn.2020-01.com.example:b");
  struct lun* lun = lun_new(conf_, "shared");
  struct lun* other = lun_new(conf_, "other");
  a->t_luns[0] = a->t_luns[255] = b->t_luns[7] = lun;
  b->t_luns[8] = other;
  lun_delete(lun);
  EXPECT_EQ((std::vector<struct lun*>{nullptr, nullptr, nullptr, other}),
            (std::vector<struct lun*>{a->t_luns[0], a->t_luns[255], b->t_luns[7], b->t_luns[8]}));
}
TEST_F(ConfModel, PortsAreUniqueAcrossCaseAndDeletingATargetUnlinksThem) {
  struct portal_group* pg = portal_group_new(conf_, "pg1");
  pg->pg_dscp = 46;
  struct target* t = target_new(conf_, kIqn.c_str());
  struct port* port = port_new(conf_, t, pg);
  ASSERT_NE(nullptr, port);
  EXPECT_STREQ("pg1-iqn.2020-01.com.example:disk1", port->p_name);
  EXPECT_EQ(46u, port->p_dscp);
  EXPECT_EQ(port, port_find_in_pg(pg, "IQN.2020-01.com.example:DISK1"));
  struct pport* clash = pport_new(conf_, "PG1", 3);
  EXPECT_EQ(nullptr, port_new_pp(conf_, t, clash));
  EXPECT_THAT(Logged(), ElementsAre("duplicate port \"PG1-iqn.2020-01.com.example:disk1\""));
  EXPECT_TRUE(TAILQ_EMPTY(&clash->pp_ports));
  struct pport* pp = pport_new(conf_, "pp", 1);
  ASSERT_NE(nullptr, port_new_pp(conf_, t, pp));
  target_delete(t);
  EXPECT_TRUE(TAILQ_EMPTY(&pg->pg_ports) && TAILQ_EMPTY(&pp->pp_ports) &&
              TAILQ_EMPTY(&conf_->conf_ports));
}
TEST_F(ConfModel, RedirectionAndDiscoveryFilterAreSetOnlyOnce) {
  struct target* t = target_new(conf_, kIqn.c_str());
  struct portal_group* pg = portal_group_new(conf_, "pg1");
  EXPECT_EQ(0, target_set_redirection(t, "10.0.0.1"));
  EXPECT_EQ(1, target_set_redirection(t, "10.0.0.2"));
  EXPECT_EQ(0, portal_group_set_redirection(pg, "10.0.0.3"));
  EXPECT_EQ(1, portal_group_set_redirection(pg, "10.0.0.4"));
  EXPECT_EQ(1, portal_group_set_filter(pg, "all"));
  EXPECT_EQ(0, portal_group_set_filter(pg, "portal-name-auth"));
  EXPECT_EQ(0, portal_group_set_filter(pg, "portal-name-auth"));
  EXPECT_EQ(1, portal_group_set_filter(pg, "none"));
  EXPECT_EQ(PG_FILTER_PORTAL_NAME_AUTH, pg->pg_discovery_filter);
  EXPECT_THAT(
      Logged(),
      ElementsAre("cannot set redirection to \"10.0.0.2\" for target \"" + kIqn +
                      "\"; already defined",
                  "cannot set redirection to \"10.0.0.4\" for portal-group \"pg1\"; already "
                  "defined",
                  "invalid discovery-filter \"all\" for portal-group \"pg1\"; valid values are "
                  "\"none\", \"portal\", \"portal-name\", and \"portal-name-auth\"",
                  "cannot set discovery-filter to \"none\" for portal-group \"pg1\"; already has "
                  "a different value"));
}
struct auth_group* TargetGroup(struct conf* conf) {
  struct auth_group* ag = auth_group_new(conf, nullptr);
  ag->ag_target = target_new(conf, kIqn.c_str());
  return ag;
}
int Check(struct auth_group* ag, int family, const char* text) {
  struct sockaddr_storage ss;
  memset(&ss, 0, sizeof(ss));
  ss.ss_family = static_cast<sa_family_t>(family);
  void* addr = family == AF_INET6
                   ? static_cast<void*>(&reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr)
                   : static_cast<void*>(&reinterpret_cast<sockaddr_in*>(&ss)->sin_addr);
  EXPECT_EQ(1, inet_pton(family, text, addr)) << text;
  return auth_portal_check(ag, &ss);
}
TEST_F(ConfModel, AuthTypeMayRepeatButNotChange) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(0, auth_group_set_type(ag, "deny"));
  EXPECT_EQ(0, auth_group_set_type(ag, "deny"));
  EXPECT_EQ(1, auth_group_set_type(ag, "chap"));
  EXPECT_EQ(1, auth_group_set_type(ag, "CHAP"));
  struct auth_group* own = TargetGroup(conf_);
  EXPECT_EQ(0, auth_group_set_type(own, "none"));
  EXPECT_EQ(1, auth_group_set_type(own, "chap-mutual"));
  EXPECT_EQ(1, auth_group_set_type(own, "bogus"));
  EXPECT_EQ(AG_TYPE_DENY, ag->ag_type);
  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, own->ag_type);
  EXPECT_THAT(Logged(),
              ElementsAre("cannot set auth-type to \"chap\" for auth-group \"ag\"; already has "
                          "a different type",
                          "invalid auth-type \"CHAP\" for auth-group \"ag\"",
                          "cannot set auth-type to \"chap-mutual\" for target \"" + kIqn +
                              "\"; already has a different type",
                          "invalid auth-type \"bogus\" for target \"" + kIqn + "\""));
}
// A secret outside 12-16 characters only warns (a target's "too short" says 16).
TEST_F(ConfModel, SecretsOutside12To16CharactersWarnButAreKept) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  auth_new_chap(ag, "short", "12345678901", false);
  auth_new_chap(ag, "min", "123456789012", false);
  auth_new_chap(ag, "max", "1234567890123456", false);
  auth_new_chap(ag, "long", "12345678901234567", false);
  auth_new_chap_mutual(ag, "mutual", "123456789012", "m", "12345678901234567", false);
  EXPECT_NE(nullptr, auth_find(ag, "short"));
  struct auth_group* own = TargetGroup(conf_);
  auth_new_chap(own, "u", "12345678901", false);
  auth_new_chap(own, "ok", "123456789012", false);
  auth_new_chap_mutual(own, "v", "12345678901234567", "m", "1", false);
  const std::string target = "target \"" + kIqn + "\"";
  EXPECT_THAT(Logged(),
              ElementsAre("secret for user \"short\", auth-group \"ag\", is too short; it "
                          "should be at least 12 characters long",
                          "secret for user \"long\", auth-group \"ag\", is too long; it should "
                          "be at most 16 characters long",
                          "mutual secret for user \"mutual\", auth-group \"ag\", is too long; "
                          "it should be at most 16 characters long",
                          "secret for user \"u\", " + target +
                              ", is too short; it should be at least 16 characters long",
                          "secret for user \"v\", " + target +
                              ", is too long; it should be at most 16 characters long",
                          "mutual secret for user \"v\", " + target +
                              ", is too short; it should be at least 16 characters long"));
}
TEST_F(ConfModel, EncodedSecretsAreDecodedUnlessTheyDoNotFit) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  const struct auth* auth = auth_new_chap_mutual(ag, "YWJj", "YWJjZGVmZ2hpamts", "bXV0",
                                                 "MTIzNDU2Nzg5MDEy", true);
  // User names are not encoded.
  EXPECT_EQ("YWJj abcdefghijkl bXV0 123456789012", std::string(auth->a_user) + " " +
                                                       auth->a_secret + " " + auth->a_mutual_user +
                                                       " " + auth->a_mutual_secret);
  EXPECT_THAT(Logged(), IsEmpty());  // the length rule sees the decoded text
  // 31 decoded bytes still fit the buffer with their terminator; 32 do not.
  EXPECT_EQ("", MessageOf([&] {
              auth_new_chap(ag, "u", "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYQ==", true);
            }));
  EXPECT_EQ("Base64_Decode (", MessageOf([&] {
              auth_new_chap(ag, "v", "YWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWFhYWE=", true);
            }).substr(0, 15));
  EXPECT_EQ("Base64_Decode (" + std::string(strerror(EINVAL)) + ")",
            MessageOf([&] { auth_new_chap(ag, "w", "not base64!", true); }));
}
TEST_F(ConfModel, PortalsTakeAFullPrefixUnlessGivenOneAndMalformedOnesThrow) {
  struct auth_group* bad = auth_group_new(conf_, "bad");
  for (const char* text : {"10.0.0.0/33", "2001:db8::/129", "10.0.0.0/8x", "10.0.0.0/",
                           "10.0.0.0/-1", "", "[", "/8", "10.0.0.256", "host.example"}) {
    EXPECT_EQ("Incorrect initiator portal '" + std::string(text) + "'",
              MessageOf([&] { auth_portal_new(bad, text); }));
  }
  EXPECT_FALSE(auth_portal_defined(bad));
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(32, auth_portal_new(ag, "10.1.2.3")->ap_mask);
  EXPECT_EQ(128, auth_portal_new(ag, "[fe80::1]")->ap_mask);
  EXPECT_EQ(32, auth_portal_new(ag, "[2001:db8::]/32")->ap_mask);
  EXPECT_EQ(16, auth_portal_new(ag, "10.0.0.0/0x10")->ap_mask);
}
TEST_F(ConfModel, PortalsAndInitiatorNamesAreCheckedOnlyWhenDefined) {
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(0, Check(ag, AF_INET, "8.8.8.8"));
  EXPECT_EQ(0, auth_name_check(ag, "iqn.1998-01.com.example:any"));
  auth_portal_new(ag, "172.16.0.0/12");
  auth_portal_new(ag, "[2001:db8::]/33");
  EXPECT_EQ(0, Check(ag, AF_INET, "172.16.5.1"));
  EXPECT_EQ(0, Check(ag, AF_INET, "172.31.255.255"));
  EXPECT_EQ(1, Check(ag, AF_INET, "172.32.0.0"));
  EXPECT_EQ(1, Check(ag, AF_INET6, "::ffff:172.16.5.1"));
  EXPECT_EQ(0, Check(ag, AF_INET6, "2001:db8:7fff::1"));
  EXPECT_EQ(1, Check(ag, AF_INET6, "2001:db8:8000::1"));
  auth_name_new(ag, "iqn.1998-01.com.example:Host1");
  EXPECT_EQ(0, auth_name_check(ag, "IQN.1998-01.com.example:host1"));
  EXPECT_EQ(1, auth_name_check(ag, "iqn.1998-01.com.example:host2"));
}
TEST_F(ConfModel, AuthGroupsReachInitiatorsThroughGroupReferences) {
  initiator_new(initiator_group_new(conf_, "hosts"), "iqn.1998-01.com.example:host1");
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(nullptr, auth_group_igroup_ref_add(conf_, ag, "Hosts"));
  EXPECT_THAT(Logged(), ElementsAre("initiator group  \"Hosts\" not found"));
  ASSERT_NE(nullptr, auth_group_igroup_ref_add(conf_, ag, "hosts"));
  EXPECT_NE(nullptr, auth_group_igroup_initiator_find(ag, "IQN.1998-01.com.example:HOST1"));
  initiator_group_delete_all_refs(conf_, "hosts");
  EXPECT_FALSE(auth_group_initiator_group_defined(ag));
}
TEST(ConfValues, NumbersTakeBinaryCaseInsensitiveSuffixesAndFailWithErrno) {
  const std::vector<std::pair<const char*, uint64_t>> good = {
      {"4k", 4096},          {"512b", 512},     {"2G", 2ull << 30},
      {"1P", 1ull << 50},    {"15e", 15ull << 60}, {"0x10", 16},
      {"1kilo", 1024},  // only the first suffix character counts
      {"18446744073709551615", UINT64_MAX}};
  for (const auto& [text, expected] : good) {
    uint64_t value = 0;
    errno = ENOENT;
    EXPECT_EQ(0, expand_number(text, &value)) << text;
    EXPECT_EQ(expected, value) << text;
    EXPECT_EQ(ENOENT, errno) << text;  // success leaves errno alone
  }
  const std::vector<std::pair<const char*, int>> bad = {
      {"1x", EINVAL}, {"", EINVAL}, {"-1", EINVAL}, {"16e", ERANGE},
      {"18446744073709551616", ERANGE}};
  for (const auto& [text, error] : bad) {
    uint64_t value = 7;
    errno = 0;
    EXPECT_EQ(-1, expand_number(text, &value)) << text;
    EXPECT_EQ(7u, value) << text;
    EXPECT_EQ(error, errno) << text;
  }
}
TEST(ConfValues, HostAndPortSplitAtTheOnlyColonOrAfterBrackets) {
  const std::vector<std::pair<const char*, std::string>> cases = {
      {"10.0.0.1", "10.0.0.1|3260"},      {"10.0.0.1:3261", "10.0.0.1|3261"},
      {"fe80::1:2", "fe80::1:2|3260"},    {"[fe80::1]:3262", "fe80::1|3262"},
      {"[::]", "::|3260"},                {"host.example:", "host.example|3260"},
      {"[fe80::1", "error"},              {"[fe80::1]3260", "error"},
      {"[fe80::1] :3260", "error"}};
  for (const auto& [text, expected] : cases) {
    char* host = nullptr;
    char* port = nullptr;
    std::string split = "error";
    if (parse_addr_port(text, "3260", &host, &port) == 0) {
      split = std::string(host) + "|" + port;
      free(host);
      free(port);
    }
    EXPECT_EQ(expected, split) << text;
  }
}
TEST_F(ConfModel, ListenAndIsnsAddressesTakeTheirDefaultPortsAndBadOnesAreDropped) {
  struct portal_group* pg = portal_group_new(conf_, "pg");
  EXPECT_EQ(0, portal_group_add_listen(pg, "[::1]", true));
  EXPECT_EQ(1, portal_group_add_listen(pg, "[::1", false));
  EXPECT_EQ(0, isns_new(conf_, "isns.example"));
  EXPECT_EQ(1, isns_new(conf_, "[fe80::1]x"));
  struct portal* portal = TAILQ_FIRST(&pg->pg_portals);
  EXPECT_EQ(nullptr, TAILQ_NEXT(portal, p_next));
  EXPECT_EQ("[::1] ::1 3260", std::string(portal->p_listen) + " " + portal->p_host + " " +
                                  portal->p_port);
  EXPECT_TRUE(portal->p_iser);
  struct isns* is = TAILQ_FIRST(&conf_->conf_isns);
  EXPECT_EQ(nullptr, TAILQ_NEXT(is, i_next));
  EXPECT_EQ("isns.example:3205", std::string(is->i_portal->p_host) + ":" + is->i_portal->p_port);
  EXPECT_THAT(Logged(),
              ElementsAre("invalid listen address [::1", "invalid iSNS address [fe80::1]x"));
}
class ConfVerify : public ConfFixture {
 protected:
  struct lun* Lun(const char* name, const char* path) {
    struct lun* lun = lun_new(conf_, name);
    lun_set_path(lun, path);
    return lun;
  }
};

TEST_F(ConfVerify, BackendDefaultsToBlockWhichNeedsAPath) {
  struct lun* lun = Lun("l0", nullptr);
  Lun("l1", nullptr);
  struct target* t = target_new(conf_, "iqn.2020-01.com.example:t");
  EXPECT_EQ(1, conf_verify(conf_));
  EXPECT_STREQ("block", lun->l_backend);
  // The first bad LUN ends the pass before targets are looked at.
  EXPECT_THAT(Logged(), ElementsAre("missing path for lun \"l0\""));
  EXPECT_EQ(nullptr, zeld_target_to_port(t));
}
// Ramdisks need a size and no path; block sizes default by device type, must
// be positive and divide the size; a shared backing path only warns, both ways.
TEST_F(ConfVerify, LunSizesAndPaths) {
  struct lun* ram = Lun("r", "/x");
  lun_set_backend(ram, "ramdisk");
  EXPECT_EQ(1, conf_verify(conf_));
  lun_set_size(ram, 8);
  EXPECT_EQ(1, conf_verify(conf_));
  lun_set_path(ram, nullptr);
  EXPECT_EQ(0, conf_verify(conf_));
  struct lun* disk = Lun("disk", "/same");
  struct lun* cd = Lun("cd", "/c");
  lun_set_device_type(cd, 5);
  Lun("b", "/same");
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_EQ(512, disk->l_blocksize);
  EXPECT_EQ(2048, cd->l_blocksize);
  disk->l_blocksize = -512;
  EXPECT_EQ(1, conf_verify(conf_));
  disk->l_blocksize = 4096;
  lun_set_size(disk, 3);
  EXPECT_EQ(1, conf_verify(conf_));
  EXPECT_THAT(Logged(),
              ElementsAre("missing size for ramdisk-backed lun \"r\"",
                          "path must not be specified for ramdisk-backed lun \"r\"",
                          "WARNING: path \"/same\" duplicated between lun \"disk\", and lun \"b\"",
                          "WARNING: path \"/same\" duplicated between lun \"b\", and lun \"disk\"",
                          "invalid blocksize for lun \"disk\"; must be larger than 0",
                          "invalid size for lun \"disk\"; must be multiple of blocksize"));
  lun_set_size(disk, 8);
  host_.Log().Clear();
  EXPECT_EQ(0, conf_verify(conf_));
}
TEST_F(ConfVerify, TargetsGetTheDefaultGroupsOnceAndTellWhetherTheyServeLuns) {
  struct auth_group* ag = auth_group_new(conf_, "default");
  struct portal_group* pg = portal_group_new(conf_, "default");
  struct target* empty = target_new(conf_, "iqn.2020-01.com.example:empty");
  struct target* moved = target_new(conf_, "iqn.2020-01.com.example:moved");
  target_set_redirection(moved, "10.0.0.1");
  moved->t_luns[3] = Lun("l3", "/p");
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("no LUNs defined for target \"iqn.2020-01.com.example:empty\"",
                                    "target \"iqn.2020-01.com.example:moved\" contains luns,  but "
                                    "configured for redirection"));
  host_.Log().Clear();
  log_init(3);  // both are debug messages
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(), IsEmpty());
  EXPECT_EQ(ag, empty->t_auth_group);
  ASSERT_NE(nullptr, zeld_target_to_port(empty));
  EXPECT_EQ(pg, zeld_target_to_port(empty)->p_portal_group);
  EXPECT_EQ(nullptr, TAILQ_NEXT(zeld_target_to_port(empty), p_ts));
}
TEST_F(ConfVerify, PortalGroupsWithoutTargetsAreMarkedUnassigned) {
  struct auth_group* ag = auth_group_new(conf_, "default");
  struct portal_group* dflt = portal_group_new(conf_, "default");
  struct portal_group* idle = portal_group_new(conf_, "idle");
  struct portal_group* used = portal_group_new(conf_, "used");
  struct portal_group* moved = portal_group_new(conf_, "moved");
  portal_group_set_redirection(moved, "10.0.0.2");
  portal_group_set_filter(used, "portal");
  struct target* t = target_new(conf_, "iqn.2020-01.com.example:t");
  t->t_luns[0] = Lun("l0", "/p");
  port_new(conf_, t, used);
  port_new(conf_, t, moved);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_EQ((std::vector<bool>{true, true, false, false}),
            (std::vector<bool>{dflt->pg_unassigned, idle->pg_unassigned, used->pg_unassigned,
                               moved->pg_unassigned}));
  EXPECT_EQ(ag, idle->pg_discovery_auth_group);
  EXPECT_EQ(PG_FILTER_NONE, idle->pg_discovery_filter);
  EXPECT_EQ(PG_FILTER_PORTAL, used->pg_discovery_filter);
  EXPECT_THAT(Logged(), ElementsAre("portal-group \"idle\" not assigned to any target",
                                    "portal-group \"moved\" assigned to target, but configured "
                                    "for redirection"));
}
TEST_F(ConfVerify, UnusedNamedAuthGroupsAreReportedExceptBuiltIns) {
  for (const char* name : {"default", "no-authentication", "no-access", "spare"})
    auth_group_new(conf_, name);
  auth_group_new(conf_, nullptr);
  struct portal_group* pg = portal_group_new(conf_, "default");
  pg->pg_discovery_auth_group = auth_group_new(conf_, "by-discovery");
  target_new(conf_, "iqn.2020-01.com.example:t")->t_auth_group =
      auth_group_new(conf_, "by-target");
  struct target* u = target_new(conf_, "iqn.2020-01.com.example:u");
  port_new(conf_, u, pg)->p_auth_group = auth_group_new(conf_, "by-port");
  log_init(2);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("auth-group \"spare\" not assigned to any target"));
}
using ConfLog = ConfFixture;

TEST_F(ConfLog, MessagesAboveTheLevelAreDroppedAndWarnAddsTheErrnoText) {
  log_init(0);
  log_warnx("dropped");
  log_init(3);
  log_warnx("w %d", 1);
  log_info("i %s", "x");
  log_debugx("d");
  std::vector<LogLine> lines = host_.Log().Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(LogLevel::Warning, lines[0].level);
  EXPECT_EQ("ZELD: w 1", lines[0].text);
  EXPECT_EQ(LogLevel::Info, lines[1].level);
  host_.Log().Clear();
  log_init(5);
  log_debugx("d");
  log_debugx2("d2");
  errno = ENOENT;
  log_warn("open %s", "/x");
  log_warnx("%s", std::string(400, 'a').c_str());  // cut to 255
  EXPECT_THAT(Logged(), ElementsAre("d", "d2", "open /x: " + std::string(strerror(ENOENT)),
                                    std::string(255, 'a')));
}
TEST_F(ConfLog, ErrThrowsWithTheErrnoTextThatStillFits) {
  errno = EIO;
  EXPECT_EQ("calloc (" + std::string(strerror(EIO)) + ")", MessageOf([] { log_err(1, "calloc"); }));
  const std::string near_full(250, 'x');
  EXPECT_EQ(near_full + " (Inp", MessageOf([&] { log_err(1, "%s", near_full.c_str()); }));
  const std::string full(300, 'y');
  EXPECT_EQ(full.substr(0, 255), MessageOf([&] { log_err(1, "%s", full.c_str()); }));
  EXPECT_EQ("bad 7", MessageOf([] { log_errx(1, "bad %d", 7); }));
  EXPECT_THAT(Logged(), IsEmpty());
}
TEST_F(ConfLog, CleanupSaysGoodbyeOnlyOnceAndExitEndsWithTheStatus) {
  log_init(4);
  log_cleanup();
  log_cleanup();
  EXPECT_THAT(Logged(), ElementsAre("log cleanup."));
  EXPECT_EXIT(exit_with_cleanup(3), ::testing::ExitedWithCode(3), "");
}
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;
namespace Conversion = NokCtl::Orva::IscsiTarget::Conversion;

const char kTargetUuid[] = "5a1d6e3c-0b7f-4c2e-9d11-3f0a8c7b6e21";

class RecordConversion : public ConfFixture {
 protected:
  struct target* AddTarget(const std::string& name, const char* alias) {
    struct target* target = target_new(conf_, ("iqn.2024-01.com.example:" + name).c_str());
    EXPECT_NE(nullptr, target);
    if (alias != nullptr) target->t_alias = checked_strdup(alias);
    return target;
  }
  // A target whose own group named `name` refers to `groups`.
  void TargetOfGroups(const char* name, const std::vector<const char*>& groups) {
    struct target* target = AddTarget(name, name);
    target->t_auth_group = auth_group_new(conf_, name);
    for (const char* group : groups) auth_group_igroup_ref_add(conf_, target->t_auth_group, group);
  }
  struct lun* AddLun(struct target* target, uint32_t number, uint64_t sectors) {
    char name[256];
    zeld_target_lun_name(name, sizeof name, target, number);
    struct lun* lun = lun_new(conf_, name);
    lun_set_zeld_lun(lun, number);
    lun_set_size(lun, sectors);
    lun_set_path(lun,
                 (std::string(kTargetUuid) + "/lun-" + std::to_string(number) + ".qdsk").c_str());
    target->t_luns[number] = lun;
    return lun;
  }
  std::vector<TargetInfo> Targets() {
    std::vector<TargetInfo> out;
    Conversion::_GetTargetInfos(conf_, out);
    return out;
  }
  std::vector<LunInfo> OnlyTargetsLuns() {
    std::vector<TargetInfo> targets = Targets();
    EXPECT_EQ(1u, targets.size());
    return targets.empty() ? std::vector<LunInfo>{} : targets[0].luns;
  }
  std::vector<InitiatorgroupInfo> Groups() {
    std::vector<InitiatorgroupInfo> out;
    Conversion::_GetInitiatorGroupInfos(conf_, out);
    return out;
  }
};

TEST_F(RecordConversion, NullConfIsRefusedByEveryConversion) {
  std::vector<TargetInfo> targets;
  std::vector<InitiatorgroupInfo> groups;
  const std::string message = "Cannot find Orva iSCSI configuration!";
  EXPECT_EQ(message, MessageOf([] { Conversion::GetConfigInfoFromConf(nullptr, true); }));
  EXPECT_EQ(message, MessageOf([&] { Conversion::_GetTargetInfos(nullptr, targets); }));
  EXPECT_EQ(message, MessageOf([&] { Conversion::_GetInitiatorGroupInfos(nullptr, groups); }));
}
// Group type names the text, its first credential the users; secrets only in asked-for defaults.
TEST_F(RecordConversion, AuthTypeTextUsersAndSecretsFollowTheGroup) {
  struct Case {
    const char* name;
    std::function<void(struct auth_group*)> setup;  // null: no group at all
    const char* type;
    const char* user;
    const char* mutualUser;
    const char* secret;
    const char* mutualSecret;
  };
  auto mutual = [](struct auth_group* ag) {
    auth_new_chap_mutual(ag, "alice", "alice-secret1", "bob", "bob-secret-22", false);
  };
  const Case cases[] = {
      {"absent", nullptr, "No-Authentication", "", "", "", ""},
      {"deny", [](struct auth_group* ag) { auth_group_set_type(ag, "deny"); }, "None", "", "",
       "", ""},
      {"none", [](struct auth_group* ag) { auth_group_set_type(ag, "none"); },
       "No-Authentication", "", "", "", ""},
      {"chap", [](struct auth_group* ag) { auth_new_chap(ag, "alice", "alice-secret1", false); },
       "CHAP", "alice", "", "alice-secret1", ""},
      {"mutual", mutual, "CHAP-Mutual", "alice", "bob", "alice-secret1", "bob-secret-22"},
      // A later plain credential made the group plain CHAP: its type decides.
      {"mutual-then-chap",
       [&](struct auth_group* ag) {
         mutual(ag);
         auth_new_chap(ag, "carol", "carol-secret1", false);
       },
       "CHAP", "alice", "", "alice-secret1", ""},
      // A credential left behind in a group whose type says otherwise.
      {"stale-credential",
       [](struct auth_group* ag) {
         auth_new_chap(ag, "alice", "alice-secret1", false);
         ag->ag_type = AG_TYPE_NO_AUTHENTICATION;
       },
       "No-Authentication", "", "", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    conf_delete(conf_);
    conf_ = conf_new();
    struct target* target = AddTarget(c.name, c.name);
    if (c.setup) {
      c.setup(auth_group_new(conf_, "default"));
      target->t_auth_group = auth_group_new(conf_, c.name);
      c.setup(target->t_auth_group);
    }
    const DefaultInfo with = Conversion::GetConfigInfoFromConf(conf_, true);
    const DefaultInfo without = Conversion::GetConfigInfoFromConf(conf_, false);
    const TargetInfo info = Targets().at(0);
    EXPECT_EQ((std::vector<std::string>{c.type, c.user, c.mutualUser, c.secret, c.mutualSecret,
                                        c.user, "", c.type, c.user, c.mutualUser}),
              (std::vector<std::string>{with.authType, with.userid, with.mutualUserid, with.secret,
                                        with.mutualSecret, without.userid,
                                        without.secret + without.mutualSecret, info.authType,
                                        info.userid, info.mutualUserid}));
    for (const std::string& text :
         {info.alias, info.iqn, info.uuid, info.networkInterface, info.authType, info.userid,
          info.mutualUserid, info.ownerId, info.ownerHostUuid, info.ownerHostName, info.policy,
          info.faultDomain}) {
      EXPECT_EQ(std::string::npos, text.find("secret")) << text;
    }
  }
}
TEST_F(RecordConversion, DefaultNetworkComesFromTheLastListenEntry) {
  const auto network = [&] {
    const DefaultInfo info = Conversion::GetConfigInfoFromConf(conf_, false);
    return info.networkInterface + ":" + std::to_string(info.port);
  };
  EXPECT_EQ(":3260", network());
  struct portal_group* pg = portal_group_new(conf_, "default");
  portal_group_add_listen(pg, "eth0:3260", false);
  portal_group_add_listen(pg, "eth1:5000", false);
  EXPECT_EQ("eth1:5000", network());
  portal_new(pg);
  EXPECT_EQ("Default network interface not found.",
            MessageOf([&] { Conversion::GetConfigInfoFromConf(conf_, false); }));
}
TEST_F(RecordConversion, TargetListensOnTheFirstEntryOfItsFirstPortalGroupOr3260) {
  AddTarget("a", "a");
  port_new(conf_, AddTarget("b", "b"), portal_group_new(conf_, "pg-empty"));
  struct target* target = AddTarget("c", "c");
  struct portal_group* first = portal_group_new(conf_, "pg-eth1-3261");
  portal_group_add_listen(first, "eth1:3261", false);
  portal_group_add_listen(first, "eth2:4000", false);
  port_new(conf_, target, first);
  struct portal_group* second = portal_group_new(conf_, "pg-eth3-5000");
  portal_group_add_listen(second, "eth3:5000", false);
  port_new(conf_, target, second);
  std::vector<std::string> networks;
  for (const TargetInfo& info : Targets())
    networks.push_back(info.networkInterface + ":" + std::to_string(info.port));
  EXPECT_THAT(networks, ElementsAre(":3260", ":3260", "eth1:3261"));
}
TEST_F(RecordConversion, PermittedInitiatorsAndGroupsKeepConfigurationOrder) {
  for (const char* name : {"zeta", "alpha", "mid"}) initiator_group_new(conf_, name);
  TargetOfGroups("a", {"mid", "zeta"});
  struct auth_group* ag = TAILQ_FIRST(&conf_->conf_targets)->t_auth_group;
  auth_name_new(ag, "iqn.1998-01.com.example:host-b");
  auth_name_new(ag, "iqn.1998-01.com.example:host-a");
  const TargetInfo info = Targets().at(0);
  EXPECT_EQ((std::vector<std::string>{"iqn.1998-01.com.example:host-b",
                                      "iqn.1998-01.com.example:host-a"}),
            info.initiators);
  EXPECT_EQ((std::vector<std::string>{"mid", "zeta"}), info.initiatorGroups);
}
TEST_F(RecordConversion, LunsComeInNumberOrderWithSizeStatusAndOptions) {
  struct target* target = AddTarget("a", "backup");
  for (uint32_t number : {200u, 0u, 255u, 7u}) AddLun(target, number, 2048);
  AddLun(target, 1, 4095);
  // Far beyond any real disk, but sectors × 512 would overflow 64 bits.
  AddLun(target, 2, uint64_t{1} << 62);
  struct lun* named = target->t_luns[0];
  option_new(&named->l_options, "lun-alias", "journal");
  option_new(&named->l_options, "naa", "6000C2912345678900000000000000AB");
  option_new(&target->t_luns[7]->l_options, "status", "offline");
  const std::vector<LunInfo> luns = OnlyTargetsLuns();
  std::vector<uint64_t> got;
  for (const LunInfo& lun : luns) got.insert(got.end(), {uint64_t(lun.id), lun.sizeMiB, lun.sizeSectors});
  ASSERT_EQ((std::vector<uint64_t>{0, 1, 2048, 1, 1, 4095, 2, uint64_t{1} << 51, uint64_t{1} << 62,
                                   7, 1, 2048, 200, 1, 2048, 255, 1, 2048}),
            got);
  for (size_t i = 0; i < luns.size(); ++i) {
    EXPECT_EQ(i == 3 ? "offline" : "online", luns[i].status) << i;
    EXPECT_EQ(i == 0 ? "journal6000C2912345678900000000000000AB" : "", luns[i].alias + luns[i].naa);
    // In the largest unit that holds the sectors exactly, else in sectors.
    EXPECT_EQ(i == 1 ? "4095 sectors" : i == 2 ? "2147483648TiB" : "1MiB", luns[i].size);
    EXPECT_EQ("", luns[i].policy);
    EXPECT_EQ("backup", luns[i].target);
    EXPECT_EQ(1, luns[i].recordVersion);
    EXPECT_FALSE(luns[i].policyCompliant);
  }
}
TEST_F(RecordConversion, LunPathIsAbsoluteInTheDatastoreAndNamesItsUuid) {
  const std::string file = "0c4f2b7e-1d3a-4e5b-8f60-7a9b1c2d3e4f";
  lun_set_path(AddLun(AddTarget("a", "a"), 3, 2048),
               (std::string(kTargetUuid) + "/" + file + ".qdsk").c_str());
  const LunInfo lun = OnlyTargetsLuns().at(0);
  EXPECT_EQ(host_.Config().datastoreRoot + "/" + kTargetUuid + "/" + file + ".qdsk", lun.path);
  EXPECT_EQ(file, lun.uuid);
}
TEST_F(RecordConversion, LunPathBeyondTheBufferFailsAfterTheEarlierTargets) {
  AddLun(AddTarget("a", "a"), 0, 2048);
  lun_set_path(AddLun(AddTarget("b", "b"), 0, 2048),
               (std::string(kTargetUuid) + "/" + std::string(256, 'x') + ".qdsk").c_str());
  std::vector<TargetInfo> out;
  const std::string message = MessageOf([&] { Conversion::_GetTargetInfos(conf_, out); });
  EXPECT_EQ(0u, message.rfind("Failed to get absolute path for LUN ", 0)) << message;
  EXPECT_NE(std::string::npos, message.find(" of target b")) << message;
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ("a", out[0].alias);
  // The helper never hands out a cut path.
  const std::string root = host_.Config().datastoreRoot;
  const std::string rel = "t/l.qdsk";
  const size_t exact = root.size() + 1 + rel.size() + 1;
  std::vector<char> buf(exact, '?');
  EXPECT_EQ(0, GetLunAbsPath(rel.c_str(), buf.data(), exact));
  EXPECT_EQ(root + "/" + rel, buf.data());
  EXPECT_EQ(-1, GetLunAbsPath(rel.c_str(), buf.data(), exact - 1));
  EXPECT_EQ("", std::string(buf.data()));
}
TEST_F(RecordConversion, InitiatorGroupsListTheirInitiatorsAndTheTargetsReferringToThem) {
  struct initiator_group* hosts = initiator_group_new(conf_, "hosts");
  initiator_new(hosts, "iqn.1998-01.com.example:h2");
  initiator_new(hosts, "iqn.1998-01.com.example:h1");
  initiator_group_new(conf_, "others");
  initiator_group_new(conf_, "empty");
  TargetOfGroups("zulu", {"hosts"});
  TargetOfGroups("alpha", {"others", "hosts"});
  TargetOfGroups("other", {"others"});
  AddTarget("open", "open");
  std::vector<std::string> seen;
  for (const InitiatorgroupInfo& group : Groups()) {
    seen.push_back(group.name + ":");
    for (const std::string& initiator : group.initiators) seen.back() += " " + initiator;
    for (const auto& [alias, iqn] : group.targets) seen.back() += " " + alias + "=" + iqn;
  }
  const std::string h = "iqn.1998-01.com.example:h", t = "iqn.2024-01.com.example:";
  EXPECT_THAT(seen, ElementsAre("hosts: " + h + "2 " + h + "1 alpha=" + t + "alpha zulu=" + t + "zulu",
                                "others: alpha=" + t + "alpha other=" + t + "other", "empty:"));
}
TEST_F(RecordConversion, InitiatorGroupKeepsTheFirstTargetOfARepeatedAlias) {
  initiator_group_new(conf_, "hosts");
  for (const char* name : {"one", "two"}) {
    struct target* target = AddTarget(name, "shared");
    target->t_auth_group = auth_group_new(conf_, name);
    auth_group_igroup_ref_add(conf_, target->t_auth_group, "hosts");
  }
  std::vector<InitiatorgroupInfo> groups = Groups();
  ASSERT_EQ(1u, groups.size());
  EXPECT_EQ((std::map<std::string, std::string>{{"shared", "iqn.2024-01.com.example:one"}}),
            groups[0].targets);
}

}  // namespace
}  // namespace test
}  // namespace zel
