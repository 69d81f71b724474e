// What enabling and disabling the service switch on this host: the zeld
// daemon (through its init script), the target's kernel module "zel", the
// boot-time loader switch and the firewall ruleset "zel".
#pragma once

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Restarts zeld; a restart also starts a stopped daemon, so calling it
// again after a failed enable is safe. Throws "Failed to reserve zeld memory
// (return code 1)" for exit code 1, "Failed to start zeld (return code N)"
// for any other non-zero N.
void StartZeld();
// Stops zeld's I/O; a failure is only a warning.
void StopZeld();
// Makes zeld re-read zel.conf; throws "Failed to reload zeld (return code
// N)".
void ReloadZeld();

// Loads "zel" unless it is loaded already. Throws when the load fails.
void LoadZelKernelModule();
// Unloads "zel" whether or not it is loaded. Throws when the unload fails.
void UnloadZelKernelModule();

// Switches the boot-time loader on or off. Never throws: a failure is
// logged, since the running service does not depend on it.
void SetZelLoaderChkConfig(bool on);

// Loads the firewall module and opens or closes the "zel" ruleset. Throws
// "Unable to load module pyrfw" when the module is not loaded afterwards,
// and when the ruleset cannot be switched.
void SetZelFirewallRulesetStatus(bool enable);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
