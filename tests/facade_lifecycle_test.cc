// Enabling, disabling and restoring the service: the order of the steps
// across the host's services (one journal) and what a failed step leaves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cache/ConfigCache.h"
#include "platform/local/JsonConfigStore.h"
#include "support/HostDoubles.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "zel/OrvaPlugin.h"

namespace zel::test {
namespace {

using NokCtl::Orva::IscsiTarget::ConfigCache;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kStart[] = "/etc/init.d/zeld ++group=host/kap/tmp restart";
const char kStop[] = "/etc/init.d/zeld ++group=host/kap/tmp io_stop";
const std::string kNotEnabled =
    "Orva iSCSI Target Service is not enabled or the enable task is in progress.";

class FacadeLifecycleTest : public ::testing::Test {
 protected:
  FacadeLifecycleTest() {
    for (CallScript* double_ : std::initializer_list<CallScript*>{
             fakes_.commands, fakes_.modules, fakes_.firewall, host_.store}) {
      double_->JournalInto(&journal_);
    }
    InstallFakeNetworkInterfaces()->Set("nok0", platform::NOKNIC_UP, "192.0.2.10");
  }

  // What the doubles were asked to change, across all of them, in order.
  std::vector<std::string> Events() const {
    std::vector<std::string> events;
    for (const std::string& line : journal_.Calls()) {
      if (line.rfind("GetOrvaIscsi", 0) != 0) events.push_back(line);
    }
    return events;
  }
  bool StoredEnabled() const {
    bool enabled = false;
    platform::JsonConfigStore(platform::CurrentHost().Config().configStorePath)
        .GetOrvaIscsiServiceEnabled(&enabled);
    return enabled;
  }
  std::string Switch(bool enable) {
    return MessageOf([&] { service_->SetIscsiTargetStatus(enable, true); });
  }
  void Service(bool enabled) {
    home_.SetServiceEnabled(enabled);
    service_ = NewService();
  }
  Journal journal_;  // outlives the host whose doubles write into it
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
  FakeHostControl fakes_ = InstallFakeHostControl();
  std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> service_;
};

TEST_F(FacadeLifecycleTest, EnableStartsZeldAfterTheModuleThenPersistsAndOpensTheFirewall) {
  Service(false);
  EXPECT_EQ(Switch(true), "");
  EXPECT_THAT(Events(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kStart,
                                    "SetOrvaIscsiServiceEnabled true",
                                    "/sbin/chkconfig zel_loader on", "ModuleLoad pyrfw",
                                    "ModuleIsLoaded pyrfw", "FirewallRulesetSetStatus zel true"));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: Start setting ZEL status to enable"));
  // The facade's own view followed the store: checked operations now run.
  EXPECT_EQ(MessageOf([&] { service_->CheckIscsiServiceStatus(false); }), "");
}

// A failed stop is only warned about: the rest of the disable still runs.
TEST_F(FacadeLifecycleTest, DisableStopsZeldBeforeUnloadingTheModuleEvenWhenTheStopFails) {
  for (int stopCode : {0, 1}) {
    SCOPED_TRACE(stopCode);
    Service(true);
    service_->CheckIscsiServiceStatus(false);
    ASSERT_TRUE(ConfigCache::IsBrixSubscribed());
    fakes_.modules->SetLoaded("zel", true);
    fakes_.firewall->Target().FirewallRulesetSetStatus("zel", true);
    fakes_.commands->SetExitCode(kStop, stopCode);
    const size_t before = Events().size();
    EXPECT_EQ(Switch(false), "");
    const std::vector<std::string> events = Events();
    EXPECT_THAT(std::vector<std::string>(events.begin() + before, events.end()),
                ElementsAre(kStop, "ModuleUnload zel", "SetOrvaIscsiServiceEnabled false",
                            "/sbin/chkconfig zel_loader off", "ModuleLoad pyrfw",
                            "ModuleIsLoaded pyrfw", "FirewallRulesetSetStatus zel false"));
    EXPECT_FALSE(fakes_.modules->ModuleIsLoaded("zel"));
    EXPECT_FALSE(StoredEnabled());
    EXPECT_FALSE(fakes_.firewall->IsEnabled("zel"));
    EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
    EXPECT_EQ(MessageOf([&] { service_->CheckIscsiServiceStatus(false); }), kNotEnabled);
  }
  EXPECT_EQ(host_.log->Count(platform::LogLevel::Warning, "Util: Failed to stop zeld."), 1);
}

TEST_F(FacadeLifecycleTest, FailedDaemonStartLeavesTheStoreDisabledAndTheNextEnableRunsAgain) {
  Service(false);
  for (const auto& [code, message] : std::vector<std::pair<int, std::string>>{
           {1, "Failed to reserve zeld memory (return code 1)"},
           {3, "Failed to start zeld (return code 3)"}}) {
    fakes_.commands->SetExitCode(kStart, code);
    EXPECT_EQ(Switch(true), message);
    EXPECT_FALSE(StoredEnabled()) << code;
    EXPECT_EQ(MessageOf([&] { service_->CheckIscsiServiceStatus(false); }), kNotEnabled);
  }
  EXPECT_THAT(fakes_.firewall->Calls(), IsEmpty());
  fakes_.commands->SetExitCode(kStart, 0);
  EXPECT_EQ(Switch(true), "");
  EXPECT_TRUE(StoredEnabled());
  // The module stayed loaded from the first attempt; the restart runs again.
  EXPECT_THAT(fakes_.modules->Calls(),
              ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", "ModuleIsLoaded zel",
                          "ModuleIsLoaded zel", "ModuleLoad pyrfw", "ModuleIsLoaded pyrfw"));
  EXPECT_THAT(fakes_.commands->CommandLines(),
              ElementsAre(kStart, kStart, kStart, "/sbin/chkconfig zel_loader on"));
  EXPECT_EQ(host_.store->Count("SetOrvaIscsiServiceEnabled"), 1);
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
}

TEST_F(FacadeLifecycleTest, EnableWithoutNamespaceFailsBeforeRunningAnything) {
  home_.RemoveNamespaceLink();
  Service(false);
  EXPECT_EQ(Switch(true),
            "Orva iSCSI namespace does not exist. Please create namespace if not already "
            "created.");
  EXPECT_THAT(Events(), IsEmpty());
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
}

TEST_F(FacadeLifecycleTest, SwitchingToTheCurrentStateFailsOnlyWhenAskedToAndRunsNothing) {
  for (const bool enabled : {true, false}) {
    Service(enabled);
    EXPECT_EQ(Switch(enabled), std::string("Orva iSCSI Target service is already ") +
                                   (enabled ? "enabled" : "disabled") + " on this host");
    EXPECT_EQ(MessageOf([&] { service_->SetIscsiTargetStatus(enabled, false); }), "");
    EXPECT_EQ(StoredEnabled(), enabled);
  }
  EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(FacadeLifecycleTest, RestoreStartsAnEnabledZeldWithoutWritingTheStore) {
  Service(false);
  service_->Restore();
  EXPECT_THAT(Events(), IsEmpty());
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restoring Orva iSCSI status."));
  Service(true);
  fakes_.commands->SetExitCode(kStart, 1);
  EXPECT_EQ(MessageOf([&] { service_->Restore(); }),
            "Failed to reserve zeld memory (return code 1)");
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
  fakes_.commands->SetExitCode(kStart, 0);
  service_->Restore();
  EXPECT_THAT(Events(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kStart,
                                    "ModuleIsLoaded zel", kStart));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
}

}  // namespace
}  // namespace zel::test
