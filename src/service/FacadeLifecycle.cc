// Switching the service on and off on this host, and bringing an enabled
// service back after a restart. Nothing is rolled back when a step fails:
// the persisted state is written last, so a failed enable still reads as
// disabled and the next attempt re-runs every step (each tolerates having
// run before).
#include <boost/thread/locks.hpp>

#include "cache/ConfigCache.h"
#include "directory/NicPublication.h"
#include "edit/HostState.h"
#include "platform/Log.h"
#include "service/DaemonControl.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "service/ServiceConfig.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";
}  // namespace

void OrvaIscsiTargetImpl::SetIscsiTargetStatus(bool enable, bool failIfSame) {
  ZEL_LOG_INFO("%s: Start setting ZEL status to %s\n", kTag, enable ? "enable" : "disable");
  boost::unique_lock<boost::shared_mutex> config(configAccessMutex);
  boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);

  if (GetIscsiTargetStatus(false) == enable) {
    if (failIfSame) {
      throw OrvaCtlException(std::string("Orva iSCSI Target service is already ") +
                             (enable ? "enabled" : "disabled") + " on this host");
    }
    return;
  }
  if (enable) Util::VerifyEnvForEnable();

  boost::upgrade_to_unique_lock<boost::shared_mutex> exclusive(status);
  if (enable) {
    deinitLibs();
    initVolLib();
    initComplianceLib();
    Util::PublishNokNicsToBrix();
    Util::LoadZelKernelModule();
    Util::StartZeld();
    _CheckZelConfigSubscription();
  } else {
    _UnsubscribeZelConfig();
    Util::StopZeld();
    Util::UnloadZelKernelModule();
    deinitLibs();
  }
  Util::SetStatus(enable);
  Util::SetZelLoaderChkConfig(enable);
  Util::SetZelFirewallRulesetStatus(enable);
  LoadConfig();
}

void OrvaIscsiTargetImpl::Restore() {
  boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
  if (!GetIscsiTargetStatus(false)) return;
  ZEL_LOG_INFO("%s: Restoring Orva iSCSI status.\n", kTag);
  initVolLib();
  initComplianceLib();
  Util::PublishNokNicsToBrix();
  Util::LoadZelKernelModule();
  Util::StartZeld();
  ZEL_LOG_INFO("%s: Restored successfully.\n", kTag);
}

void OrvaIscsiTargetImpl::_UnsubscribeZelConfig() {
  try {
    ConfigCache::UnsubscribeBrix();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to unsubscribe BRIX : %s\n", kTag, e.GetMessage().c_str());
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
