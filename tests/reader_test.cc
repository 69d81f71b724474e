// What a zel.conf reads into: every statement and entry of the grammar, the
// built-in groups the file leaves undefined, and the spellings the scanner
// accepts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "reader_fixture.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ReaderTest : public zel::test::ReaderFixture {
 protected:
  // The hosts of a portal group's listen portals, in order.
  static std::vector<std::string> Listens(const struct portal_group* pg) {
    std::vector<std::string> listens;
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      listens.push_back(std::string(portal->p_host) + ":" + portal->p_port +
                        (portal->p_iser ? " iser" : ""));
    }
    return listens;
  }

  static std::vector<std::string> Initiators(const struct initiator_group* ig) {
    std::vector<std::string> names;
    const struct initiator* ini;
    TAILQ_FOREACH(ini, &ig->ig_initiators, i_next) names.push_back(ini->i_name);
    return names;
  }

  // The one lun of a single-lun file.
  struct lun* OnlyLun(const std::string& entries) {
    EXPECT_NE(nullptr, Read("target iqn.2024-01.org.example:t {\n lun 0 {\n" + entries +
                            "\n }\n}\n"));
    return conf_ == nullptr ? nullptr : TAILQ_FIRST(&conf_->conf_luns);
  }
};

TEST_F(ReaderTest, TopLevelStatementsFillTheConf) {
  ASSERT_NE(nullptr, Read("generation 0x10\n"
                          "debug 3\n"
                          "timeout 30\n"
                          "maxproc 8\n"
                          "isns-server 192.0.2.7\n"
                          "isns-period 1k\n"
                          "isns-timeout 9\n"
                          "option first-name one\n"));
  EXPECT_EQ(16u, conf_->conf_generation);
  EXPECT_EQ(3u, conf_->conf_debug);
  EXPECT_EQ(30u, conf_->conf_timeout);
  EXPECT_EQ(8u, conf_->conf_maxproc);
  EXPECT_EQ(1024u, conf_->conf_isns_period);
  EXPECT_EQ(9u, conf_->conf_isns_timeout);
  ASSERT_FALSE(TAILQ_EMPTY(&conf_->conf_isns));
  EXPECT_STREQ("192.0.2.7", TAILQ_FIRST(&conf_->conf_isns)->i_addr);
  ASSERT_NE(nullptr, conf_option_find(conf_, "first-name"));
  EXPECT_STREQ("one", conf_option_find(conf_, "first-name")->co_value);
  EXPECT_EQ(1, conf_->conf_read_from_file);
}

TEST_F(ReaderTest, UndefinedDefaultGroupsDenyEveryoneAndListenOnTheServiceInterface) {
  ASSERT_NE(nullptr, Read(""));

  EXPECT_EQ(AG_TYPE_DENY, auth_group_find(conf_, "default")->ag_type);
  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, auth_group_find(conf_, "no-authentication")->ag_type);
  EXPECT_EQ(AG_TYPE_DENY, auth_group_find(conf_, "no-access")->ag_type);
  EXPECT_THAT(Listens(portal_group_find(conf_, "default")), ElementsAre("nok0:3260"));
  EXPECT_FALSE(conf_->conf_default_ag_defined);
  EXPECT_FALSE(conf_->conf_default_pg_defined);
  EXPECT_TRUE(WasLogged("auth-group \"default\" not defined; going with defaults"));
  EXPECT_TRUE(WasLogged("portal-group \"default\" not defined; going with defaults"));
}

TEST_F(ReaderTest, FileDefinitionsOfDefaultFillTheBuiltInGroups) {
  ASSERT_NE(nullptr, Read("auth-group default {\n auth-type none\n}\n"
                          "portal-group default {\n listen nok1:3261\n}\n"));

  EXPECT_EQ(AG_TYPE_NO_AUTHENTICATION, auth_group_find(conf_, "default")->ag_type);
  EXPECT_THAT(Listens(portal_group_find(conf_, "default")), ElementsAre("nok1:3261"));
  int defaults = 0;
  const struct auth_group* ag;
  TAILQ_FOREACH(ag, &conf_->conf_auth_groups, ag_next) {
    if (ag->ag_name != nullptr && std::string(ag->ag_name) == "default") ++defaults;
  }
  EXPECT_EQ(1, defaults);
  EXPECT_TRUE(conf_->conf_default_ag_defined);
  EXPECT_TRUE(conf_->conf_default_pg_defined);
  EXPECT_THAT(LoggedWith("going with defaults"), IsEmpty());
}

TEST_F(ReaderTest, InitiatorAndInitiatorNameAreTheSameEntry) {
  ASSERT_NE(nullptr, Read("initiator-group ig1 {\n"
                          " initiator iqn.2024-01.org.example:one\n"
                          " initiator-name iqn.2024-01.org.example:two\n"
                          "}\n"
                          "auth-group ag {\n"
                          " initiator iqn.2024-01.org.example:three\n"
                          " initiator-group ig1\n"
                          "}\n"));

  EXPECT_THAT(Initiators(initiator_group_find(conf_, "ig1")),
              ElementsAre("iqn.2024-01.org.example:one", "iqn.2024-01.org.example:two"));
  const struct auth_group* ag = auth_group_find(conf_, "ag");
  EXPECT_NE(nullptr, auth_name_find(ag, "iqn.2024-01.org.example:three"));
  EXPECT_NE(nullptr, auth_group_igroup_ref_find(ag, "ig1"));
}

TEST_F(ReaderTest, AuthGroupEntriesDecodeSecretsAndParsePortals) {
  ASSERT_NE(nullptr, Read("auth-group one {\n"
                          " chap user@example \"QWJjZGVmZ2gjMTIz\"\n"
                          " initiator-portal [fe80::1]/64\n"
                          " initiator-portal 192.0.2.0/24\n"
                          "}\n"
                          "auth-group two {\n"
                          " chap-mutual u1 QWJjZGVmZ2gjMTIzNA== u2 \"UXJzdHV2d3gjNDU2\"\n"
                          "}\n"));

  const struct auth_group* one = auth_group_find(conf_, "one");
  EXPECT_EQ(AG_TYPE_CHAP, one->ag_type);
  const struct auth* chap = auth_find(one, "user@example");
  ASSERT_NE(nullptr, chap);
  EXPECT_STREQ("Abcdefgh#123", chap->a_secret);
  const struct auth_portal* v6 = TAILQ_FIRST(&one->ag_portals);
  EXPECT_EQ(AF_INET6, v6->ap_family);
  EXPECT_EQ(64, v6->ap_mask);
  EXPECT_EQ(24, TAILQ_NEXT(v6, ap_next)->ap_mask);

  const struct auth_group* two = auth_group_find(conf_, "two");
  EXPECT_EQ(AG_TYPE_CHAP_MUTUAL, two->ag_type);
  const struct auth* mutual = auth_find(two, "u1");
  ASSERT_NE(nullptr, mutual);
  EXPECT_STREQ("Abcdefgh#1234", mutual->a_secret);
  EXPECT_STREQ("u2", mutual->a_mutual_user);
  EXPECT_STREQ("Qrstuvwx#456", mutual->a_mutual_secret);
}

TEST_F(ReaderTest, PortalGroupEntriesSetTheGroup) {
  ASSERT_NE(nullptr, Read("auth-group disc {\n auth-type none\n}\n"
                          "portal-group pg {\n"
                          " discovery-auth-group disc\n"
                          " discovery-filter portal-name\n"
                          " foreign\n"
                          " listen 192.0.2.1\n"
                          " listen-iser [2001:db8::1]:3261\n"
                          " option ha on\n"
                          " redirect 192.0.2.9\n"
                          " tag 0xffff\n"
                          "}\n"));

  const struct portal_group* pg = portal_group_find(conf_, "pg");
  EXPECT_EQ(auth_group_find(conf_, "disc"), pg->pg_discovery_auth_group);
  EXPECT_EQ(PG_FILTER_PORTAL_NAME, pg->pg_discovery_filter);
  EXPECT_TRUE(pg->pg_foreign);
  EXPECT_THAT(Listens(pg), ElementsAre("192.0.2.1:3260", "2001:db8::1:3261 iser"));
  EXPECT_STREQ("on", option_find(&pg->pg_options, "ha")->o_value);
  EXPECT_STREQ("192.0.2.9", pg->pg_redirection);
  EXPECT_EQ(0xffff, pg->pg_tag);
}

TEST_F(ReaderTest, TargetEntriesLinkGroupsOptionsAndLuns) {
  ASSERT_NE(nullptr, Read("auth-group ag {\n auth-type none\n}\n"
                          "auth-group port-ag {\n auth-type none\n}\n"
                          "portal-group pg {\n listen nok1\n}\n"
                          "target IQN.2024-01.Org.Example:Mixed {\n"
                          " alias \"Mixed {case}; alias\"\n"
                          " portal-group pg port-ag\n"
                          " auth-group ag\n"
                          " option uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
                          " lun 5 {\n"
                          "  backend block\n"
                          "  path 3fb2b402/disk.qdsk\n"
                          "  size 16\n"
                          "  option lun-alias \"first disk\"\n"
                          " }\n"
                          "}\n"));

  struct target* target = target_find(conf_, "iqn.2024-01.org.example:mixed");
  ASSERT_NE(nullptr, target);
  EXPECT_STREQ("iqn.2024-01.org.example:mixed", target->t_name);
  EXPECT_STREQ("Mixed {case}; alias", target->t_alias);
  EXPECT_EQ(auth_group_find(conf_, "ag"), target->t_auth_group);
  EXPECT_STREQ("3fb2b402-cfcb-4738-9622-3a566bb58dbf",
               target_option_find(target, "uuid")->to_value);
  const struct port* port = zeld_target_to_port(target);
  ASSERT_NE(nullptr, port);
  EXPECT_EQ(portal_group_find(conf_, "pg"), port->p_portal_group);
  EXPECT_EQ(auth_group_find(conf_, "port-ag"), port->p_auth_group);

  const struct lun* lun = target->t_luns[5];
  ASSERT_NE(nullptr, lun);
  EXPECT_STREQ("iqn.2024-01.org.example:mixed,L,0x0000000000000005", lun->l_name);
  EXPECT_EQ(5u, lun->l_zeld_lun);
  EXPECT_STREQ("block", lun->l_backend);
  EXPECT_STREQ("3fb2b402/disk.qdsk", lun->l_path);
  EXPECT_EQ(16u, lun->l_size);
  EXPECT_STREQ("first disk", option_find(&lun->l_options, "lun-alias")->o_value);
  for (int slot = 0; slot < ZELD_MAX_LUNS; ++slot) {
    if (slot != 5) {
      EXPECT_EQ(nullptr, target->t_luns[slot]) << slot;
    }
  }
}

TEST_F(ReaderTest, TargetAuthorisationEntriesMakeItsOwnUnnamedGroup) {
  ASSERT_NE(nullptr, Read("target iqn.2024-01.org.example:t {\n"
                          " chap-mutual u1 QWJjZGVmZ2gjMTIz u2 UXJzdHV2d3gjNDU2\n"
                          " initiator-name iqn.2024-01.org.example:host\n"
                          " initiator-portal 192.0.2.0/24\n"
                          "}\n"));

  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  const struct auth_group* own = target->t_auth_group;
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(nullptr, own->ag_name);
  EXPECT_EQ(target, own->ag_target);
  EXPECT_EQ(AG_TYPE_CHAP_MUTUAL, own->ag_type);
  EXPECT_NE(nullptr, auth_name_find(own, "iqn.2024-01.org.example:host"));
  EXPECT_TRUE(auth_portal_defined(own));
}

TEST_F(ReaderTest, LunDefinedOutsideATargetCanBePutIntoItsTable) {
  ASSERT_NE(nullptr, Read("lun shared-disk {\n path a/shared.qdsk\n}\n"
                          "target iqn.2024-01.org.example:t {\n lun 7 shared-disk\n}\n"));

  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  EXPECT_EQ(lun_find(conf_, "shared-disk"), target->t_luns[7]);
}

TEST_F(ReaderTest, OldConfLendsItsPportsToTargets) {
  struct conf* old = conf_new();
  pport_new(old, "pp0", 42);
  zel::test::WriteFile(path_, "target iqn.2024-01.org.example:t {\n port pp0\n}\n");
  FileIODescriptor file;
  ASSERT_EQ(0, conf_file_open_share_lock(path_.c_str(), &file, 300000));
  conf_ = conf_new_from_file(&file, old);
  conf_close_file(&file);
  conf_delete(old);

  ASSERT_NE(nullptr, conf_);
  const struct pport* pp = pport_find(conf_, "pp0");
  ASSERT_NE(nullptr, pp);
  EXPECT_EQ(42u, pp->pp_ctl_port);
  EXPECT_EQ(TAILQ_FIRST(&conf_->conf_targets), TAILQ_FIRST(&pp->pp_ports)->p_target);
}

TEST_F(ReaderTest, SizeTakesUnitSuffixes) {
  ASSERT_NE(nullptr, OnlyLun("path p\nsize 1g"));
  EXPECT_EQ(1073741824u, TAILQ_FIRST(&conf_->conf_luns)->l_size);
  ASSERT_NE(nullptr, OnlyLun("path p\nsize 4k\nblocksize 4096"));
  EXPECT_EQ(4096u, TAILQ_FIRST(&conf_->conf_luns)->l_size);
  EXPECT_EQ(4096, TAILQ_FIRST(&conf_->conf_luns)->l_blocksize);
}

TEST_F(ReaderTest, DeviceTypeTakesNamesInAnyCaseOrNumbersUpTo15) {
  const std::vector<std::pair<std::string, int>> cases = {
      {"disk", 0}, {"DIRECT", 0},  {"Processor", 3}, {"cd", 5},  {"cdrom", 5},
      {"dvd", 5},  {"DVDROM", 5}, {"7", 7},          {"0xf", 15}, {"0", 0}};
  for (const auto& [word, type] : cases) {
    struct lun* lun = OnlyLun("path p\ndevice-type " + word);
    ASSERT_NE(nullptr, lun) << word;
    EXPECT_EQ(type, lun->l_device_type) << word;
  }
}

TEST_F(ReaderTest, OptionalLunEntriesAreStored) {
  struct lun* lun = OnlyLun("path p\ndevice-id \"dev 1\"\nserial SN0001\nctl-lun 12\n"
                            "blocksize 512\ndevice-type cd");
  ASSERT_NE(nullptr, lun);
  EXPECT_STREQ("dev 1", lun->l_device_id);
  EXPECT_STREQ("SN0001", lun->l_serial);
  EXPECT_EQ(12u, lun->l_ctl_lun);
  EXPECT_EQ(512, lun->l_blocksize);
}

TEST_F(ReaderTest, SemicolonMayEndAnyStatementOrEntry) {
  ASSERT_NE(nullptr, Read("generation 7;\n"
                          "initiator-group ig { initiator iqn.2024-01.org.example:a; };\n"
                          "auth-group ag { auth-type none; initiator-group ig; };\n"
                          "portal-group pg { listen nok1; tag 2; };\n"
                          "target iqn.2024-01.org.example:t { portal-group pg; "
                          "auth-group ag; lun 0 { path p; size 8; }; };\n"));
  EXPECT_EQ(7u, conf_->conf_generation);
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[0]);
}

TEST_F(ReaderTest, WriterLayoutReadsBack) {
  // The writer's exact spacing, including the type line that it leaves
  // without a line end.
  ASSERT_NE(nullptr, Read("generation 41\n"
                          "option zeld-flag on\n"
                          "initiator-group ig1 {\n"
                          "\t initiator iqn.2024-01.org.example:one \n"
                          "}\n"
                          "auth-group default {\n"
                          "\t auth-type none\n"
                          "}\n"
                          "auth-group 3fb2b402-cfcb-4738-9622-3a566bb58dbf {\n"
                          "\t auth-type none\t initiator-group ig1\n"
                          "\t initiator-name iqn.2024-01.org.example:two\n"
                          "}\n"
                          "portal-group default {\n"
                          "\t discovery-auth-group default\n"
                          "\t listen nok0:3260\n"
                          "}\n"
                          "target iqn.2024-01.org.example:t {\n"
                          "\talias \"Disk target\"\n"
                          "\tportal-group default\n"
                          "\tauth-group 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
                          "\toption uuid 3fb2b402-cfcb-4738-9622-3a566bb58dbf\n"
                          "\tlun 0 {\n"
                          "\t\tbackend qdsk\n"
                          "\t\tpath 3fb2b402-cfcb-4738-9622-3a566bb58dbf/disk.qdsk\n"
                          "\t\tsize 2048\n"
                          "\t\toption status \"offline\"\n"
                          "\t}\n"
                          "}\n"));
  const struct target* target = TAILQ_FIRST(&conf_->conf_targets);
  EXPECT_STREQ("Disk target", target->t_alias);
  EXPECT_TRUE(lun_is_offline(target->t_luns[0]));
  const struct auth_group* ag = target->t_auth_group;
  EXPECT_NE(nullptr, auth_group_igroup_ref_find(ag, "ig1"));
  EXPECT_NE(nullptr, auth_name_find(ag, "iqn.2024-01.org.example:two"));
}

TEST_F(ReaderTest, KeywordsAreLowerCaseOnlyAndQuotingMakesAnyTextAWord) {
  ASSERT_NE(nullptr, Read("option ALIAS \"target {x}\"\n"));
  EXPECT_STREQ("target {x}", conf_option_find(conf_, "ALIAS")->co_value);
  ASSERT_NE(nullptr, Read("option \"lun\" \"\"\n"));
  EXPECT_STREQ("", conf_option_find(conf_, "lun")->co_value);
}

TEST_F(ReaderTest, LunNamesWithCommasAreWords) {
  ASSERT_NE(nullptr, Read("lun iqn.2024-01.org.example:x,L,0x0000000000000001 {\n path p\n}\n"
                          "target iqn.2024-01.org.example:t {\n"
                          " lun 1 iqn.2024-01.org.example:x,L,0x0000000000000001\n"
                          "}\n"));
  EXPECT_NE(nullptr, TAILQ_FIRST(&conf_->conf_targets)->t_luns[1]);
}

}  // namespace
