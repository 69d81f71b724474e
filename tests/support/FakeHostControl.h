// Scriptable doubles of the host-control services: a command runner that
// records every argv and answers with scripted exit codes, and kernel
// module and firewall doubles that keep their state in memory and record
// every call. All are thread-safe.
#pragma once

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/HostControl.h"

namespace zel {
namespace test {

class ScriptedCommandRunner final : public platform::CommandRunner {
 public:
  // Every later run of `command` exits with `code`. `command` is a whole
  // command line (argv joined by single blanks) or a program (argv[0]); a
  // whole line wins. Unscripted commands exit 0.
  void SetExitCode(const std::string& command, int code);

  // Every argv run, in order; CommandLines joins each by blanks.
  std::vector<std::vector<std::string>> Calls() const;
  std::vector<std::string> CommandLines() const;

  int Exec(const std::vector<std::string>& argv) override;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, int> codes_;
  std::vector<std::vector<std::string>> calls_;
};

class FakeKernelModules final : public platform::KernelModules {
 public:
  void SetLoaded(const std::string& name, bool loaded);
  // Later loads (unloads) of `name` answer `status`; a failed one leaves
  // the module as it was.
  void SetLoadResult(const std::string& name, NOK_ReturnStatus status);
  void SetUnloadResult(const std::string& name, NOK_ReturnStatus status);

  // "ModuleIsLoaded NAME", "ModuleLoad NAME", "ModuleUnload NAME", in order.
  std::vector<std::string> Calls() const;

  bool ModuleIsLoaded(const std::string& name) override;
  NOK_ReturnStatus ModuleLoad(const std::string& name) override;
  NOK_ReturnStatus ModuleUnload(const std::string& name) override;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> loaded_;
  std::map<std::string, NOK_ReturnStatus> loadResults_;
  std::map<std::string, NOK_ReturnStatus> unloadResults_;
  std::vector<std::string> calls_;
};

class FakeFirewall final : public platform::Firewall {
 public:
  // Later calls answer `status`; a failed one changes nothing.
  void SetResult(NOK_ReturnStatus status);
  // Every call, (ruleset, enabled), in order.
  std::vector<std::pair<std::string, bool>> Calls() const;
  // The ruleset's state after the calls so far; false when never set.
  bool IsEnabled(const std::string& ruleset) const;

  NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled) override;

 private:
  mutable std::mutex mutex_;
  NOK_ReturnStatus result_ = NOK_OK;
  std::map<std::string, bool> enabled_;
  std::vector<std::pair<std::string, bool>> calls_;
};

struct FakeHostControl {
  ScriptedCommandRunner* commands;
  FakeKernelModules* modules;
  FakeFirewall* firewall;
};

// Installs the three doubles on the selected host, which owns them.
FakeHostControl InstallFakeHostControl();

}  // namespace test
}  // namespace zel
