#include "support/FakeHostControl.h"

#include <memory>

#include "platform/Host.h"

namespace zel {
namespace test {
namespace {

std::string Joined(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& word : argv) line += (line.empty() ? "" : " ") + word;
  return line;
}

}  // namespace

void ScriptedCommandRunner::SetExitCode(const std::string& command, int code) {
  std::lock_guard<std::mutex> guard(mutex_);
  codes_[command] = code;
}

std::vector<std::vector<std::string>> ScriptedCommandRunner::Calls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_;
}

std::vector<std::string> ScriptedCommandRunner::CommandLines() const {
  std::vector<std::string> lines;
  for (const std::vector<std::string>& argv : Calls()) lines.push_back(Joined(argv));
  return lines;
}

int ScriptedCommandRunner::Exec(const std::vector<std::string>& argv) {
  std::lock_guard<std::mutex> guard(mutex_);
  calls_.push_back(argv);
  auto found = codes_.find(Joined(argv));
  if (found == codes_.end() && !argv.empty()) found = codes_.find(argv[0]);
  return found == codes_.end() ? 0 : found->second;
}

void FakeKernelModules::SetLoaded(const std::string& name, bool loaded) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (loaded) {
    loaded_.insert(name);
  } else {
    loaded_.erase(name);
  }
}

void FakeKernelModules::SetLoadResult(const std::string& name, NOK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mutex_);
  loadResults_[name] = status;
}

void FakeKernelModules::SetUnloadResult(const std::string& name, NOK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mutex_);
  unloadResults_[name] = status;
}

std::vector<std::string> FakeKernelModules::Calls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_;
}

bool FakeKernelModules::ModuleIsLoaded(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  calls_.push_back("ModuleIsLoaded " + name);
  return loaded_.count(name) != 0;
}

NOK_ReturnStatus FakeKernelModules::ModuleLoad(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  calls_.push_back("ModuleLoad " + name);
  const auto scripted = loadResults_.find(name);
  if (scripted != loadResults_.end() && scripted->second != NOK_OK) return scripted->second;
  loaded_.insert(name);
  return NOK_OK;
}

NOK_ReturnStatus FakeKernelModules::ModuleUnload(const std::string& name) {
  std::lock_guard<std::mutex> guard(mutex_);
  calls_.push_back("ModuleUnload " + name);
  const auto scripted = unloadResults_.find(name);
  if (scripted != unloadResults_.end() && scripted->second != NOK_OK) return scripted->second;
  loaded_.erase(name);
  return NOK_OK;
}

void FakeFirewall::SetResult(NOK_ReturnStatus status) {
  std::lock_guard<std::mutex> guard(mutex_);
  result_ = status;
}

std::vector<std::pair<std::string, bool>> FakeFirewall::Calls() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_;
}

bool FakeFirewall::IsEnabled(const std::string& ruleset) const {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto found = enabled_.find(ruleset);
  return found != enabled_.end() && found->second;
}

NOK_ReturnStatus FakeFirewall::FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) {
  std::lock_guard<std::mutex> guard(mutex_);
  calls_.emplace_back(ruleset, enabled);
  if (result_ == NOK_OK) enabled_[ruleset] = enabled;
  return result_;
}

FakeHostControl InstallFakeHostControl() {
  auto commands = std::make_unique<ScriptedCommandRunner>();
  auto modules = std::make_unique<FakeKernelModules>();
  auto firewall = std::make_unique<FakeFirewall>();
  const FakeHostControl installed{commands.get(), modules.get(), firewall.get()};
  platform::Host& host = platform::CurrentHost();
  host.SetCommands(std::move(commands));
  host.SetModules(std::move(modules));
  host.SetFirewall(std::move(firewall));
  return installed;
}

}  // namespace test
}  // namespace zel
