// Starting, stopping and reloading zeld, loading its kernel module, the
// boot-time loader switch and the firewall ruleset: the commands run, the
// exit codes that fail and the exact messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "service/DaemonControl.h"
#include "support/FakeHostControl.h"
#include "support/Messages.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace test {
namespace {


namespace Util = NokCtl::Orva::IscsiTarget::Util;
using HostCtl::Lib::Orva::OrvaCtlException;
using platform::LogLevel;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char kStart[] = "/etc/init.d/zeld ++group=host/kap/tmp restart";
const char kStop[] = "/etc/init.d/zeld ++group=host/kap/tmp io_stop";
const char kReload[] = "/etc/init.d/zeld ++group=host/kap/tmp reload";

class DaemonControlTest : public ::testing::Test {
 protected:
  ScopedTestHost host_;
  FakeHostControl fakes_ = InstallFakeHostControl();
};

TEST_F(DaemonControlTest, StartRunsTheInitScriptRestartAndReportsSuccess) {
  Util::StartZeld();
  EXPECT_THAT(fakes_.commands->CommandLines(), ElementsAre(kStart));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("Util: Starting zeld", "Util: zeld started successfully"));
}

TEST_F(DaemonControlTest, StartExitCodeOneIsAFailedMemoryReservation) {
  fakes_.commands->SetExitCode(kStart, 1);
  EXPECT_EQ(MessageOf([] { Util::StartZeld(); }),
            "Failed to reserve zeld memory (return code 1)");
  EXPECT_FALSE(host_.Log().Contains("Util: zeld started successfully"));
}

TEST_F(DaemonControlTest, StartAnyOtherExitCodeIsNamedInTheMessage) {
  fakes_.commands->SetExitCode(kStart, 3);
  EXPECT_EQ(MessageOf([] { Util::StartZeld(); }), "Failed to start zeld (return code 3)");
  fakes_.commands->SetExitCode(kStart, 127);
  EXPECT_EQ(MessageOf([] { Util::StartZeld(); }), "Failed to start zeld (return code 127)");
}

TEST_F(DaemonControlTest, StopFailureOnlyWarns) {
  fakes_.commands->SetExitCode(kStop, 4);
  Util::StopZeld();
  EXPECT_THAT(fakes_.commands->CommandLines(), ElementsAre(kStop));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning), ElementsAre("Util: Failed to stop zeld."));
}

TEST_F(DaemonControlTest, ReloadFailureWarnsAndThrowsWithTheCode) {
  Util::ReloadZeld();
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning), IsEmpty());

  fakes_.commands->SetExitCode(kReload, 7);
  EXPECT_EQ(MessageOf([] { Util::ReloadZeld(); }), "Failed to reload zeld (return code 7)");
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning),
              ElementsAre("Util: Failed to make zeld reload config."));
  EXPECT_THAT(fakes_.commands->CommandLines(), ElementsAre(kReload, kReload));
}

TEST_F(DaemonControlTest, ModuleIsLoadedOnlyWhenItIsNotLoadedYet) {
  Util::LoadZelKernelModule();
  EXPECT_THAT(fakes_.modules->Calls(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel"));
  EXPECT_TRUE(host_.Log().Contains("Util: Loading zel module."));

  host_.Log().Clear();
  Util::LoadZelKernelModule();
  EXPECT_THAT(fakes_.modules->Calls(),
              ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", "ModuleIsLoaded zel"));
  EXPECT_FALSE(host_.Log().Contains("Util: Loading zel module."));
}

TEST_F(DaemonControlTest, ModuleThatCannotBeLoadedFailsTheCall) {
  fakes_.modules->SetLoadResult("zel", NOK_IO_ERROR);
  EXPECT_EQ(MessageOf([] { Util::LoadZelKernelModule(); }), "Failed to load module zel: I/O error");
}

TEST_F(DaemonControlTest, UnloadDoesNotAskWhetherTheModuleIsLoaded) {
  Util::UnloadZelKernelModule();
  EXPECT_THAT(fakes_.modules->Calls(), ElementsAre("ModuleUnload zel"));

  fakes_.modules->SetUnloadResult("zel", NOK_BUSY);
  EXPECT_EQ(MessageOf([] { Util::UnloadZelKernelModule(); }), "Failed to unload module zel: Busy");
}

TEST_F(DaemonControlTest, LoaderSwitchRunsChkconfigAndLogsTheOutcome) {
  Util::SetZelLoaderChkConfig(true);
  fakes_.commands->SetExitCode("/sbin/chkconfig", 1);
  Util::SetZelLoaderChkConfig(false);

  EXPECT_THAT(fakes_.commands->CommandLines(),
              ElementsAre("/sbin/chkconfig zel_loader on", "/sbin/chkconfig zel_loader off"));
  EXPECT_TRUE(host_.Log().Contains("Util: Execute \"/sbin/chkconfig zel_loader on\" done"));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Error),
              ElementsAre("Util: Execute \"/sbin/chkconfig zel_loader off\" failed"));
}

TEST(DaemonControlWithoutRunnerTest, LoaderSwitchNeverThrows) {
  ScopedTestHost host;  // no command runner at all
  EXPECT_NO_THROW(Util::SetZelLoaderChkConfig(true));
  EXPECT_THAT(host.Log().Texts(LogLevel::Error),
              ElementsAre("Util: Failed to Execute chkconfig on zel_loader: The host service "
                          "'commands' is not available in this process"));
}

TEST_F(DaemonControlTest, FirewallRulesetIsSwitchedAfterItsModuleIsLoaded) {
  Util::SetZelFirewallRulesetStatus(true);
  EXPECT_THAT(fakes_.modules->Calls(), ElementsAre("ModuleLoad pyrfw", "ModuleIsLoaded pyrfw"));
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_TRUE(host_.Log().Contains("Util:  Enable Zel FirewallRuleset"));

  Util::SetZelFirewallRulesetStatus(false);
  EXPECT_FALSE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_TRUE(host_.Log().Contains("Util:  Disable Zel FirewallRuleset"));
}

TEST_F(DaemonControlTest, FirewallModuleLoadFailureIsIgnoredWhenTheModuleIsThere) {
  fakes_.modules->SetLoaded("pyrfw", true);
  fakes_.modules->SetLoadResult("pyrfw", NOK_FAILURE);
  Util::SetZelFirewallRulesetStatus(true);
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
}

TEST_F(DaemonControlTest, FirewallModuleThatCannotBeLoadedLeavesTheRulesetAlone) {
  fakes_.modules->SetLoadResult("pyrfw", NOK_FAILURE);
  EXPECT_EQ(MessageOf([] { Util::SetZelFirewallRulesetStatus(true); }),
            "Unable to load module pyrfw");
  EXPECT_THAT(fakes_.firewall->Calls(), IsEmpty());
}

TEST_F(DaemonControlTest, FirewallRulesetFailureThrows) {
  fakes_.firewall->SetResult(NOK_IO_ERROR);
  EXPECT_EQ(MessageOf([] { Util::SetZelFirewallRulesetStatus(false); }),
            "Failed to disable firewall ruleset zel: I/O error");
  EXPECT_FALSE(host_.Log().Contains("Util:  Disable Zel FirewallRuleset"));
}

}  // namespace
}  // namespace test
}  // namespace zel
