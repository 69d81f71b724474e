#include "service/DaemonControl.h"

#include <exception>
#include <string>
#include <vector>

#include "platform/ExecApi.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";

// The init script's resource group argument places zeld in the memory group
// that its start reserves (exit code 1 when that reservation fails).
const std::vector<std::string> kStartZeld = {"/etc/init.d/zeld", "++group=host/kap/tmp",
                                             "restart"};
const std::vector<std::string> kStopZeld = {"/etc/init.d/zeld", "++group=host/kap/tmp",
                                            "io_stop"};
const std::vector<std::string> kReloadZeld = {"/etc/init.d/zeld", "++group=host/kap/tmp",
                                              "reload"};
const char kChkconfig[] = "/sbin/chkconfig";
const char kZelModule[] = "zel";
const char kFirewallModule[] = "pyrfw";
const char kFirewallRuleset[] = "zel";

std::string ReturnCode(int code) { return "(return code " + std::to_string(code) + ")"; }

}  // namespace

void StartZeld() {
  ZEL_LOG_INFO("%s: Starting zeld\n", kTag);
  const int code = NokCtl::Util::NokCtl_Exec(kStartZeld);
  if (code == 0) {
    ZEL_LOG_INFO("%s: zeld started successfully\n", kTag);
    return;
  }
  if (code == 1) throw OrvaCtlException("Failed to reserve zeld memory " + ReturnCode(code));
  throw OrvaCtlException("Failed to start zeld " + ReturnCode(code));
}

void StopZeld() {
  if (NokCtl::Util::NokCtl_Exec(kStopZeld) != 0) {
    ZEL_LOG_WARNING("%s: Failed to stop zeld.\n", kTag);
  }
}

void ReloadZeld() {
  const int code = NokCtl::Util::NokCtl_Exec(kReloadZeld);
  if (code == 0) return;
  ZEL_LOG_WARNING("%s: Failed to make zeld reload config.\n", kTag);
  throw OrvaCtlException("Failed to reload zeld " + ReturnCode(code));
}

void LoadZelKernelModule() {
  if (NokCtl::System::ModuleApi::ModuleIsLoaded(kZelModule)) return;
  ZEL_LOG_INFO("%s: Loading zel module.\n", kTag);
  const NOK_ReturnStatus status = NokCtl::System::ModuleApi::ModuleLoad(kZelModule);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to load module zel: ") +
                           NOK_ReturnStatusToString(status));
  }
}

void UnloadZelKernelModule() {
  const NOK_ReturnStatus status = NokCtl::System::ModuleApi::ModuleUnload(kZelModule);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to unload module zel: ") +
                           NOK_ReturnStatusToString(status));
  }
}

void SetZelLoaderChkConfig(bool on) {
  const char* arguments = on ? "zel_loader on" : "zel_loader off";
  try {
    if (OrvaUtil::OrvaExec(kChkconfig, arguments) == 0) {
      ZEL_LOG_INFO("%s: Execute \"%s %s\" done\n", kTag, kChkconfig, arguments);
    } else {
      ZEL_LOG_ERROR("%s: Execute \"%s %s\" failed\n", kTag, kChkconfig, arguments);
    }
  } catch (const std::exception& e) {
    ZEL_LOG_ERROR("%s: Failed to Execute chkconfig on zel_loader: %s\n", kTag, e.what());
  }
}

void SetZelFirewallRulesetStatus(bool enable) {
  // A failed load is judged by the check that follows: the module may have
  // been loaded all along.
  NokCtl::System::ModuleApi::ModuleLoad(kFirewallModule);
  if (!NokCtl::System::ModuleApi::ModuleIsLoaded(kFirewallModule)) {
    throw OrvaCtlException("Unable to load module pyrfw");
  }
  const NOK_ReturnStatus status =
      NokCtl::System::FirewallApi::FirewallRulesetSetStatus(kFirewallRuleset, enable);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to ") + (enable ? "enable" : "disable") +
                           " firewall ruleset zel: " + NOK_ReturnStatusToString(status));
  }
  ZEL_LOG_INFO("%s:  %s Zel FirewallRuleset\n", kTag, enable ? "Enable" : "Disable");
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
