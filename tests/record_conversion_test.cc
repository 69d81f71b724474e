// Conversion of a configuration graph into the public records that queries
// hand out: defaults, targets with their LUNs, initiator groups.
#include <cstdint>
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

// The defaults (group "default") and a target's group are read alike: the
// group's type names the text, its first credential the users, and secrets
// appear only in the defaults and only when asked for.
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
    EXPECT_EQ(c.type, with.authType);
    EXPECT_EQ(c.user, with.userid);
    EXPECT_EQ(c.mutualUser, with.mutualUserid);
    EXPECT_EQ(c.secret, with.secret);
    EXPECT_EQ(c.mutualSecret, with.mutualSecret);
    const DefaultInfo without = Conversion::GetConfigInfoFromConf(conf_, false);
    EXPECT_EQ(c.user, without.userid);
    EXPECT_EQ("", without.secret + without.mutualSecret);
    const TargetInfo info = Targets().at(0);
    EXPECT_EQ(c.type, info.authType);
    EXPECT_EQ(c.user, info.userid);
    EXPECT_EQ(c.mutualUser, info.mutualUserid);
    for (const std::string& text :
         {info.alias, info.iqn, info.uuid, info.networkInterface, info.authType, info.userid,
          info.mutualUserid, info.ownerId, info.ownerHostUuid, info.ownerHostName, info.policy,
          info.faultDomain}) {
      EXPECT_EQ(std::string::npos, text.find("secret")) << text;
    }
  }
}

TEST_F(RecordConversion, DefaultNetworkComesFromTheLastListenEntry) {
  EXPECT_EQ(3260, Conversion::GetConfigInfoFromConf(conf_, true).port);
  EXPECT_EQ("", Conversion::GetConfigInfoFromConf(conf_, true).networkInterface);
  struct portal_group* pg = portal_group_new(conf_, "default");
  EXPECT_EQ(0, portal_group_add_listen(pg, "eth0:3260", false));
  EXPECT_EQ(0, portal_group_add_listen(pg, "eth1:5000", false));
  DefaultInfo defaults = Conversion::GetConfigInfoFromConf(conf_, false);
  EXPECT_EQ("eth1", defaults.networkInterface);
  EXPECT_EQ(5000, defaults.port);
  portal_new(pg);
  EXPECT_EQ("Default network interface not found.",
            MessageOf([&] { Conversion::GetConfigInfoFromConf(conf_, false); }));
}

TEST_F(RecordConversion, TargetListensOnTheFirstEntryOfItsFirstPortalGroupOr3260) {
  AddTarget("a", "a");
  port_new(conf_, AddTarget("b", "b"), portal_group_new(conf_, "pg-empty"));
  struct target* target = AddTarget("c", "c");
  struct portal_group* first = portal_group_new(conf_, "pg-eth1-3261");
  EXPECT_EQ(0, portal_group_add_listen(first, "eth1:3261", false));
  EXPECT_EQ(0, portal_group_add_listen(first, "eth2:4000", false));
  port_new(conf_, target, first);
  struct portal_group* second = portal_group_new(conf_, "pg-eth3-5000");
  EXPECT_EQ(0, portal_group_add_listen(second, "eth3:5000", false));
  port_new(conf_, target, second);
  std::vector<TargetInfo> targets = Targets();
  ASSERT_EQ(3u, targets.size());
  for (int i : {0, 1}) {
    EXPECT_EQ(3260, targets[i].port) << targets[i].alias;
    EXPECT_EQ("", targets[i].networkInterface) << targets[i].alias;
  }
  EXPECT_EQ("eth1", targets[2].networkInterface);
  EXPECT_EQ(3261, targets[2].port);
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

// ---- LUNs ------------------------------------------------------------------------

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
  std::vector<int> ids;
  for (const LunInfo& lun : luns) ids.push_back(lun.id);
  ASSERT_EQ((std::vector<int>{0, 1, 2, 7, 200, 255}), ids);
  EXPECT_EQ(1u, luns[0].sizeMiB);
  EXPECT_EQ(2048u, luns[0].sizeSectors);
  EXPECT_EQ(1u, luns[1].sizeMiB);
  EXPECT_EQ(4095u, luns[1].sizeSectors);
  EXPECT_EQ(uint64_t{1} << 51, luns[2].sizeMiB);
  EXPECT_EQ("journal", luns[0].alias);
  for (size_t i = 0; i < luns.size(); ++i) {
    EXPECT_EQ(i == 3 ? "offline" : "online", luns[i].status) << i;
    EXPECT_EQ(i == 0 ? "journal6000C2912345678900000000000000AB" : "", luns[i].alias + luns[i].naa);
    EXPECT_EQ("", luns[i].size + luns[i].policy);
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

// ---- initiator groups ------------------------------------------------------------

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
  std::vector<InitiatorgroupInfo> groups = Groups();
  ASSERT_EQ(3u, groups.size());
  EXPECT_EQ("hosts", groups[0].name);
  EXPECT_EQ((std::vector<std::string>{"iqn.1998-01.com.example:h2",
                                      "iqn.1998-01.com.example:h1"}),
            groups[0].initiators);
  EXPECT_EQ((std::map<std::string, std::string>{{"alpha", "iqn.2024-01.com.example:alpha"},
                                                {"zulu", "iqn.2024-01.com.example:zulu"}}),
            groups[0].targets);
  EXPECT_EQ(2u, groups[1].targets.size());
  EXPECT_EQ(1u, groups[1].targets.count("other"));
  EXPECT_EQ("empty", groups[2].name);
  EXPECT_TRUE(groups[2].initiators.empty());
  EXPECT_TRUE(groups[2].targets.empty());
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
