// The plug-in entry, and the library's load and unload hooks.
#include "zel/OrvaPlugin.h"

#include "cache/ConfigCache.h"
#include "platform/Events.h"
#include "platform/Log.h"
#include "service/OrvaIscsiTargetImpl.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

class OrvaAsyncPluginImpl : public virtual HostCtl::Orva::OrvaAsyncPlugin {
 public:
  HostCtl::Orva::IscsiTarget::OrvaIscsiTarget* GetOrvaIscsiTarget() override {
    return new OrvaIscsiTargetImpl();
  }
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl

namespace HostCtl {
namespace Orva {

OrvaAsyncPlugin* OrvaAsyncPluginFactory::GetAsyncOrvaPlugin() {
  return new NokCtl::Orva::IscsiTarget::OrvaAsyncPluginImpl();
}

}  // namespace Orva
}  // namespace HostCtl

using NokCtl::Orva::IscsiTarget::OrvaIscsiTargetImpl;

// Run when the library is loaded.
void ZelNokCtlInit() {
  zel::platform::EventRegistry& events = zel::platform::Events();
  events.SetNokNicChangeCallback(&OrvaIscsiTargetImpl::ZelOnNokNicChange);
  events.SetClusterLeaveCallback(&OrvaIscsiTargetImpl::ZelOnClusterLeave);
  events.SetOrvaSystemRefreshCallback(&OrvaIscsiTargetImpl::ZelOnOrvaSystemRefresh);
  events.SetOrvaHostEnterMaintenanceModeCallback(
      &OrvaIscsiTargetImpl::ZelOnLocalHostEnterMaintenanceMode);
}

// Run when the library is unloaded: nothing may call back into it after.
void ZelNokCtlFini() {
  ZEL_LOG_INFO("%s: Calling %s()\n", "OrvaIscsiTargetImpl", __func__);
  zel::platform::EventRegistry& events = zel::platform::Events();
  events.SetClusterLeaveCallback(nullptr);
  events.SetNokNicChangeCallback(nullptr);
  events.SetOrvaSystemRefreshCallback(nullptr);
  events.SetOrvaHostEnterMaintenanceModeCallback(nullptr);
  try {
    NokCtl::Orva::IscsiTarget::ConfigCache::UnsubscribeBrixNoLock();
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to unsubscribe ZEL config query from BRIX due to: %s\n",
                  "ZelConfigCache", e.GetMessage().c_str());
  }
}

namespace {
__attribute__((constructor)) void OnLibraryLoad() { ZelNokCtlInit(); }
__attribute__((destructor)) void OnLibraryUnload() { ZelNokCtlFini(); }
}  // namespace
