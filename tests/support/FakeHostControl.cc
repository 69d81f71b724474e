#include "support/FakeHostControl.h"

#include <map>
#include <memory>
#include <mutex>

namespace zel {
namespace test {
namespace {

struct ExitZero final : platform::CommandRunner {
  int Exec(const std::vector<std::string>&) override { return 0; }
};

// Names mapped to a state: loaded modules, enabled rulesets.
struct Switches final : platform::KernelModules, platform::Firewall {
  bool Get(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex);
    return on[name];
  }
  NOK_ReturnStatus Set(const std::string& name, bool value) {
    std::lock_guard<std::mutex> guard(mutex);
    on[name] = value;
    return NOK_OK;
  }
  bool ModuleIsLoaded(const std::string& name) override { return Get(name); }
  NOK_ReturnStatus ModuleLoad(const std::string& name) override { return Set(name, true); }
  NOK_ReturnStatus ModuleUnload(const std::string& name) override { return Set(name, false); }
  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& name, bool enabled) override {
    return Set(name, enabled);
  }

  std::mutex mutex;
  std::map<std::string, bool> on;
};

void AnswerAlways(CallScript& script, const std::string& key, int code) {
  script.Heal(key);
  if (code != 0) script.FailNext(key, code, CallScript::kAlways);
}

}  // namespace

ScriptedCommandRunner::ScriptedCommandRunner()
    : CommandRunnerDouble(std::make_unique<ExitZero>()) {}

void ScriptedCommandRunner::SetExitCode(const std::string& command, int code) {
  AnswerAlways(*this, command, code);
}

FakeKernelModules::FakeKernelModules() : KernelModulesDouble(std::make_unique<Switches>()) {}

void FakeKernelModules::SetLoaded(const std::string& name, bool loaded) {
  static_cast<Switches&>(Target()).Set(name, loaded);
}

void FakeKernelModules::SetLoadResult(const std::string& name, NOK_ReturnStatus status) {
  AnswerAlways(*this, "ModuleLoad " + name, static_cast<int>(status));
}

void FakeKernelModules::SetUnloadResult(const std::string& name, NOK_ReturnStatus status) {
  AnswerAlways(*this, "ModuleUnload " + name, static_cast<int>(status));
}

FakeFirewall::FakeFirewall() : FirewallDouble(std::make_unique<Switches>()) {}

void FakeFirewall::SetResult(NOK_ReturnStatus status) {
  AnswerAlways(*this, "FirewallRulesetSetStatus", static_cast<int>(status));
}

bool FakeFirewall::IsEnabled(const std::string& ruleset) {
  return static_cast<Switches&>(Target()).Get(ruleset);
}

FakeHostControl InstallFakeHostControl() {
  auto commands = std::make_unique<ScriptedCommandRunner>();
  auto modules = std::make_unique<FakeKernelModules>();
  auto firewall = std::make_unique<FakeFirewall>();
  const FakeHostControl installed{commands.get(), modules.get(), firewall.get()};
  platform::Host& host = platform::CurrentHost();
  Attach(host, std::move(commands));
  Attach(host, std::move(modules));
  Attach(host, std::move(firewall));
  return installed;
}

}  // namespace test
}  // namespace zel
