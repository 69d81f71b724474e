// In-memory host control: the doubles of the command runner, kernel modules
// and firewall over targets that keep their state in memory. Unscripted
// commands exit 0; modules and rulesets change only when a call succeeds.
#pragma once

#include <string>

#include "support/HostDoubles.h"

namespace zel {
namespace test {

// Calls() and CommandLines() give each command line run, in order.
class ScriptedCommandRunner final : public CommandRunnerDouble {
 public:
  ScriptedCommandRunner();
  // Every later run of `command` exits with `code`. `command` is a whole
  // command line (argv joined by single blanks) or a program (argv[0]); a
  // whole line wins.
  void SetExitCode(const std::string& command, int code);
  std::vector<std::string> CommandLines() const { return Calls(); }
};

// Calls() gives "ModuleIsLoaded NAME", "ModuleLoad NAME", "ModuleUnload NAME".
class FakeKernelModules final : public KernelModulesDouble {
 public:
  FakeKernelModules();
  void SetLoaded(const std::string& name, bool loaded);
  // Later loads (unloads) of `name` answer `status`.
  void SetLoadResult(const std::string& name, NOK_ReturnStatus status);
  void SetUnloadResult(const std::string& name, NOK_ReturnStatus status);
};

// Calls() gives "FirewallRulesetSetStatus RULESET true|false".
class FakeFirewall final : public FirewallDouble {
 public:
  FakeFirewall();
  // Later calls answer `status`.
  void SetResult(NOK_ReturnStatus status);
  // The ruleset's state after the calls so far; false when never set.
  bool IsEnabled(const std::string& ruleset);
};

struct FakeHostControl {
  ScriptedCommandRunner* commands;
  FakeKernelModules* modules;
  FakeFirewall* firewall;
};

// Installs the three on the selected host, which owns them.
FakeHostControl InstallFakeHostControl();

}  // namespace test
}  // namespace zel
