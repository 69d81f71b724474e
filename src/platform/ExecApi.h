// The host-control services under the names the service's call sites use:
// command execution, kernel modules, the firewall ruleset and the
// configuration-store feature switch. Each is a thin dispatch to the
// selected host's backend; reaching a backend the process has none of
// throws OrvaCtlException.
#pragma once

#include <string>
#include <vector>

#include "platform/NokStatus.h"

namespace NokCtl {
namespace Util {

// Runs `argv` (no shell), waits, and returns its exit code: 127 when it
// could not be started, 128+N when signal N ended it. Nothing is captured.
int NokCtl_Exec(const std::vector<std::string>& argv);

}  // namespace Util

namespace System {
namespace ModuleApi {

bool ModuleIsLoaded(const std::string& name);
NOK_ReturnStatus ModuleLoad(const std::string& name);
NOK_ReturnStatus ModuleUnload(const std::string& name);

}  // namespace ModuleApi

namespace FirewallApi {

NOK_ReturnStatus FirewallRulesetSetStatus(const std::string& ruleset, bool enabled);

}  // namespace FirewallApi
}  // namespace System
}  // namespace NokCtl

namespace OrvaUtil {

// Runs `program` with `arguments` split on blanks, as NokCtl_Exec does.
int OrvaExec(const std::string& program, const std::string& arguments);

// Whether the service keeps its state in the host configuration store
// (option "configStore" of group "ORVA") rather than in the legacy host
// configuration file. On when the option is absent: the local store is a
// JSON file every host has. An option that cannot be read keeps the
// default, with a warning.
bool IsOrvaConfigStoreFeatureEnabled();

}  // namespace OrvaUtil
