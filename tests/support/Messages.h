// What the service says when it refuses.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "zel/OrvaCtlException.h"
#include "zel/OrvaPlugin.h"

namespace zel::test {

// The message `operation` throws as OrvaCtlException, or "" when it does
// not throw.
inline std::string MessageOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
    return e.GetMessage();
  }
  return "";
}

// A service object as the management process gets one: through the plug-in.
inline std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> NewService() {
  std::unique_ptr<HostCtl::Orva::OrvaAsyncPlugin> plugin(
      HostCtl::Orva::OrvaAsyncPluginFactory::GetAsyncOrvaPlugin());
  return std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget>(
      plugin->GetOrvaIscsiTarget());
}

}  // namespace zel::test
