// Editing initiator groups through the service as the management process
// calls it: the per-cluster limits on groups and initiators, letter case in
// group and member names, deleting groups with their targets' references,
// and that every edit saves all it was asked for with the generation raised
// by one, or nothing at all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "zel/OrvaPlugin.h"

namespace zel {
namespace test {
namespace {

using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kIqn = "iqn.2024-01.org.example:";
const char kFinanceGroup[] = "initiator-group finance-hosts {\n";
const char kFinanceRef[] = "\t initiator-group finance-hosts\n";

// kStandardConf with `text` inserted before the first occurrence of `before`.
std::string StandardWithBefore(const std::string& before, const std::string& text) {
  std::string conf = kStandardConf;
  conf.insert(conf.find(before), text);
  return conf;
}

class InitiatorGroupEditingTest : public ::testing::Test {
 protected:
  std::string Conf() const { return ReadFile(home_.ConfPath()); }
  uint64_t Generation() const { return std::stoull(Conf().substr(sizeof("generation"))); }

  std::vector<InitiatorgroupInfo> Groups() { return service_->GetInitiatorgroups(); }
  std::vector<std::string> Members(const std::string& group) {
    return service_->GetInitiatorgroupInfo(group).initiators;
  }

  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
  std::unique_ptr<OrvaIscsiTarget> service_ = NewService();
};

TEST_F(InitiatorGroupEditingTest, TheTwoHundredFiftySeventhGroupIsRefused) {
  std::string groups;
  for (int i = 1; i < 255; ++i) groups += "initiator-group g" + std::to_string(i) + " {\n}\n";
  home_.WriteConf(StandardWithBefore(kFinanceGroup, groups));

  service_->AddInitiatorgroup("g255");
  ASSERT_EQ(Groups().size(), 256u);
  const std::string full = Conf();
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorgroup("g256"); }),
            "Failed to add initiator group g256 with error: the maximum initiator group allowed "
            "per cluster is 256. Current value: 256.");
  EXPECT_EQ(Conf(), full);
  EXPECT_TRUE(host_.log->Contains(
      "Parser: Failed to add initiator group g256 with error: the maximum initiator group "
      "allowed per cluster is 256. Current value: 256."));
}

TEST_F(InitiatorGroupEditingTest, GroupNamesAreComparedExactlyAndValidatedFirst) {
  Groups();  // fills the cache, which each edit must drop
  service_->AddInitiatorgroup("Finance-Hosts");
  EXPECT_EQ(Generation(), 8u);
  ASSERT_EQ(Groups().size(), 2u);
  EXPECT_EQ(Groups()[1].name, "Finance-Hosts");
  EXPECT_THAT(Groups()[1].initiators, IsEmpty());

  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorgroup("finance-hosts"); }),
            "Failed to add initiator group finance-hosts with error: initiator group "
            "finance-hosts already exists");
  // An initiator name is no group name; the refusal comes before the file.
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorgroup("IQN.hosts"); }),
            "Invalid initiator group name 'IQN.hosts'. Initiator group name cannot start with "
            "'iqn.' or 'eui.'");
  EXPECT_EQ(Generation(), 8u);
}

TEST_F(InitiatorGroupEditingTest, MembersAreStoredInLowerCaseAndMatchedInAnyCase) {
  Members("finance-hosts");
  service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "Lab-Host1"});
  EXPECT_EQ(Generation(), 8u);
  EXPECT_THAT(Members("finance-hosts"),
              ElementsAre(kIqn + "finance-db1", kIqn + "finance-db2", kIqn + "lab-host1"));

  EXPECT_EQ(MessageOf([&] {
              service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "lab-host1"});
            }),
            "Failed to add initiators to initiator group finance-hosts with error: initiator " +
                kIqn + "lab-host1 already exists for initiator group finance-hosts");

  service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts",
                                               {"IQN.2024-01.ORG.EXAMPLE:LAB-HOST1"});
  EXPECT_EQ(Generation(), 9u);
  EXPECT_THAT(Members("finance-hosts"), ElementsAre(kIqn + "finance-db1", kIqn + "finance-db2"));
  // The message names the member as it was asked for; no colon after "error".
  EXPECT_EQ(MessageOf([&] {
              service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts", {kIqn + "LAB-HOST1"});
            }),
            "Failed to remove initiators from initiator group finance-hosts with error Initiator " +
                kIqn + "LAB-HOST1 is not found for initiator group finance-hosts");
  EXPECT_EQ(Generation(), 9u);
}

TEST_F(InitiatorGroupEditingTest, ABatchWithOneBadNameChangesNothing) {
  const std::vector<std::vector<std::string>> batches = {
      {kIqn + "new1", "host-without-iqn"},
      {kIqn + "new1", kIqn + "NEW1"},
  };
  for (const std::vector<std::string>& batch : batches) {
    EXPECT_NE(MessageOf([&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", batch); }),
              "");
    EXPECT_EQ(Conf(), kStandardConf) << batch[1];
  }
  EXPECT_EQ(MessageOf([&] {
              service_->RemoveInitiatorsFromInitiatorgroup(
                  "finance-hosts", {kIqn + "finance-db1", kIqn + "finance-db9"});
            }),
            "Failed to remove initiators from initiator group finance-hosts with error Initiator " +
                kIqn + "finance-db9 is not found for initiator group finance-hosts");
  EXPECT_EQ(Conf(), kStandardConf);
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorsToInitiatorgroup("nobody", {kIqn + "x"}); }),
            "Failed to add initiators to initiator group nobody with error: Initiator group "
            "nobody not found.");
}

TEST_F(InitiatorGroupEditingTest, AGroupWithMembersIsDeletedOnlyByForceWithAllReferences) {
  // The lab target admits the group too.
  home_.WriteConf(StandardWithBefore("}\nportal-group default", kFinanceRef));
  ASSERT_EQ(service_->GetInitiatorgroupInfo("finance-hosts").targets.size(), 2u);
  const std::string before = Conf();

  EXPECT_EQ(MessageOf([&] { service_->RemoveInitiatorgroup("finance-hosts", false); }),
            "Failed to remove initiator group finance-hosts with error Initiator group "
            "finance-hosts is not empty. Use '--force' option to delete.");
  EXPECT_EQ(Conf(), before);

  service_->RemoveInitiatorgroup("finance-hosts", true);
  EXPECT_EQ(Generation(), 8u);
  EXPECT_THAT(Groups(), IsEmpty());
  EXPECT_EQ(Conf().find("finance-hosts"), std::string::npos) << Conf();
  EXPECT_EQ(service_->GetTargets(false, false).size(), 2u);
  EXPECT_NE(Conf().find("\t initiator-name " + kIqn + "backup1\n"), std::string::npos);
  EXPECT_TRUE(host_.log->Contains(
      "Parser: Remove initiator group finance-hosts from conf file (force enabled: 1)."));
}

TEST_F(InitiatorGroupEditingTest, AnEmptyGroupIsDeletedWithoutForceEvenWhileReferenced) {
  service_->RemoveInitiatorsFromInitiatorgroup(
      "finance-hosts", {"IQN.2024-01.ORG.EXAMPLE:FINANCE-DB1", kIqn + "finance-db2"});
  EXPECT_EQ(Generation(), 8u);
  ASSERT_THAT(Members("finance-hosts"), IsEmpty());

  service_->RemoveInitiatorgroup("finance-hosts", false);
  EXPECT_EQ(Generation(), 9u);
  EXPECT_EQ(Conf().find("finance-hosts"), std::string::npos) << Conf();
  EXPECT_EQ(MessageOf([&] { service_->RemoveInitiatorgroup("finance-hosts", true); }),
            "Failed to remove initiator group finance-hosts with error Initiator group "
            "finance-hosts not found.");
  EXPECT_EQ(Generation(), 9u);
}

TEST_F(InitiatorGroupEditingTest, TheClusterHoldsAtMost8192InitiatorsCountingTargetsNames) {
  // Two members of finance-hosts and the finance target's own initiator
  // name: 8191 with these.
  std::string bulk = "initiator-group bulk {\n";
  for (int i = 0; i < 8188; ++i)
    bulk += "\t initiator " + kIqn + "bulk" + std::to_string(i) + " \n";
  home_.WriteConf(StandardWithBefore(kFinanceGroup, bulk + "}\n"));

  service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "last"});
  EXPECT_EQ(Generation(), 8u);
  const std::string full = Conf();
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "over"}); }),
            "Failed to add initiators to initiator group bulk with error: the maximum initiators "
            "allowed per cluster is: 8192. Current initiator count: 8192. New initiators count: "
            "1.");
  EXPECT_EQ(Conf(), full);
  // Freeing one place admits one more.
  service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts", {kIqn + "finance-db1"});
  service_->AddInitiatorsToInitiatorgroup("bulk", {kIqn + "over"});
  EXPECT_EQ(Generation(), 10u);
}

TEST_F(InitiatorGroupEditingTest, EveryEditIsRefusedWhileTheServiceIsDisabled) {
  home_.SetServiceEnabled(false);
  // A service object reads the status when it is made.
  service_ = NewService();
  const std::string kNotEnabled =
      "Orva iSCSI Target Service is not enabled or the enable task is in progress.";
  EXPECT_EQ(MessageOf([&] { service_->AddInitiatorgroup("new-group"); }), kNotEnabled);
  EXPECT_EQ(MessageOf([&] { service_->RemoveInitiatorgroup("finance-hosts", true); }), kNotEnabled);
  EXPECT_EQ(
      MessageOf([&] { service_->AddInitiatorsToInitiatorgroup("finance-hosts", {kIqn + "x"}); }),
      kNotEnabled);
  EXPECT_EQ(MessageOf([&] {
              service_->RemoveInitiatorsFromInitiatorgroup("finance-hosts", {kIqn + "finance-db1"});
            }),
            kNotEnabled);
  EXPECT_EQ(Conf(), kStandardConf);
}

}  // namespace
}  // namespace test
}  // namespace zel
