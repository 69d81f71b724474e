// The facade's reads through the plug-in entry: the service check first, owners from the
// directory, the not-found messages, and a host outside a cluster.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "cache/ConfigCache.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "zel/OrvaPlugin.h"

namespace zel::test {
namespace {

using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetInfo;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

const std::string kNotEnabled =
    "Orva iSCSI Target Service is not enabled or the enable task is in progress.";
constexpr const char* kOrphanUuid = "0c9d8e7f-6a5b-4c3d-8e2f-1a0b9c8d7e6f";

std::vector<std::string> Aliases(const std::vector<TargetInfo>& targets) {
  std::vector<std::string> aliases;
  for (const TargetInfo& target : targets) aliases.push_back(target.alias);
  return aliases;
}

class FacadeReadTest : public ::testing::Test {
 protected:
  size_t FileReads() const {
    const std::vector<std::string> lines = host_.log->Texts();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.rfind("ZelConfigCache: ", 0) == 0 && line.find(" from conf file") != std::string::npos;
    });
  }
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
};

// Every checked read refuses while disabled, before anything is read or subscribed; the enabled
// state is the one last read from the store; the first read subscribes, later ones use memory.
TEST_F(FacadeReadTest, ReadsWaitForTheServiceThenSubscribeOnceAndReadTheFileOnce) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  const std::vector<std::pair<std::string, std::function<void()>>> reads = {
      {"GetTargetInfo", [&] { service->GetTargetInfo("finance"); }},
      {"GetTargets", [&] { service->GetTargets(false, false); }},
      {"GetTargets local", [&] { service->GetTargets(true, true); }},
      {"GetLuns", [&] { std::vector<LunInfo> luns; service->GetLuns("finance", luns, false); }},
      {"GetLunInfo", [&] { service->GetLunInfo("finance", 0); }},
      {"GetDefaultInfo", [&] { service->GetDefaultInfo(); }},
      {"GetInitiatorgroups", [&] { service->GetInitiatorgroups(); }},
      {"GetInitiatorgroupInfo", [&] { service->GetInitiatorgroupInfo("finance-hosts"); }},
      {"CheckIscsiServiceStatus", [&] { service->CheckIscsiServiceStatus(false); }},
  };
  for (const auto& [name, read] : reads) EXPECT_EQ(MessageOf(read), kNotEnabled) << name;
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(true); }), "");
  EXPECT_EQ(FileReads(), 0u);
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
  home_.SetServiceEnabled(true);
  EXPECT_EQ(MessageOf([&] { service->GetTargets(false, false); }), kNotEnabled);
  service->Refresh();
  EXPECT_THAT(Aliases(service->GetTargets(false, false)), ElementsAre("finance", "lab"));
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  service->GetTargets(false, false);
  service->GetInitiatorgroups();
  EXPECT_EQ(FileReads(), 1u);
}

// Owners and policies come from the directory and local-only reads follow the owner; a target
// whose owner is unknown is kept and logged; unknown names are named; defaults hold no secret.
TEST_F(FacadeReadTest, ReadsCarryOwnersAndPoliciesAndNameWhatIsMissing) {
  home_.WriteConf(std::string(kStandardConf) +
                  "target iqn.2026-11.local.zel:orphan {\n\talias \"orphan\"\n"
                  "\tportal-group default\n\toption uuid " + kOrphanUuid + "\n"
                  "\toption owner-id " + kOrphanUuid + "\n}\n");
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  const TargetInfo lab = service->GetTargetInfo("lab");
  EXPECT_EQ(std::make_tuple(lab.ownerId, lab.ownerHostUuid, lab.ownerHostName, lab.policy),
            std::make_tuple(std::string(kLabUuid), std::string(kPeerHostUuid),
                            std::string(kPeerHostName), std::string("lab-policy")));
  std::vector<std::string> owners;
  for (const TargetInfo& target : service->GetTargets(false, false)) {
    owners.push_back(target.alias + "@" + target.ownerHostUuid);
  }
  EXPECT_THAT(owners, ElementsAre("finance@" + home_.HostUuid(),
                                  "lab@" + std::string(kPeerHostUuid), "orphan@"));
  EXPECT_THAT(host_.log->Texts(platform::LogLevel::Error),
              Contains(::testing::StartsWith("OrvaIscsiTargetImpl: Failed to get target information: Failed "
                                  "to get owner host of object " + std::string(kOrphanUuid))));
  const auto local = [&] { return Aliases(service->GetTargets(false, true)); };
  EXPECT_THAT(local(), AllOf(Contains("finance"), Not(Contains("lab"))));
  home_.AnnounceObject(kLabUuid, home_.HostUuid(), "lab-policy");
  home_.AnnounceObject(kFinanceUuid, kPeerHostUuid, "finance-policy");
  EXPECT_THAT(local(), AllOf(Contains("lab"), Not(Contains("finance"))));
  const LunInfo ledger = service->GetLunInfo("finance", 0);
  EXPECT_EQ(ledger.alias + " " + ledger.uuid + " " + ledger.policy,
            "ledger " + std::string(kLedgerUuid) + " ledger-policy");
  const HostCtl::Orva::IscsiTarget::NamespaceInfo info = service->GetNamespaceInfo(true);
  EXPECT_EQ(info.uuid + " " + info.policy, std::string(kNamespaceUuid) + " namespace-policy");
  EXPECT_EQ(MessageOf([&] { service->GetTargetInfo("X"); }), "Target X not found");
  EXPECT_EQ(MessageOf([&] { service->GetLunInfo("finance", 7); }), "LUN id 7 not found for target finance");
  EXPECT_EQ(MessageOf([&] { service->GetLunInfo("X", 0); }), "Target X not found");
  EXPECT_EQ(MessageOf([&] { service->GetInitiatorgroupInfo("X"); }), "Initiator group X not found.");
  const HostCtl::Orva::IscsiTarget::DefaultInfo d = service->GetDefaultInfo();
  EXPECT_EQ(std::vector<std::string>({d.authType, d.userid, d.mutualUserid, d.networkInterface,
                                      d.secret, d.mutualSecret}),
            std::vector<std::string>({"CHAP-Mutual", "defuser", "defmutual", "nok0", "", ""}));
}

TEST_F(FacadeReadTest, NamespaceInfoOnADatastoreWithoutNamespaceIsEmptyOrThrows) {
  home_.RemoveNamespaceLink();
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  const HostCtl::Orva::IscsiTarget::NamespaceInfo info = service->GetNamespaceInfo(false);
  EXPECT_EQ(std::make_tuple(info.uuid, info.policy, info.policyCompliant),
            std::make_tuple(std::string(), std::string(), false));
  EXPECT_THAT(host_.log->Texts(platform::LogLevel::Error),
              ElementsAre(HasSubstr("OrvaIscsiTargetImpl: Failed to GetNamespaceInfo, zel(Enabled), "
                                    "exception(Failed to get ZEL namespace UUID with status: ")));
  EXPECT_THAT(MessageOf([&] { service->GetNamespaceInfo(true); }),
              HasSubstr("Failed to get ZEL namespace UUID with status: "));
}

TEST_F(FacadeReadTest, HostOutsideAClusterConstructsAndStaysDisabled) {
  home_.SetHostSetting("clusterMember", false);
  host_ = home_.InstallTestHost();
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: The host is not in a Orva cluster."));
  // The store says enabled, but it was never read.
  EXPECT_EQ(MessageOf([&] { service->GetTargets(false, false); }), kNotEnabled);
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(true); }), "");
}

}  // namespace
}  // namespace zel::test
