// Adding, changing and removing targets through the service: what zel.conf
// holds afterwards, the limits and uniqueness rules, the portal and auth
// groups that come and go with targets, and that every refusal leaves the
// file, its generation and the datastore as they were.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "edit/NamePatterns.h"
#include "platform/Host.h"
#include "storage/DatastoreLayout.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using HostCtl::Orva::IscsiTarget::TargetInfo;
namespace fs = std::filesystem;

TargetCreateParam Param(const std::string& alias, const std::string& iqn = "") {
  TargetCreateParam param;
  param.alias = alias;
  param.iqn = iqn;
  return param;
}

// kStandardConf plus `count` targets named "extra-N" without LUNs.
std::string StandardWithExtraTargets(int count) {
  std::string text = kStandardConf;
  for (int n = 0; n < count; ++n) {
    const std::string id = std::to_string(n);
    text += "target iqn.2026-11.local.zel:extra-" + id + " {\n\talias \"extra-" + id +
            "\"\n\tportal-group default\n\toption uuid 00000000-0000-4000-8000-" +
            std::string(12 - id.size(), '0') + id + "\n}\n";
  }
  return text;
}

class TargetEditingTest : public ::testing::Test {
 protected:
  TargetEditingTest() : services_(home_.InstallTestHost()) {
    auto nics = std::make_unique<FakeNetworkInterfaces>();
    nics->Set("nok0", platform::NOKNIC_UP);
    nics->Set("nok1", platform::NOKNIC_UP);
    // Real kernel names that zel.conf cannot keep in an unquoted word.
    nics->Set("nok1:1", platform::NOKNIC_UP);
    nics->Set("nok#2", platform::NOKNIC_UP);
    platform::CurrentHost().SetNics(std::move(nics));
    service_ = NewService();
  }

  std::string Conf() const { return ReadFile(home_.ConfPath()); }

  // All ones while nothing is published.
  uint64_t PublishedGeneration() const {
    uint64_t generation = ~uint64_t{0};
    if (ZeldGetConfigGenNumInBrix(&generation) != NOK_OK) return ~uint64_t{0};
    return generation;
  }

  // The target links under the configuration namespace: one per target.
  std::vector<std::string> TargetLinks() const {
    std::vector<std::string> links;
    for (const auto& entry :
         fs::directory_iterator(NokCtl::Orva::IscsiTarget::Util::GetTargetsDirPath())) {
      links.push_back(entry.path().filename());
    }
    return links;
  }

  size_t DatastoreEntries() const {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(platform::CurrentHost().Config().datastoreRoot)) {
      (void)entry;
      ++count;
    }
    return count;
  }

  TargetInfo Target(const std::string& alias) { return service_->GetTargetInfo(alias); }

  // The refusal `operation` throws; zel.conf, the published generation and
  // the datastore must be exactly as before it.
  std::string RefusalChangingNothing(const std::function<void()>& operation) {
    const std::string conf = Conf();
    const uint64_t published = PublishedGeneration();
    const size_t entries = DatastoreEntries();
    const size_t links = TargetLinks().size();
    const std::string message = MessageOf(operation);
    EXPECT_EQ(Conf(), conf);
    EXPECT_EQ(PublishedGeneration(), published);
    EXPECT_EQ(DatastoreEntries(), entries);
    EXPECT_EQ(TargetLinks().size(), links);
    return message;
  }

  ServiceHome home_;
  TestServices services_;
  std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> service_;
};

TEST_F(TargetEditingTest, NewChapTargetWithAclIsSavedPublishedAndReadBack) {
  TargetCreateParam param = Param("payroll", "iqn.2026-11.local.zel:Payroll");
  param.networkInterface = "nok1";
  param.port = 3270;
  param.authType = "CHAP";
  param.userid = "payroll-user";
  param.secret = "Payroll#Secret1";
  param.initiatorsToAdd = {"iqn.2024-01.org.example:pay-db", "finance-hosts"};
  service_->AddTarget(param);

  const TargetInfo target = Target("payroll");
  EXPECT_EQ(target.iqn, "iqn.2026-11.local.zel:payroll");
  EXPECT_EQ(target.uuid, param.uuid);
  EXPECT_EQ(target.ownerId, param.uuid);
  EXPECT_EQ(target.ownerHostUuid, home_.HostUuid());
  EXPECT_EQ(target.networkInterface, "nok1");
  EXPECT_EQ(target.port, 3270);
  EXPECT_EQ(target.authType, "CHAP");
  EXPECT_EQ(target.userid, "payroll-user");
  EXPECT_EQ(target.initiators, std::vector<std::string>{"iqn.2024-01.org.example:pay-db"});
  EXPECT_EQ(target.initiatorGroups, std::vector<std::string>{"finance-hosts"});

  const std::string conf = Conf();
  EXPECT_EQ(conf.rfind("generation 8\n", 0), 0u);
  EXPECT_EQ(PublishedGeneration(), 8u);
  EXPECT_NE(conf.find("portal-group pg-nok1-3270 {\n\t listen nok1:3270\n}\n"),
            std::string::npos)
      << conf;
  EXPECT_NE(conf.find("auth-group " + param.uuid + " {\n"), std::string::npos);
  EXPECT_EQ(conf.find("Payroll#Secret1"), std::string::npos);
  EXPECT_EQ(TargetLinks().size(), 1u);
  EXPECT_EQ(TargetLinks()[0], param.uuid);
}

TEST_F(TargetEditingTest, EmptyIqnIsGeneratedAndHandedBack) {
  TargetCreateParam param = Param("generated one");
  service_->AddTarget(param);
  EXPECT_TRUE(NokCtl::Orva::IscsiTarget::Util::IsValidInitiatorIQN(param.iqn)) << param.iqn;
  EXPECT_EQ(param.iqn.rfind("iqn.1998-01.", 0), 0u) << param.iqn;
  EXPECT_EQ(Target("generated one").iqn, param.iqn);
}

TEST_F(TargetEditingTest, AliasesAreExactWhileIqnsIgnoreLetterCase) {
  TargetCreateParam twin = Param("Finance", "iqn.2026-11.local.zel:f2");
  service_->AddTarget(twin);
  EXPECT_EQ(Target("Finance").iqn, "iqn.2026-11.local.zel:f2");

  TargetCreateParam sameAlias = Param("finance", "iqn.2026-11.local.zel:f3");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(sameAlias); }),
            "Target alias finance already exists.");
  TargetCreateParam sameIqn = Param("other", "iqn.2026-11.local.zel:FINANCE");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(sameIqn); }),
            "Target iqn iqn.2026-11.local.zel:FINANCE already exists.");
}

TEST_F(TargetEditingTest, TheHundredTwentyNinthTargetIsRefused) {
  home_.WriteConf(StandardWithExtraTargets(125));
  TargetCreateParam last = Param("last", "iqn.2026-11.local.zel:last");
  service_->AddTarget(last);
  TargetCreateParam beyond = Param("beyond", "iqn.2026-11.local.zel:beyond");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(beyond); }),
            "Limit on total number of targets (128) has been reached.");
}

TEST_F(TargetEditingTest, DefaultPortalGroupWithoutInterfaceRefusesNewTargets) {
  std::string conf = kStandardConf;
  conf.erase(conf.find("\t listen nok0:3260\n"), strlen("\t listen nok0:3260\n"));
  home_.WriteConf(conf);
  TargetCreateParam param = Param("nowhere", "iqn.2026-11.local.zel:nowhere");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(param); }),
            "Default network interface not found.");
}

TEST_F(TargetEditingTest, InterfaceNamesTheFileCannotKeepAreRefused) {
  for (const std::string name : {"nok1:1", "nok#2"}) {
    TargetCreateParam param = Param("odd", "iqn.2026-11.local.zel:odd");
    param.networkInterface = name;
    EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(param); }),
              "Network interface " + name +
                  " cannot be used: only letters, digits, '.', '_' and '-' can be stored in its "
                  "name");
  }
}

TEST_F(TargetEditingTest, FailedSaveRemovesTheNewNamespaceAgain) {
  services_.files->FailNext(FileOp::AtomicUpdate, FILEIO_ERROR);
  TargetCreateParam param = Param("doomed", "iqn.2026-11.local.zel:doomed");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(param); }),
            "Failed to swap config and temp config");
  EXPECT_TRUE(services_.log->Contains(
      "OrvaIscsiTargetImpl: Add target doomed failed: Failed to swap config and temp config "
      "rollback by deleting target namespace"));
}

TEST_F(TargetEditingTest, UnknownInitiatorGroupIsRefusedWithTheNameAndTarget) {
  TargetCreateParam param = Param("acl", "iqn.2026-11.local.zel:acl");
  param.initiatorsToAdd = {"no-such-group"};
  EXPECT_EQ(RefusalChangingNothing([&] { service_->AddTarget(param); }),
            "Failed to add initiator group no-such-group to target acl: no-such-group is neither "
            "a valid initiator IQN nor a predefined Initiator group ");
}

TEST_F(TargetEditingTest, RemovalTakesItsGroupsButKeepsSharedOnes) {
  TargetCreateParam first = Param("first", "iqn.2026-11.local.zel:first");
  first.networkInterface = "nok1";
  first.authType = "CHAP";
  first.userid = "first";
  first.secret = "First#Secret12";
  service_->AddTarget(first);
  TargetCreateParam second = Param("second", "iqn.2026-11.local.zel:second");
  second.networkInterface = "nok1";
  service_->AddTarget(second);

  service_->RemoveTarget("first");
  EXPECT_NE(Conf().find("portal-group pg-nok1-3260"), std::string::npos);
  EXPECT_EQ(Conf().find("auth-group " + first.uuid), std::string::npos);
  EXPECT_EQ(TargetLinks(), std::vector<std::string>{second.uuid});

  service_->RemoveTarget("second");
  EXPECT_EQ(Conf().find("pg-nok1-3260"), std::string::npos);
  EXPECT_NE(Conf().find("portal-group default"), std::string::npos);
  EXPECT_NE(Conf().find("auth-group default"), std::string::npos);
  EXPECT_TRUE(TargetLinks().empty());
  EXPECT_EQ(PublishedGeneration(), 11u);
}

TEST_F(TargetEditingTest, RemovalKeepsAnOwnGroupThatAHandEditedTargetShares) {
  TargetCreateParam solo = Param("solo", "iqn.2026-11.local.zel:solo");
  solo.authType = "CHAP";
  solo.userid = "solo";
  solo.secret = "Solo#Secret123";
  service_->AddTarget(solo);
  home_.WriteConf(Conf() + "target iqn.2026-11.local.zel:twin {\n\talias \"twin\"\n"
                           "\tauth-group " + solo.uuid + "\n"
                           "\toption uuid 00000000-0000-4000-8000-000000000001\n}\n");
  service_->RemoveTarget("solo");
  const std::vector<TargetInfo> left = service_->GetTargets(false, false);
  ASSERT_EQ(left.back().alias, "twin");
  EXPECT_EQ(left.back().userid, "solo");
  EXPECT_NE(Conf().find("auth-group " + solo.uuid + " {"), std::string::npos);
}

TEST_F(TargetEditingTest, RemovalRefusesTargetsWithLunsAndUnknownAliases) {
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveTarget("finance"); }),
            "Target finance is not empty.");
  EXPECT_EQ(RefusalChangingNothing([&] { service_->RemoveTarget("Lab"); }),
            "Target Lab is not found.");
}

TEST_F(TargetEditingTest, UpdateRenamesOnlyToAFreeAlias) {
  TargetCreateParam clash = Param("lab");
  clash.newAlias = "finance";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(clash); }),
            "Can't change target alias to finance, because target alias finance already exists");
  TargetCreateParam quoted = Param("lab");
  quoted.newAlias = "a\"b";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(quoted); }),
            "'\"' not permitted in alias");

  TargetCreateParam rename = Param("lab");
  rename.newAlias = "Finance";
  service_->UpdateTargetConfig(rename);
  EXPECT_EQ(Target("Finance").uuid, kLabUuid);
  EXPECT_EQ(MessageOf([&] { Target("lab"); }), "Target lab not found");
}

TEST_F(TargetEditingTest, UpdateMovesPortalsAndEditsTheAcl) {
  TargetCreateParam move = Param("lab");
  move.networkInterface = "nok1";
  move.port = 4000;
  move.initiatorsToAdd = {"iqn.2024-01.org.example:lab-1", "finance-hosts"};
  move.faultDomain = "Preferred";
  service_->UpdateTargetConfig(move);
  TargetInfo lab = Target("lab");
  EXPECT_EQ(lab.networkInterface, "nok1");
  EXPECT_EQ(lab.port, 4000);
  EXPECT_EQ(lab.authType, "CHAP-Mutual");
  EXPECT_EQ(lab.faultDomain, "Preferred");
  EXPECT_EQ(lab.initiators, std::vector<std::string>{"iqn.2024-01.org.example:lab-1"});

  TargetCreateParam back = Param("lab");
  back.networkInterface = "nok0";
  back.initiatorsToRemove = {"finance-hosts", "iqn.2024-01.org.example:LAB-1"};
  back.faultDomain = "None";
  back.authType = "No-Authentication";
  service_->UpdateTargetConfig(back);
  lab = Target("lab");
  EXPECT_EQ(lab.authType, "No-Authentication");
  EXPECT_TRUE(lab.initiators.empty());
  EXPECT_TRUE(lab.initiatorGroups.empty());
  EXPECT_EQ(lab.faultDomain, "");
  EXPECT_EQ(Conf().find("pg-nok1-4000"), std::string::npos) << "unused portal group kept";

  TargetCreateParam twice = Param("lab");
  twice.initiatorsToRemove = {"iqn.2024-01.org.example:lab-1"};
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(twice); }),
            "Initiator iqn.2024-01.org.example:lab-1 is not found for target lab");
  TargetCreateParam site = Param("lab");
  site.faultDomain = "Elsewhere";
  EXPECT_EQ(RefusalChangingNothing([&] { service_->UpdateTargetConfig(site); }),
            "The input affinity location Elsewhere is invalid, and the expected is "
            "{\"Preferred\" or \"NonPreferred\"} in stretched cluster mode.");
}

TEST_F(TargetEditingTest, AclOnATargetOfTheDefaultGroupLeavesTheDefaultGroupAlone) {
  TargetCreateParam plain = Param("plain", "iqn.2026-11.local.zel:plain");
  service_->AddTarget(plain);
  EXPECT_EQ(Target("plain").authType, "CHAP-Mutual");  // the standard defaults

  TargetCreateParam acl = Param("plain");
  acl.initiatorsToAdd = {"iqn.2024-01.org.example:only-me"};
  service_->UpdateTargetConfig(acl);
  const TargetInfo target = Target("plain");
  EXPECT_EQ(target.authType, "CHAP-Mutual");
  EXPECT_EQ(target.userid, "defuser");
  EXPECT_EQ(target.initiators, std::vector<std::string>{"iqn.2024-01.org.example:only-me"});
  EXPECT_TRUE(Target("lab").initiators.empty());
  const std::string conf = Conf();
  const size_t defaultGroup = conf.find("auth-group default {");
  const std::string defaultBlock =
      conf.substr(defaultGroup, conf.find("}\n", defaultGroup) - defaultGroup);
  EXPECT_EQ(defaultBlock.find("only-me"), std::string::npos) << conf;
}

}  // namespace
}  // namespace test
}  // namespace zel
