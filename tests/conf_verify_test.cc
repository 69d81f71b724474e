// conf_verify: the defaults it fills in, the LUNs it refuses and the
// warnings it gives about unused or doubtful objects.
#include <string>
#include <vector>

#include "conf_fixture.h"

namespace zel {
namespace test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

TEST_F(ConfVerify, BlockSizeDefaultsByDeviceTypeAndMustBePositive) {
  struct lun* disk = Lun("disk", "/d");
  struct lun* cd = Lun("cd", "/c");
  lun_set_device_type(cd, 5);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_EQ(512, disk->l_blocksize);
  EXPECT_EQ(2048, cd->l_blocksize);
  disk->l_blocksize = -512;
  EXPECT_EQ(1, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("invalid blocksize for lun \"disk\"; must be larger than 0"));
}

TEST_F(ConfVerify, SizeInSectorsMustFillWholeBlocks) {
  struct lun* lun = Lun("l0", "/p");
  lun_set_blocksize(lun, 4096);
  lun_set_size(lun, 3);
  EXPECT_EQ(1, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("invalid size for lun \"l0\"; must be multiple of blocksize"));
  lun_set_size(lun, 8);
  EXPECT_EQ(0, conf_verify(conf_));
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
  ClearLog();
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
  struct target* t = target_new(conf_, "iqn.2020-01.com.example:t");
  t->t_auth_group = auth_group_new(conf_, "by-target");
  struct target* u = target_new(conf_, "iqn.2020-01.com.example:u");
  port_new(conf_, u, pg)->p_auth_group = auth_group_new(conf_, "by-port");
  log_init(2);
  EXPECT_EQ(0, conf_verify(conf_));
  EXPECT_THAT(Logged(), ElementsAre("auth-group \"spare\" not assigned to any target"));
}

}  // namespace
}  // namespace test
}  // namespace zel
