// Enabling, disabling and restoring the service on a host: the order in
// which the module, the daemon, the stored state, the boot-time loader and
// the firewall are switched, what a request for the current state does, and
// what a failed step leaves behind. The doubles write into one journal so
// that the order across them can be asserted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache/ConfigCache.h"
#include "platform/local/JsonConfigStore.h"
#include "support/FakeHostControl.h"
#include "support/FakeNetworkInterfaces.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"
#include "zel/OrvaPlugin.h"

namespace zel {
namespace test {
namespace {


using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

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
    for (const std::string& line : journal_.Lines()) {
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

  Journal journal_;  // outlives the host whose doubles write into it
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
  FakeHostControl fakes_ = InstallFakeHostControl();
  ScriptedCommandRunner* commands_ = fakes_.commands;
  FakeKernelModules* modules_ = fakes_.modules;
  FakeFirewall* firewall_ = fakes_.firewall;
};

TEST_F(FacadeLifecycleTest, EnableStartsZeldAfterTheModuleThenPersistsAndOpensTheFirewall) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();

  service->SetIscsiTargetStatus(true, true);

  EXPECT_THAT(Events(),
              ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kStart, "SetOrvaIscsiServiceEnabled true",
                          "/sbin/chkconfig zel_loader on", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "FirewallRulesetSetStatus zel true"));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_TRUE(firewall_->IsEnabled("zel"));
  EXPECT_TRUE(ConfigCache::IsBrixSubscribed());
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: Start setting ZEL status to enable"));
  // The facade's own view followed the store: checked operations now run.
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(false); }), "");
}

TEST_F(FacadeLifecycleTest, DisableStopsZeldBeforeUnloadingTheModuleThenPersistsAndCloses) {
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  service->CheckIscsiServiceStatus(false);
  ASSERT_TRUE(ConfigCache::IsBrixSubscribed());

  service->SetIscsiTargetStatus(false, true);

  EXPECT_THAT(Events(),
              ElementsAre(kStop, "ModuleUnload zel", "SetOrvaIscsiServiceEnabled false",
                          "/sbin/chkconfig zel_loader off", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "FirewallRulesetSetStatus zel false"));
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(false); }), kNotEnabled);
}



TEST_F(FacadeLifecycleTest, FailedDaemonStartLeavesTheStoreSayingDisabled) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  const std::vector<std::pair<int, std::string>> failures = {
      {1, "Failed to reserve zeld memory (return code 1)"},
      {3, "Failed to start zeld (return code 3)"},
  };
  for (const auto& [code, message] : failures) {
    commands_->SetExitCode(kStart, code);
    EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(true, true); }), message);
    EXPECT_FALSE(StoredEnabled()) << code;
  }
  EXPECT_THAT(Events(), Not(Contains("SetOrvaIscsiServiceEnabled true")));
  EXPECT_THAT(commands_->CommandLines(), ElementsAre(kStart, kStart));
  EXPECT_THAT(firewall_->Calls(), IsEmpty());
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(false); }), kNotEnabled);
}

TEST_F(FacadeLifecycleTest, EnableAfterAFailedStartRunsEveryStepAgain) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  commands_->SetExitCode(kStart, 3);
  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(true, true); }),
            "Failed to start zeld (return code 3)");

  commands_->SetExitCode(kStart, 0);
  service->SetIscsiTargetStatus(true, true);
  EXPECT_TRUE(StoredEnabled());
  // The module stayed loaded from the first attempt; the restart runs again.
  EXPECT_THAT(modules_->Calls(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel",
                                             "ModuleIsLoaded zel", "ModuleLoad pyrfw",
                                             "ModuleIsLoaded pyrfw"));
  EXPECT_THAT(commands_->CommandLines(),
              ElementsAre(kStart, kStart, "/sbin/chkconfig zel_loader on"));
  EXPECT_TRUE(firewall_->IsEnabled("zel"));
}

TEST_F(FacadeLifecycleTest, FailedStopStillUnloadsPersistsAndClosesTheFirewall) {
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  modules_->SetLoaded("zel", true);
  firewall_->Target().FirewallRulesetSetStatus("zel", true);
  commands_->SetExitCode(kStop, 1);

  service->SetIscsiTargetStatus(false, true);

  EXPECT_THAT(host_.log->Texts(platform::LogLevel::Warning),
              Contains("Util: Failed to stop zeld."));
  EXPECT_THAT(Events(),
              ElementsAre(kStop, "ModuleUnload zel", "SetOrvaIscsiServiceEnabled false",
                          "/sbin/chkconfig zel_loader off", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "FirewallRulesetSetStatus zel false"));
  EXPECT_FALSE(modules_->ModuleIsLoaded("zel"));
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(firewall_->IsEnabled("zel"));
}

TEST_F(FacadeLifecycleTest, EnableWithoutNamespaceFailsBeforeRunningAnything) {
  home_.SetServiceEnabled(false);
  home_.RemoveNamespaceLink();
  std::unique_ptr<OrvaIscsiTarget> service = NewService();

  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(true, true); }),
            "Orva iSCSI namespace does not exist. Please create namespace if not already "
            "created.");
  EXPECT_THAT(Events(), IsEmpty());
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
}




TEST_F(FacadeLifecycleTest, SwitchingToTheCurrentStateFailsOnlyWhenAskedToAndRunsNothing) {
  for (const bool enabled : {true, false}) {
    home_.SetServiceEnabled(enabled);
    std::unique_ptr<OrvaIscsiTarget> service = NewService();
    EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(enabled, true); }),
              std::string("Orva iSCSI Target service is already ") +
                  (enabled ? "enabled" : "disabled") + " on this host");
    EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(enabled, false); }), "");
    EXPECT_EQ(StoredEnabled(), enabled);
  }
  EXPECT_THAT(Events(), IsEmpty());
  EXPECT_THAT(commands_->CommandLines(), IsEmpty());
}

TEST_F(FacadeLifecycleTest, RestoreStartsAnEnabledZeldWithoutWritingTheStore) {
  home_.SetServiceEnabled(false);
  NewService()->Restore();
  EXPECT_THAT(Events(), IsEmpty());
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restoring Orva iSCSI status."));

  home_.SetServiceEnabled(true);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  commands_->SetExitCode(kStart, 1);
  EXPECT_EQ(MessageOf([&] { service->Restore(); }),
            "Failed to reserve zeld memory (return code 1)");
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
  commands_->SetExitCode(kStart, 0);
  service->Restore();
  EXPECT_THAT(Events(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kStart,
                                    "ModuleIsLoaded zel", kStart));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
}

}  // namespace
}  // namespace test
}  // namespace zel
