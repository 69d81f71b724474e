// The object graph: names, duplicates, ownership links and deletion.
#include <string>

#include "conf_fixture.h"

namespace zel {
namespace test {
namespace {

using ConfModel = ConfFixture;
using ::testing::ElementsAre;

const char kIqn[] = "iqn.2020-01.com.example:disk1";

TEST_F(ConfModel, TargetNameIsStoredLowerCasedAndCaseVariantsAreDuplicates) {
  struct target* t = target_new(conf_, "IQN.2020-01.com.Example:Disk1");
  ASSERT_NE(nullptr, t);
  EXPECT_STREQ(kIqn, t->t_name);
  EXPECT_EQ(t, target_find(conf_, "iqn.2020-01.COM.example:disk1"));
  EXPECT_EQ(nullptr, target_new(conf_, "iqn.2020-01.com.example:DISK1"));
  EXPECT_THAT(Logged(), ElementsAre("duplicated target \"iqn.2020-01.com.example:DISK1\""));
  EXPECT_EQ(nullptr, TAILQ_NEXT(t, t_next));
}

TEST_F(ConfModel, OnlyAnOverlongTargetNameIsRefused) {
  EXPECT_NE(nullptr, target_new(conf_, "iqn.2020-01.com.example:bad_char"));
  EXPECT_NE(nullptr, target_new(conf_, "eui.0123"));
  std::string longest = "iqn." + std::string(218, 'a');
  EXPECT_NE(nullptr, target_new(conf_, longest.c_str()));
  std::string overlong = longest + "b";
  EXPECT_EQ(nullptr, target_new(conf_, overlong.c_str()));
  EXPECT_TRUE(WasLogged("target name \"" + overlong + "\" is invalid"));
}

TEST_F(ConfModel, DuplicatesAreRefusedWithTheirOwnTexts) {
  struct target* t = target_new(conf_, kIqn);
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
  EXPECT_THAT(Logged(), ElementsAre("duplicated target option uuid for target \"" +
                                        std::string(kIqn) + "\"",
                                    "duplicated lun \"l\"", "duplicated option \"lun-alias\"",
                                    "duplicated auth-group \"ag\"",
                                    "duplicated portal-group \"pg\""));
}

TEST_F(ConfModel, OnlyTheLastTopLevelOptionSurvives) {
  conf_option_new(conf_, "first", "1");
  EXPECT_EQ(nullptr, conf_option_new(conf_, "first", "again"));
  EXPECT_THAT(Logged(), ElementsAre("duplicated config option first "));
  struct conf_option* second = conf_option_new(conf_, "second", "2");
  EXPECT_EQ(second, TAILQ_FIRST(&conf_->conf_options));
  EXPECT_EQ(nullptr, TAILQ_NEXT(second, co_next));
}

TEST_F(ConfModel, LunNamesCarryTargetAndNumberAndLeadBackToTheTarget) {
  struct target* t = target_new(conf_, kIqn);
  target_new(conf_, "iqn.2020-01.com.example:disk10");
  char name[256];
  zeld_target_lun_name(name, sizeof(name), t, 10);
  EXPECT_STREQ("iqn.2020-01.com.example:disk1,L,0x000000000000000a", name);
  struct lun* lun = lun_new(conf_, name);
  EXPECT_EQ(t, lun_target_find(conf_, lun));
  EXPECT_EQ(nullptr, lun_find(conf_, "IQN.2020-01.com.example:disk1,L,0x000000000000000a"));
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

TEST_F(ConfModel, MovingALunRewritesTheUuidPrefixOfItsPath) {
  struct target* t = target_new(conf_, kIqn);
  target_option_new(t, "uuid", "bbbbbbbb-2222");
  struct lun* lun = lun_new(conf_, "l");
  lun_set_path(lun, "aaaaaaaa-1111/disk.qdsk");
  lun_modify_target_path(lun, t);
  EXPECT_STREQ("bbbbbbbb-2222/disk.qdsk", lun->l_path);
}

TEST_F(ConfModel, PortsJoinGroupAndTargetNamesAndAreUniqueAcrossCase) {
  struct portal_group* pg = portal_group_new(conf_, "pg1");
  pg->pg_dscp = 46;
  struct target* t = target_new(conf_, kIqn);
  struct port* port = port_new(conf_, t, pg);
  ASSERT_NE(nullptr, port);
  EXPECT_STREQ("pg1-iqn.2020-01.com.example:disk1", port->p_name);
  EXPECT_EQ(46u, port->p_dscp);
  EXPECT_EQ(port, port_find_in_pg(pg, "IQN.2020-01.com.example:DISK1"));
  struct pport* pp = pport_new(conf_, "PG1", 3);
  EXPECT_EQ(nullptr, port_new_pp(conf_, t, pp));
  EXPECT_THAT(Logged(), ElementsAre("duplicate port \"PG1-iqn.2020-01.com.example:disk1\""));
  EXPECT_TRUE(TAILQ_EMPTY(&pp->pp_ports));
}

TEST_F(ConfModel, DeletingATargetUnlinksItsPortsFromGroupsAndPports) {
  struct portal_group* pg = portal_group_new(conf_, "pg1");
  struct pport* pp = pport_new(conf_, "pp", 1);
  struct target* t = target_new(conf_, kIqn);
  port_new(conf_, t, pg);
  port_new_pp(conf_, t, pp);
  target_delete(t);
  EXPECT_TRUE(TAILQ_EMPTY(&pg->pg_ports));
  EXPECT_TRUE(TAILQ_EMPTY(&pp->pp_ports));
  EXPECT_TRUE(TAILQ_EMPTY(&conf_->conf_ports));
}

TEST_F(ConfModel, RedirectionIsSetOnlyOnce) {
  struct target* t = target_new(conf_, kIqn);
  struct portal_group* pg = portal_group_new(conf_, "pg1");
  EXPECT_EQ(0, target_set_redirection(t, "10.0.0.1"));
  EXPECT_EQ(1, target_set_redirection(t, "10.0.0.2"));
  EXPECT_EQ(0, portal_group_set_redirection(pg, "10.0.0.3"));
  EXPECT_EQ(1, portal_group_set_redirection(pg, "10.0.0.4"));
  EXPECT_THAT(Logged(), ElementsAre("cannot set redirection to \"10.0.0.2\" for target \"" +
                                        std::string(kIqn) + "\"; already defined",
                                    "cannot set redirection to \"10.0.0.4\" for portal-group "
                                    "\"pg1\"; already defined"));
}

TEST_F(ConfModel, AuthGroupsReachInitiatorsThroughGroupReferences) {
  struct initiator_group* ig = initiator_group_new(conf_, "hosts");
  initiator_new(ig, "iqn.1998-01.com.example:host1");
  struct auth_group* ag = auth_group_new(conf_, "ag");
  EXPECT_EQ(nullptr, auth_group_igroup_ref_add(conf_, ag, "Hosts"));
  EXPECT_THAT(Logged(), ElementsAre("initiator group  \"Hosts\" not found"));
  ASSERT_NE(nullptr, auth_group_igroup_ref_add(conf_, ag, "hosts"));
  EXPECT_NE(nullptr, auth_group_igroup_initiator_find(ag, "IQN.1998-01.com.example:HOST1"));
  initiator_group_delete_all_refs(conf_, "hosts");
  EXPECT_FALSE(auth_group_initiator_group_defined(ag));
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
  struct target* t = target_new(conf, kIqn);
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

}  // namespace
}  // namespace test
}  // namespace zel
