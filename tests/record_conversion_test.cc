// Conversion of a configuration graph into the public records that queries
// hand out: defaults, targets with their LUNs, initiator groups.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cache/RecordConversion.h"
#include "conf_fixture.h"
#include "storage/LunPaths.h"
#include "storage/Units.h"
#include "zel/OrvaCtlException.h"
#include "zel/TargetInfo.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;
namespace Conversion = NokCtl::Orva::IscsiTarget::Conversion;

const char kTargetUuid[] = "5a1d6e3c-0b7f-4c2e-9d11-3f0a8c7b6e21";

class RecordConversion : public ConfFixture {
 protected:
  struct target* AddTarget(const char* iqn, const char* alias) {
    struct target* target = target_new(conf_, iqn);
    EXPECT_NE(nullptr, target);
    if (alias != nullptr) target->t_alias = checked_strdup(alias);
    return target;
  }

  struct auth_group* AuthGroup(const char* name, const char* type) {
    struct auth_group* ag = auth_group_new(conf_, name);
    EXPECT_EQ(0, auth_group_set_type(ag, type));
    return ag;
  }

  struct portal_group* PortalGroup(const char* name, const char* listen) {
    struct portal_group* pg = portal_group_new(conf_, name);
    if (listen != nullptr) {
      EXPECT_EQ(0, portal_group_add_listen(pg, listen, false));
    }
    return pg;
  }

  struct lun* AddLun(struct target* target, uint32_t number, uint64_t sectors) {
    char name[256];
    zeld_target_lun_name(name, sizeof name, target, number);
    struct lun* lun = lun_new(conf_, name);
    lun_set_zeld_lun(lun, number);
    lun_set_size(lun, sectors);
    std::string path = std::string(kTargetUuid) + "/lun-" + std::to_string(number) + ".qdsk";
    lun_set_path(lun, path.c_str());
    target->t_luns[number] = lun;
    return lun;
  }

  std::vector<TargetInfo> Targets() {
    std::vector<TargetInfo> out;
    Conversion::_GetTargetInfos(conf_, out);
    return out;
  }

  TargetInfo OnlyTarget() {
    std::vector<TargetInfo> targets = Targets();
    EXPECT_EQ(1u, targets.size());
    return targets.empty() ? TargetInfo("", "", "", "", 0, "", "", "", "", "", "", "", "", false)
                           : targets[0];
  }

  std::vector<InitiatorgroupInfo> Groups() {
    std::vector<InitiatorgroupInfo> out;
    Conversion::_GetInitiatorGroupInfos(conf_, out);
    return out;
  }

  std::string DatastoreRoot() { return host_.Config().datastoreRoot; }
};

template <typename Call>
std::string MessageOf(Call call) {
  try {
    call();
  } catch (const OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "(no exception)";
}

// --- defaults ------------------------------------------------------------

TEST_F(RecordConversion, NullConfIsRefusedByEveryConversion) {
  std::vector<TargetInfo> targets;
  std::vector<InitiatorgroupInfo> groups;
  EXPECT_EQ("Cannot find Orva iSCSI configuration!",
            MessageOf([] { Conversion::GetConfigInfoFromConf(nullptr, true); }));
  EXPECT_EQ("Cannot find Orva iSCSI configuration!",
            MessageOf([&] { Conversion::_GetTargetInfos(nullptr, targets); }));
  EXPECT_EQ("Cannot find Orva iSCSI configuration!",
            MessageOf([&] { Conversion::_GetInitiatorGroupInfos(nullptr, groups); }));
}

TEST_F(RecordConversion, EmptyConfHasNoAuthenticationOnPort3260WithoutInterface) {
  DefaultInfo defaults = Conversion::GetConfigInfoFromConf(conf_, true);
  EXPECT_EQ("No-Authentication", defaults.authType);
  EXPECT_EQ(3260, defaults.port);
  EXPECT_EQ("", defaults.networkInterface);
  EXPECT_EQ("", defaults.userid);
}

TEST_F(RecordConversion, DefaultSecretsAreReportedOnlyWhenAskedFor) {
  auth_new_chap_mutual(auth_group_new(conf_, "default"), "alice", "alice-secret1",
                       "bob", "bob-secret-22", false);

  DefaultInfo without = Conversion::GetConfigInfoFromConf(conf_, false);
  EXPECT_EQ("CHAP-Mutual", without.authType);
  EXPECT_EQ("alice", without.userid);
  EXPECT_EQ("bob", without.mutualUserid);
  EXPECT_EQ("", without.secret);
  EXPECT_EQ("", without.mutualSecret);

  DefaultInfo with = Conversion::GetConfigInfoFromConf(conf_, true);
  EXPECT_EQ("alice-secret1", with.secret);
  EXPECT_EQ("bob-secret-22", with.mutualSecret);
}

TEST_F(RecordConversion, PlainChapDefaultsCarryNoMutualCredentials) {
  // The first credential still has a mutual pair, but a later plain CHAP
  // credential turned the group into plain CHAP: its type decides.
  struct auth_group* ag = auth_group_new(conf_, "default");
  auth_new_chap_mutual(ag, "alice", "alice-secret1", "bob", "bob-secret-22", false);
  auth_new_chap(ag, "carol", "carol-secret1", false);

  DefaultInfo defaults = Conversion::GetConfigInfoFromConf(conf_, true);
  EXPECT_EQ("CHAP", defaults.authType);
  EXPECT_EQ("alice", defaults.userid);
  EXPECT_EQ("alice-secret1", defaults.secret);
  EXPECT_EQ("", defaults.mutualUserid);
  EXPECT_EQ("", defaults.mutualSecret);
}

TEST_F(RecordConversion, DenyingDefaultGroupReportsNone) {
  AuthGroup("default", "deny");
  EXPECT_EQ("None", Conversion::GetConfigInfoFromConf(conf_, true).authType);
}

TEST_F(RecordConversion, DefaultNetworkComesFromTheLastListenEntry) {
  struct portal_group* pg = PortalGroup("default", "eth0:3260");
  EXPECT_EQ(0, portal_group_add_listen(pg, "eth1:5000", false));

  DefaultInfo defaults = Conversion::GetConfigInfoFromConf(conf_, false);
  EXPECT_EQ("eth1", defaults.networkInterface);
  EXPECT_EQ(5000, defaults.port);
}

TEST_F(RecordConversion, DefaultPortalWithoutInterfaceIsAnError) {
  portal_new(PortalGroup("default", nullptr));
  EXPECT_EQ("Default network interface not found.",
            MessageOf([&] { Conversion::GetConfigInfoFromConf(conf_, false); }));
}

// --- targets ---------------------------------------------------------------

TEST_F(RecordConversion, TargetIdentityComesFromNameAliasAndOptions) {
  struct target* target = AddTarget("iqn.2024-01.com.example:Disk1", "disk1");
  target_option_new(target, "uuid", kTargetUuid);
  target_option_new(target, "owner-id", "owner-object");
  target_option_new(target, "fault-domain", "Preferred");
  AddTarget("iqn.2024-01.com.example:bare", nullptr);

  std::vector<TargetInfo> targets = Targets();
  ASSERT_EQ(2u, targets.size());
  EXPECT_EQ("disk1", targets[0].alias);
  EXPECT_EQ("iqn.2024-01.com.example:disk1", targets[0].iqn);
  EXPECT_EQ(kTargetUuid, targets[0].uuid);
  EXPECT_EQ("owner-object", targets[0].ownerId);
  EXPECT_EQ("Preferred", targets[0].faultDomain);

  EXPECT_EQ("", targets[1].alias);
  EXPECT_EQ("", targets[1].uuid);
  EXPECT_EQ("", targets[1].ownerId);
  EXPECT_EQ("", targets[1].faultDomain);
  for (const TargetInfo& info : targets) {
    EXPECT_EQ("", info.ownerHostUuid);
    EXPECT_EQ("", info.ownerHostName);
    EXPECT_EQ("", info.policy);
    EXPECT_FALSE(info.policyCompliant);
  }
}

TEST_F(RecordConversion, TargetWithoutListenEntryReportsPort3260AndNoInterface) {
  AddTarget("iqn.2024-01.com.example:a", "a");
  struct target* emptyGroup = AddTarget("iqn.2024-01.com.example:b", "b");
  port_new(conf_, emptyGroup, PortalGroup("pg-empty", nullptr));

  for (const TargetInfo& info : Targets()) {
    EXPECT_EQ(3260, info.port) << info.alias;
    EXPECT_EQ("", info.networkInterface) << info.alias;
  }
}

TEST_F(RecordConversion, TargetListensOnTheFirstEntryOfItsFirstPortalGroup) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  struct portal_group* first = PortalGroup("pg-eth1-3261", "eth1:3261");
  EXPECT_EQ(0, portal_group_add_listen(first, "eth2:4000", false));
  port_new(conf_, target, first);
  port_new(conf_, target, PortalGroup("pg-eth3-5000", "eth3:5000"));

  TargetInfo info = OnlyTarget();
  EXPECT_EQ("eth1", info.networkInterface);
  EXPECT_EQ(3261, info.port);
}

TEST_F(RecordConversion, AuthTypeTextFollowsTheTargetsAuthGroup) {
  struct Case {
    const char* group;
    const char* type;
    const char* text;
  };
  const Case cases[] = {{"g-deny", "deny", "None"},
                        {"g-none", "none", "No-Authentication"},
                        {"g-chap", "chap", "CHAP"},
                        {"g-mutual", "chap-mutual", "CHAP-Mutual"}};
  AddTarget("iqn.2024-01.com.example:without-group", "without-group");
  for (const Case& c : cases) {
    struct target* target = AddTarget((std::string("iqn.2024-01.com.example:") + c.group).c_str(),
                                      c.group);
    target->t_auth_group = AuthGroup(c.group, c.type);
  }

  std::vector<TargetInfo> targets = Targets();
  ASSERT_EQ(5u, targets.size());
  EXPECT_EQ("No-Authentication", targets[0].authType);
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(cases[i].text, targets[i + 1].authType) << cases[i].type;
  }
}

TEST_F(RecordConversion, ChapTargetReportsItsUserButNeverASecret) {
  struct target* chap = AddTarget("iqn.2024-01.com.example:chap", "chap");
  chap->t_auth_group = auth_group_new(conf_, "g-chap");
  auth_new_chap(chap->t_auth_group, "alice", "alice-secret1", false);
  struct target* mutual = AddTarget("iqn.2024-01.com.example:mutual", "mutual");
  mutual->t_auth_group = auth_group_new(conf_, "g-mutual");
  auth_new_chap_mutual(mutual->t_auth_group, "carol", "carol-secret1", "dave", "dave-secret-2",
                       false);

  std::vector<TargetInfo> targets = Targets();
  ASSERT_EQ(2u, targets.size());
  EXPECT_EQ("alice", targets[0].userid);
  EXPECT_EQ("", targets[0].mutualUserid);
  EXPECT_EQ("carol", targets[1].userid);
  EXPECT_EQ("dave", targets[1].mutualUserid);
  for (const TargetInfo& info : targets) {
    for (const std::string& text :
         {info.alias, info.iqn, info.uuid, info.networkInterface, info.authType, info.userid,
          info.mutualUserid, info.ownerId, info.ownerHostUuid, info.ownerHostName, info.policy,
          info.faultDomain}) {
      EXPECT_EQ(std::string::npos, text.find("secret")) << text;
    }
  }
}

TEST_F(RecordConversion, PlainChapTargetReportsNoMutualUserOfItsFirstCredential) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  target->t_auth_group = auth_group_new(conf_, "g");
  auth_new_chap_mutual(target->t_auth_group, "alice", "alice-secret1", "bob", "bob-secret-22",
                       false);
  auth_new_chap(target->t_auth_group, "carol", "carol-secret1", false);

  TargetInfo info = OnlyTarget();
  EXPECT_EQ("CHAP", info.authType);
  EXPECT_EQ("alice", info.userid);
  EXPECT_EQ("", info.mutualUserid);
}

TEST_F(RecordConversion, NonChapTargetReportsNoUserEvenWithACredential) {
  // A credential left behind in a group whose type says otherwise.
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  target->t_auth_group = auth_group_new(conf_, "g");
  auth_new_chap(target->t_auth_group, "alice", "alice-secret1", false);
  target->t_auth_group->ag_type = AG_TYPE_NO_AUTHENTICATION;

  TargetInfo info = OnlyTarget();
  EXPECT_EQ("No-Authentication", info.authType);
  EXPECT_EQ("", info.userid);
}

TEST_F(RecordConversion, PermittedInitiatorsAndGroupsKeepConfigurationOrder) {
  for (const char* name : {"zeta", "alpha", "mid"}) initiator_group_new(conf_, name);
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  target->t_auth_group = auth_group_new(conf_, "g");
  auth_name_new(target->t_auth_group, "iqn.1998-01.com.example:host-b");
  auth_name_new(target->t_auth_group, "iqn.1998-01.com.example:host-a");
  auth_group_igroup_ref_add(conf_, target->t_auth_group, "mid");
  auth_group_igroup_ref_add(conf_, target->t_auth_group, "zeta");

  TargetInfo info = OnlyTarget();
  EXPECT_EQ((std::vector<std::string>{"iqn.1998-01.com.example:host-b",
                                      "iqn.1998-01.com.example:host-a"}),
            info.initiators);
  EXPECT_EQ((std::vector<std::string>{"mid", "zeta"}), info.initiatorGroups);
}

// --- LUNs ----------------------------------------------------------------------

TEST_F(RecordConversion, LunsAreReportedInNumberOrderNotCreationOrder) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  for (uint32_t number : {200u, 0u, 255u, 7u}) AddLun(target, number, 2048);

  std::vector<int> ids;
  for (const LunInfo& lun : OnlyTarget().luns) ids.push_back(lun.id);
  EXPECT_EQ((std::vector<int>{0, 7, 200, 255}), ids);
}

TEST_F(RecordConversion, LunSizeIsReportedInSectorsAndWholeMiB) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  AddLun(target, 0, 2048);
  AddLun(target, 1, 4095);
  // Far beyond any real disk, but sectors × 512 would overflow 64 bits.
  AddLun(target, 2, uint64_t{1} << 62);

  std::vector<LunInfo> luns = OnlyTarget().luns;
  ASSERT_EQ(3u, luns.size());
  EXPECT_EQ(1u, luns[0].sizeMiB);
  EXPECT_EQ(2048u, luns[0].sizeSectors);
  EXPECT_EQ(1u, luns[1].sizeMiB);
  EXPECT_EQ(4095u, luns[1].sizeSectors);
  EXPECT_EQ(uint64_t{1} << 51, luns[2].sizeMiB);
  EXPECT_EQ("", luns[0].size);
}

TEST_F(RecordConversion, LunStatusIsOnlineUnlessTheOptionSaysOtherwise) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  AddLun(target, 0, 2048);
  option_new(&AddLun(target, 1, 2048)->l_options, "status", "offline");

  std::vector<LunInfo> luns = OnlyTarget().luns;
  ASSERT_EQ(2u, luns.size());
  EXPECT_EQ("online", luns[0].status);
  EXPECT_EQ("offline", luns[1].status);
}

TEST_F(RecordConversion, LunOptionsAndHoldingTargetAreReported) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "backup");
  struct lun* named = AddLun(target, 0, 2048);
  option_new(&named->l_options, "lun-alias", "journal");
  option_new(&named->l_options, "naa", "6000C2912345678900000000000000AB");
  AddLun(target, 1, 2048);

  std::vector<LunInfo> luns = OnlyTarget().luns;
  ASSERT_EQ(2u, luns.size());
  EXPECT_EQ("journal", luns[0].alias);
  EXPECT_EQ("6000C2912345678900000000000000AB", luns[0].naa);
  EXPECT_EQ("", luns[1].alias);
  EXPECT_EQ("", luns[1].naa);
  for (const LunInfo& lun : luns) {
    EXPECT_EQ("backup", lun.target);
    EXPECT_EQ(1, lun.recordVersion);
    EXPECT_EQ("", lun.policy);
    EXPECT_FALSE(lun.policyCompliant);
  }
}

TEST_F(RecordConversion, LunPathIsAbsoluteInTheDatastoreAndNamesItsUuid) {
  struct target* target = AddTarget("iqn.2024-01.com.example:a", "a");
  lun_set_path(AddLun(target, 3, 2048),
               (std::string(kTargetUuid) + "/0c4f2b7e-1d3a-4e5b-8f60-7a9b1c2d3e4f.qdsk").c_str());

  LunInfo lun = OnlyTarget().luns.at(0);
  EXPECT_EQ(DatastoreRoot() + "/" + kTargetUuid + "/0c4f2b7e-1d3a-4e5b-8f60-7a9b1c2d3e4f.qdsk",
            lun.path);
  EXPECT_EQ("0c4f2b7e-1d3a-4e5b-8f60-7a9b1c2d3e4f", lun.uuid);
}

TEST_F(RecordConversion, LunPathBeyondTheBufferFailsAfterTheEarlierTargets) {
  AddLun(AddTarget("iqn.2024-01.com.example:a", "a"), 0, 2048);
  struct target* second = AddTarget("iqn.2024-01.com.example:b", "b");
  lun_set_path(AddLun(second, 0, 2048), (std::string(kTargetUuid) + "/" +
                                         std::string(256, 'x') + ".qdsk").c_str());

  std::vector<TargetInfo> out;
  std::string message = MessageOf([&] { Conversion::_GetTargetInfos(conf_, out); });
  EXPECT_EQ(0u, message.rfind("Failed to get absolute path for LUN ", 0)) << message;
  EXPECT_NE(std::string::npos, message.find(" of target b")) << message;
  ASSERT_EQ(1u, out.size());
  EXPECT_EQ("a", out[0].alias);
}

// --- initiator groups ----------------------------------------------------------

TEST_F(RecordConversion, InitiatorGroupsListTheirInitiatorsInOrder) {
  struct initiator_group* hosts = initiator_group_new(conf_, "hosts");
  initiator_new(hosts, "iqn.1998-01.com.example:h2");
  initiator_new(hosts, "iqn.1998-01.com.example:h1");
  initiator_group_new(conf_, "empty");

  std::vector<InitiatorgroupInfo> groups = Groups();
  ASSERT_EQ(2u, groups.size());
  EXPECT_EQ("hosts", groups[0].name);
  EXPECT_EQ((std::vector<std::string>{"iqn.1998-01.com.example:h2",
                                      "iqn.1998-01.com.example:h1"}),
            groups[0].initiators);
  EXPECT_EQ("empty", groups[1].name);
  EXPECT_TRUE(groups[1].initiators.empty());
  EXPECT_TRUE(groups[1].targets.empty());
}

TEST_F(RecordConversion, InitiatorGroupNamesOnlyTheTargetsThatReferToIt) {
  initiator_group_new(conf_, "hosts");
  initiator_group_new(conf_, "others");
  struct target* zulu = AddTarget("iqn.2024-01.com.example:zulu", "zulu");
  zulu->t_auth_group = auth_group_new(conf_, "g-zulu");
  auth_group_igroup_ref_add(conf_, zulu->t_auth_group, "hosts");
  struct target* alpha = AddTarget("iqn.2024-01.com.example:alpha", "alpha");
  alpha->t_auth_group = auth_group_new(conf_, "g-alpha");
  auth_group_igroup_ref_add(conf_, alpha->t_auth_group, "others");
  auth_group_igroup_ref_add(conf_, alpha->t_auth_group, "hosts");
  struct target* other = AddTarget("iqn.2024-01.com.example:other", "other");
  other->t_auth_group = auth_group_new(conf_, "g-other");
  auth_group_igroup_ref_add(conf_, other->t_auth_group, "others");
  AddTarget("iqn.2024-01.com.example:open", "open");

  std::vector<InitiatorgroupInfo> groups = Groups();
  ASSERT_EQ(2u, groups.size());
  std::map<std::string, std::string> expected = {{"alpha", "iqn.2024-01.com.example:alpha"},
                                                 {"zulu", "iqn.2024-01.com.example:zulu"}};
  EXPECT_EQ(expected, groups[0].targets);
  EXPECT_EQ(2u, groups[1].targets.size());
  EXPECT_EQ(1u, groups[1].targets.count("other"));
}

TEST_F(RecordConversion, InitiatorGroupKeepsTheFirstTargetOfARepeatedAlias) {
  initiator_group_new(conf_, "hosts");
  for (const char* iqn : {"iqn.2024-01.com.example:one", "iqn.2024-01.com.example:two"}) {
    struct target* target = AddTarget(iqn, "shared");
    target->t_auth_group = auth_group_new(conf_, iqn);
    auth_group_igroup_ref_add(conf_, target->t_auth_group, "hosts");
  }

  std::vector<InitiatorgroupInfo> groups = Groups();
  ASSERT_EQ(1u, groups.size());
  std::map<std::string, std::string> expected = {{"shared", "iqn.2024-01.com.example:one"}};
  EXPECT_EQ(expected, groups[0].targets);
}

// --- helpers and records -------------------------------------------------------

TEST(RecordConversionHelpers, UnitTableIsBinaryCaseInsensitiveAndZeroForUnknown) {
  using NokCtl::Orva::IscsiTarget::GetUnitValueFromString;
  EXPECT_EQ(1u, GetUnitValueFromString("b"));
  EXPECT_EQ(uint64_t{1} << 20, GetUnitValueFromString("mib"));
  EXPECT_EQ(uint64_t{1} << 20, GetUnitValueFromString("MB"));
  EXPECT_EQ(uint64_t{1} << 30, GetUnitValueFromString("GiB"));
  EXPECT_EQ(uint64_t{1} << 40, GetUnitValueFromString("tb"));
  EXPECT_EQ(0u, GetUnitValueFromString("pb"));
  EXPECT_EQ(0u, GetUnitValueFromString(""));
  EXPECT_EQ(0u, GetUnitValueFromString("mibs"));
}

TEST(RecordConversionHelpers, LunUuidIsTheDiskFileNameWithoutExtension) {
  using NokCtl::Orva::IscsiTarget::Util::GetLunUuid;
  EXPECT_EQ("lun-uuid", GetLunUuid("/datastore/target-uuid/lun-uuid.qdsk"));
  EXPECT_EQ("lun-uuid", GetLunUuid("target-uuid/lun-uuid.qdsk"));
  EXPECT_EQ("lun-uuid", GetLunUuid("lun-uuid.qdsk"));
  EXPECT_EQ("lun-uuid", GetLunUuid("dir.d/lun-uuid"));
  EXPECT_EQ(".hidden", GetLunUuid("dir/.hidden"));
}

TEST(RecordConversionHelpers, LunAbsPathNeverHandsOutACutPath) {
  ScopedTestHost host;
  const std::string root = host.Config().datastoreRoot;
  const std::string rel = "t/l.qdsk";
  const size_t exact = root.size() + 1 + rel.size() + 1;
  std::vector<char> buf(exact, '?');

  EXPECT_EQ(0, GetLunAbsPath(rel.c_str(), buf.data(), exact));
  EXPECT_EQ(root + "/" + rel, buf.data());
  EXPECT_EQ(-1, GetLunAbsPath(rel.c_str(), buf.data(), exact - 1));
  EXPECT_EQ("", std::string(buf.data()));
}

TEST(RecordConversionRecords, TargetInfoConstructorDropsItsUserNames) {
  TargetInfo info("alias", "iqn.2024-01.com.example:a", "uuid", "eth0", 3261, "CHAP", "alice",
                  "bob", "owner-object", "owner-host", "host-name", "policy-text", "Preferred",
                  true);
  EXPECT_EQ("", info.userid);
  EXPECT_EQ("", info.mutualUserid);
  EXPECT_EQ("alias", info.alias);
  EXPECT_EQ("iqn.2024-01.com.example:a", info.iqn);
  EXPECT_EQ("uuid", info.uuid);
  EXPECT_EQ("eth0", info.networkInterface);
  EXPECT_EQ(3261, info.port);
  EXPECT_EQ("CHAP", info.authType);
  EXPECT_EQ("owner-object", info.ownerId);
  EXPECT_EQ("owner-host", info.ownerHostUuid);
  EXPECT_EQ("host-name", info.ownerHostName);
  EXPECT_EQ("policy-text", info.policy);
  EXPECT_EQ("Preferred", info.faultDomain);
  EXPECT_TRUE(info.policyCompliant);
  EXPECT_TRUE(info.initiators.empty());
  EXPECT_TRUE(info.initiatorGroups.empty());
  EXPECT_TRUE(info.luns.empty());
}

}  // namespace
}  // namespace test
}  // namespace zel
