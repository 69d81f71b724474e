// Enabling, disabling and restoring the service on a host: the order in
// which the module, the daemon, the stored state, the boot-time loader and
// the firewall are switched, what a request for the current state does, and
// what a failed step leaves behind. The doubles write into one journal so
// that the order across them can be asserted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
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


using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using NokCtl::Orva::IscsiTarget::ConfigCache;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

const char kStart[] = "/etc/init.d/zeld ++group=host/kap/tmp restart";
const char kStop[] = "/etc/init.d/zeld ++group=host/kap/tmp io_stop";
const std::string kRunStart = std::string("run ") + kStart;
const std::string kRunStop = std::string("run ") + kStop;
const std::string kNotEnabled =
    "Orva iSCSI Target Service is not enabled or the enable task is in progress.";

// What the doubles saw, across all of them, in order.
class Journal {
 public:
  void Add(const std::string& event) {
    std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back(event);
  }
  std::vector<std::string> Events() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return events_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
};

class JournalingCommands final : public platform::CommandRunner {
 public:
  JournalingCommands(Journal& journal, std::unique_ptr<ScriptedCommandRunner> inner)
      : journal_(journal), inner_(std::move(inner)) {}
  int Exec(const std::vector<std::string>& argv) override {
    std::string line = "run";
    for (const std::string& word : argv) line += " " + word;
    journal_.Add(line);
    return inner_->Exec(argv);
  }

 private:
  Journal& journal_;
  std::unique_ptr<ScriptedCommandRunner> inner_;
};

class JournalingModules final : public platform::KernelModules {
 public:
  JournalingModules(Journal& journal, std::unique_ptr<FakeKernelModules> inner)
      : journal_(journal), inner_(std::move(inner)) {}
  bool ModuleIsLoaded(const std::string& name) override {
    journal_.Add("ModuleIsLoaded " + name);
    return inner_->ModuleIsLoaded(name);
  }
  NOK_ReturnStatus ModuleLoad(const std::string& name) override {
    journal_.Add("ModuleLoad " + name);
    return inner_->ModuleLoad(name);
  }
  NOK_ReturnStatus ModuleUnload(const std::string& name) override {
    journal_.Add("ModuleUnload " + name);
    return inner_->ModuleUnload(name);
  }

 private:
  Journal& journal_;
  std::unique_ptr<FakeKernelModules> inner_;
};

class JournalingFirewall final : public platform::Firewall {
 public:
  JournalingFirewall(Journal& journal, std::unique_ptr<FakeFirewall> inner)
      : journal_(journal), inner_(std::move(inner)) {}
  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override {
    journal_.Add("firewall " + ruleset + (enabled ? " on" : " off"));
    return inner_->FirewallRulesetSetStatus(ruleset, enabled);
  }

 private:
  Journal& journal_;
  std::unique_ptr<FakeFirewall> inner_;
};

// The real store of the home; only writes of the enabled flag are journaled.
class JournalingStore final : public platform::ConfigStore {
 public:
  JournalingStore(Journal& journal, const std::string& path) : journal_(journal), inner_(path) {}
  bool GetOrvaIscsiServiceEnabled(bool* enabled) override {
    return inner_.GetOrvaIscsiServiceEnabled(enabled);
  }
  void SetOrvaIscsiServiceEnabled(bool enabled) override {
    journal_.Add(enabled ? "store enabled" : "store disabled");
    inner_.SetOrvaIscsiServiceEnabled(enabled);
  }
  bool GetOrvaIscsiDefaultConfig(DefaultInfo* info) override {
    return inner_.GetOrvaIscsiDefaultConfig(info);
  }
  void SetOrvaIscsiDefaultConfig(const DefaultInfo& info) override {
    inner_.SetOrvaIscsiDefaultConfig(info);
  }

 private:
  Journal& journal_;
  platform::JsonConfigStore inner_;
};

class FacadeLifecycleTest : public ::testing::Test {
 protected:
  FacadeLifecycleTest() {
    platform::Host& host = platform::CurrentHost();
    auto commands = std::make_unique<ScriptedCommandRunner>();
    auto modules = std::make_unique<FakeKernelModules>();
    auto firewall = std::make_unique<FakeFirewall>();
    commands_ = commands.get();
    modules_ = modules.get();
    firewall_ = firewall.get();
    host.SetCommands(std::make_unique<JournalingCommands>(journal_, std::move(commands)));
    host.SetModules(std::make_unique<JournalingModules>(journal_, std::move(modules)));
    host.SetFirewall(std::make_unique<JournalingFirewall>(journal_, std::move(firewall)));
    host.SetStore(std::make_unique<JournalingStore>(journal_, host.Config().configStorePath));
    auto nics = std::make_unique<FakeNetworkInterfaces>();
    nics->Set("nok0", platform::NOKNIC_UP, "192.0.2.10");
    host.SetNics(std::move(nics));
  }

  bool StoredEnabled() const {
    bool enabled = false;
    platform::JsonConfigStore(platform::CurrentHost().Config().configStorePath)
        .GetOrvaIscsiServiceEnabled(&enabled);
    return enabled;
  }

  // Declared first: the host that holds the journaling doubles goes with
  // home_, before the journal.
  Journal journal_;
  ServiceHome home_;
  TestServices host_ = home_.InstallTestHost();
  ScriptedCommandRunner* commands_ = nullptr;
  FakeKernelModules* modules_ = nullptr;
  FakeFirewall* firewall_ = nullptr;
};

TEST_F(FacadeLifecycleTest, EnableStartsZeldAfterTheModuleThenPersistsAndOpensTheFirewall) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();

  service->SetIscsiTargetStatus(true, true);

  EXPECT_THAT(journal_.Events(),
              ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kRunStart, "store enabled",
                          "run /sbin/chkconfig zel_loader on", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "firewall zel on"));
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

  EXPECT_THAT(journal_.Events(),
              ElementsAre(kRunStop, "ModuleUnload zel", "store disabled",
                          "run /sbin/chkconfig zel_loader off", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "firewall zel off"));
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
  EXPECT_EQ(MessageOf([&] { service->CheckIscsiServiceStatus(false); }), kNotEnabled);
}

TEST_F(FacadeLifecycleTest, EnablingAnEnabledServiceFailsOnlyWhenAskedToAndRunsNothing) {
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(true, true); }),
            "Orva iSCSI Target service is already enabled on this host");
  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(true, false); }), "");
  EXPECT_THAT(journal_.Events(), IsEmpty());
  EXPECT_THAT(commands_->CommandLines(), IsEmpty());
  EXPECT_TRUE(StoredEnabled());
}

TEST_F(FacadeLifecycleTest, DisablingADisabledServiceFailsOnlyWhenAskedToAndRunsNothing) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(false, true); }),
            "Orva iSCSI Target service is already disabled on this host");
  EXPECT_EQ(MessageOf([&] { service->SetIscsiTargetStatus(false, false); }), "");
  EXPECT_THAT(journal_.Events(), IsEmpty());
  EXPECT_THAT(commands_->CommandLines(), IsEmpty());
  EXPECT_FALSE(StoredEnabled());
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
  EXPECT_THAT(journal_.Events(), Not(Contains("store enabled")));
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
  firewall_->FirewallRulesetSetStatus("zel", true);
  commands_->SetExitCode(kStop, 1);

  service->SetIscsiTargetStatus(false, true);

  EXPECT_THAT(host_.log->Texts(platform::LogLevel::Warning),
              Contains("Util: Failed to stop zeld."));
  EXPECT_THAT(journal_.Events(),
              ElementsAre(kRunStop, "ModuleUnload zel", "store disabled",
                          "run /sbin/chkconfig zel_loader off", "ModuleLoad pyrfw",
                          "ModuleIsLoaded pyrfw", "firewall zel off"));
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
  EXPECT_THAT(journal_.Events(), IsEmpty());
  EXPECT_FALSE(StoredEnabled());
  EXPECT_FALSE(ConfigCache::IsBrixSubscribed());
}

TEST_F(FacadeLifecycleTest, RestoreOfADisabledServiceDoesNothing) {
  home_.SetServiceEnabled(false);
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  service->Restore();
  EXPECT_THAT(journal_.Events(), IsEmpty());
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restoring Orva iSCSI status."));
}

TEST_F(FacadeLifecycleTest, RestoreOfAnEnabledServiceStartsZeldWithoutWritingTheStore) {
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  service->Restore();
  EXPECT_THAT(journal_.Events(), ElementsAre("ModuleIsLoaded zel", "ModuleLoad zel", kRunStart));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_TRUE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
}

TEST_F(FacadeLifecycleTest, RestoreWhoseStartFailsLeavesTheStoredStateAlone) {
  std::unique_ptr<OrvaIscsiTarget> service = NewService();
  commands_->SetExitCode(kStart, 1);
  EXPECT_EQ(MessageOf([&] { service->Restore(); }),
            "Failed to reserve zeld memory (return code 1)");
  EXPECT_THAT(journal_.Events(), Not(Contains("store disabled")));
  EXPECT_TRUE(StoredEnabled());
  EXPECT_FALSE(host_.log->Contains("OrvaIscsiTargetImpl: Restored successfully."));
}

}  // namespace
}  // namespace test
}  // namespace zel
