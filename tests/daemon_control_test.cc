// Starting and reloading zeld, its kernel module, the boot-time loader switch and the firewall
// ruleset: log lines and exact failure messages. The command order and the start and stop
// failures the service reports are checked through the facade (facade_lifecycle_test.cc).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/DaemonControl.h"
#include "support/FakeHostControl.h"
#include "support/Messages.h"
#include "support/TestHost.h"

namespace zel::test {
namespace {

namespace Util = NokCtl::Orva::IscsiTarget::Util;
using platform::LogLevel;
using ::testing::ElementsAre;

const char kStart[] = "/etc/init.d/zeld ++group=host/kap/tmp restart";
const char kReload[] = "/etc/init.d/zeld ++group=host/kap/tmp reload";

class DaemonControlTest : public ::testing::Test {
 protected:
  ScopedTestHost host_;
  FakeHostControl fakes_ = InstallFakeHostControl();
};

TEST_F(DaemonControlTest, StartLogsItsSuccessAndAFailedReloadWarnsAndThrows) {
  Util::StartZeld();
  Util::ReloadZeld();
  EXPECT_THAT(host_.Log().Texts(LogLevel::Info),
              ElementsAre("Util: Starting zeld", "Util: zeld started successfully"));
  fakes_.commands->SetExitCode(kReload, 7);
  EXPECT_EQ(MessageOf([] { Util::ReloadZeld(); }), "Failed to reload zeld (return code 7)");
  EXPECT_THAT(host_.Log().Texts(LogLevel::Warning),
              ElementsAre("Util: Failed to make zeld reload config."));
  EXPECT_THAT(fakes_.commands->CommandLines(), ElementsAre(kStart, kReload, kReload));
}

TEST_F(DaemonControlTest, ModuleThatCannotBeLoadedOrUnloadedFailsTheCall) {
  fakes_.modules->SetLoadResult("zel", NOK_IO_ERROR);
  EXPECT_EQ(MessageOf([] { Util::LoadZelKernelModule(); }), "Failed to load module zel: I/O error");
  fakes_.modules->SetUnloadResult("zel", NOK_BUSY);
  EXPECT_EQ(MessageOf([] { Util::UnloadZelKernelModule(); }), "Failed to unload module zel: Busy");
}

TEST_F(DaemonControlTest, LoaderSwitchLogsTheOutcomeAndNeverThrows) {
  Util::SetZelLoaderChkConfig(true);
  fakes_.commands->SetExitCode("/sbin/chkconfig", 1);
  Util::SetZelLoaderChkConfig(false);
  EXPECT_TRUE(host_.Log().Contains("Util: Execute \"/sbin/chkconfig zel_loader on\" done"));
  EXPECT_THAT(host_.Log().Texts(LogLevel::Error),
              ElementsAre("Util: Execute \"/sbin/chkconfig zel_loader off\" failed"));
  ScopedTestHost bare;  // no command runner at all
  EXPECT_NO_THROW(Util::SetZelLoaderChkConfig(true));
  EXPECT_THAT(bare.Log().Texts(LogLevel::Error),
              ElementsAre("Util: Failed to Execute chkconfig on zel_loader: The host service "
                          "'commands' is not available in this process"));
}

// A failed module load is ignored when the module is there anyway; otherwise it, like a
// failed ruleset change, throws and leaves the ruleset alone.
TEST_F(DaemonControlTest, FirewallRulesetSwitchLogsItAndSaysWhyItFailed) {
  fakes_.modules->SetLoadResult("pyrfw", NOK_FAILURE);
  EXPECT_EQ(MessageOf([] { Util::SetZelFirewallRulesetStatus(true); }),
            "Unable to load module pyrfw");
  EXPECT_THAT(fakes_.firewall->Calls(), ::testing::IsEmpty());
  fakes_.modules->SetLoaded("pyrfw", true);
  Util::SetZelFirewallRulesetStatus(true);
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_TRUE(host_.Log().Contains("Util:  Enable Zel FirewallRuleset"));
  fakes_.firewall->SetResult(NOK_IO_ERROR);
  EXPECT_EQ(MessageOf([] { Util::SetZelFirewallRulesetStatus(false); }),
            "Failed to disable firewall ruleset zel: I/O error");
  EXPECT_TRUE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_FALSE(host_.Log().Contains("Util:  Disable Zel FirewallRuleset"));
  fakes_.firewall->SetResult(NOK_OK);
  Util::SetZelFirewallRulesetStatus(false);
  EXPECT_FALSE(fakes_.firewall->IsEnabled("zel"));
  EXPECT_TRUE(host_.Log().Contains("Util:  Disable Zel FirewallRuleset"));
}

}  // namespace
}  // namespace zel::test
