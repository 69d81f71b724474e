// Kernel modules and the firewall ruleset of a local host.
//
// Embedded profile: nothing outside the home is touched. Each switch is a
// small file under home/state/:
//   modules/NAME      present while module NAME is loaded
//   firewall/RULESET  "enabled" or "disabled"
//   boot/NAME         "on" or "off" (the boot-time switch; see
//                     LocalCommandRunner.h)
// Every change is logged with the file it touched, so an operator can see
// what the service would have done to a real host.
//
// Real-host profile: modules through "modprobe NAME" and "modprobe -r NAME",
// loaded-ness from /proc/modules (and /sys/module for built-in modules);
// the service's firewall module "pyrfw" is the host's "nf_tables". The
// firewall ruleset RULESET is the nftables table "inet RULESET": enabling
// writes home/state/firewall/RULESET.nft and applies it with "nft -f" in
// one transaction (the table is dropped and re-created, so enabling twice
// leaves one copy); it accepts TCP port 3260, the iSCSI port. Targets that
// listen on other ports need a rule of the operator's own. Disabling drops
// the table. The programs are run through the local command runner, so
// host.json "commands" may replace "modprobe" and "nft".
//
// All operations are thread-safe; state files are replaced atomically.
#pragma once

#include <memory>
#include <string>

#include "platform/HostConfig.h"
#include "platform/HostControl.h"

namespace zel {
namespace platform {

std::unique_ptr<KernelModules> NewLocalKernelModules(const HostConfig& config);
std::unique_ptr<Firewall> NewLocalFirewall(const HostConfig& config);

// The real-host backends over a given runner; the factories above pass the
// local command runner and the system's files.
struct ModuleFiles {
  std::string procModules = "/proc/modules";
  std::string sysModuleDir = "/sys/module";
};
std::unique_ptr<KernelModules> NewRealHostKernelModules(std::unique_ptr<CommandRunner> runner,
                                                        ModuleFiles files);
std::unique_ptr<Firewall> NewRealHostFirewall(std::unique_ptr<CommandRunner> runner,
                                              const std::string& home);

// ---- State files of the embedded profile ----------------------------------

// True when `name` can be a state file's name: one non-empty path
// component other than "." and "..".
bool IsStateName(const std::string& name);
// home/state/KIND/NAME. REQUIRES: IsStateName(name).
std::string StatePath(const std::string& home, const std::string& kind, const std::string& name);
// Replaces the state file at `path` with `contents`, creating its
// directory. Throws OrvaCtlException naming the path.
void WriteStateFile(const std::string& path, const std::string& contents);

}  // namespace platform
}  // namespace zel
