// The plug-in entry through which the management process reaches the
// service after loading the library.
#pragma once

#include "zel/OrvaIscsiTarget.h"

namespace HostCtl {
namespace Orva {

class OrvaAsyncPlugin {
 public:
  virtual ~OrvaAsyncPlugin() = default;

  // A new service object on every call, owned by the caller and deleted
  // through its interface. It is not the instance that the library's own
  // event handlers use, but it shares their configuration, locks and daemon.
  virtual IscsiTarget::OrvaIscsiTarget* GetOrvaIscsiTarget() = 0;
};

class OrvaAsyncPluginFactory {
 public:
  // A new plug-in object, owned by the caller. It holds no state.
  static OrvaAsyncPlugin* GetAsyncOrvaPlugin();
};

}  // namespace Orva
}  // namespace HostCtl
