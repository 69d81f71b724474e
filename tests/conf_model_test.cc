// The configuration object graph: names, duplicates, ownership links and
// deletion; auth groups; value syntaxes; conf_verify; and the layer's log.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "conf_fixture.h"

namespace zel {
namespace test {
namespace {

using ConfModel = ConfFixture;
using platform::LogLevel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kIqn = "iqn.2020-01.com.example:disk1";

// ---- names and duplicates ----------------------------------------------------

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

// ---- links and deletion --------------------------------------------------------

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
  EXPECT_EQ(nullptr, a->t_luns[0]);
  EXPECT_EQ(nullptr, a->t_luns[255]);
  EXPECT_EQ(nullptr, b->t_luns[7]);
  EXPECT_EQ(other, b->t_luns[8]);
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
  EXPECT_TRUE(TAILQ_EMPTY(&pg->pg_ports));
  EXPECT_TRUE(TAILQ_EMPTY(&pp->pp_ports));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_ports));
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

// Under the sanitizer build this is the leak check of the ownership tree.
TEST_F(ConfModel, DeletingARichConfFreesEverything) {
  struct conf* conf = conf_new();
  initiator_new(initiator_group_new(conf, "hosts"), "iqn.1998-01.com.example:host1");
  struct auth_group* ag = auth_group_new(conf, "ag");
  auth_new_chap_mutual(ag, "user", "secret-secret1", "peer", "secret-secret2", false);
  auth_name_new(ag, "iqn.1998-01.com.example:host1");
  auth_portal_new(ag, "192.168.0.0/16");
  auth_group_igroup_ref_add(conf, ag, "hosts");
  struct portal_group* pg = portal_group_new(conf, "default");
  portal_group_add_listen(pg, "0.0.0.0:3260", false);
  option_new(&pg->pg_options, "k", "v");
  isns_new(conf, "10.0.0.9");
  struct target* t = target_new(conf, kIqn.c_str());
  t->t_alias = checked_strdup("alias");
  target_option_new(t, "uuid", "u");
  port_new_pp(conf, t, pport_new(conf, "pp0", 1));
  struct lun* lun = lun_new(conf, "l0");
  lun_set_path(lun, "u/disk.qdsk");
  lun_set_serial(lun, "s");
  option_new(&lun->l_options, "status", "online");
  t->t_luns[0] = lun;
  conf_option_new(conf, "o1", "1");
  conf_option_new(conf, "o2", "2");
  ASSERT_EQ(0, conf_verify(conf));
  conf_delete(conf);
}

// ---- auth groups -----------------------------------------------------------------

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

// Outside 12 to 16 characters a secret is kept with a warning; the target
// variant of "too short" names 16 while the threshold stays 12.
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
  EXPECT_STREQ("YWJj", auth->a_user);  // user names are not encoded
  EXPECT_STREQ("abcdefghijkl", auth->a_secret);
  EXPECT_STREQ("bXV0", auth->a_mutual_user);
  EXPECT_STREQ("123456789012", auth->a_mutual_secret);
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

// ---- value syntaxes ----------------------------------------------------------------

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
  EXPECT_STREQ("[::1]", portal->p_listen);
  EXPECT_STREQ("::1", portal->p_host);
  EXPECT_STREQ("3260", portal->p_port);
  EXPECT_TRUE(portal->p_iser);
  struct isns* is = TAILQ_FIRST(&conf_->conf_isns);
  EXPECT_EQ(nullptr, TAILQ_NEXT(is, i_next));
  EXPECT_STREQ("isns.example", is->i_portal->p_host);
  EXPECT_STREQ("3205", is->i_portal->p_port);
  EXPECT_THAT(Logged(),
              ElementsAre("invalid listen address [::1", "invalid iSNS address [fe80::1]x"));
}

// ---- conf_verify -------------------------------------------------------------------

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

TEST_F(ConfVerify, RamdiskNeedsASizeAndNoPath) {
  struct lun* lun = Lun("r", "/x");
  lun_set_backend(lun, "ramdisk");
  EXPECT_EQ(1, conf_verify(conf_));
  lun_set_size(lun, 8);
  EXPECT_EQ(1, conf_verify(conf_));
  lun_set_path(lun, nullptr);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("missing size for ramdisk-backed lun \"r\"",
                                    "path must not be specified for ramdisk-backed lun \"r\""));
}

TEST_F(ConfVerify, BlockSizeDefaultsByDeviceTypeMustBePositiveAndDivideTheSize) {
  struct lun* disk = Lun("disk", "/d");
  struct lun* cd = Lun("cd", "/c");
  lun_set_device_type(cd, 5);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_EQ(512, disk->l_blocksize);
  EXPECT_EQ(2048, cd->l_blocksize);
  disk->l_blocksize = -512;
  EXPECT_EQ(1, conf_verify(conf_));
  disk->l_blocksize = 4096;
  lun_set_size(disk, 3);
  EXPECT_EQ(1, conf_verify(conf_));
  lun_set_size(disk, 8);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(),
              ElementsAre("invalid blocksize for lun \"disk\"; must be larger than 0",
                          "invalid size for lun \"disk\"; must be multiple of blocksize"));
}

TEST_F(ConfVerify, SharedBackingPathIsOnlyAWarningFromEachSide) {
  Lun("a", "/same");
  Lun("b", "/same");
  Lun("c", "/other");
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(),
              ElementsAre("WARNING: path \"/same\" duplicated between lun \"a\", and lun \"b\"",
                          "WARNING: path \"/same\" duplicated between lun \"b\", and lun \"a\""));
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
  EXPECT_TRUE(dflt->pg_unassigned);
  EXPECT_TRUE(idle->pg_unassigned);
  EXPECT_FALSE(used->pg_unassigned);
  EXPECT_FALSE(moved->pg_unassigned);
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

// ---- the layer's log ---------------------------------------------------------------

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

}  // namespace
}  // namespace test
}  // namespace zel
