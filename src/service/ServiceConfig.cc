#include "service/ServiceConfig.h"

#include <boost/thread/locks.hpp>

#include "platform/Host.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;

namespace {

const char kTag[] = "Util";

boost::shared_mutex defaultConfigMutex;
DefaultInfo defaultConfigCache;

}  // namespace

void LoadDefaultConfigCacheFromConfigStore() {
  boost::unique_lock<boost::shared_mutex> exclusive(defaultConfigMutex);
  DefaultInfo stored;
  if (zel::platform::CurrentHost().Store().GetOrvaIscsiDefaultConfig(&stored)) {
    defaultConfigCache = stored;
  }
}

DefaultInfo GetDefaultConfigCache() {
  boost::unique_lock<boost::shared_mutex> exclusive(defaultConfigMutex);
  return defaultConfigCache;
}

void LoadConfig(bool& enabled) {
  try {
    if (!zel::platform::CurrentHost().Store().GetOrvaIscsiServiceEnabled(&enabled)) {
      ZEL_LOG_INFO("%s: ZEL service enabled field not exist in config store.\n", kTag);
      enabled = false;
    }
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: ZEL failed to get info for ZEL status from config store with exception %s\n",
                  kTag, e.GetMessage().c_str());
    throw;
  }
  try {
    LoadDefaultConfigCacheFromConfigStore();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: ZEL failed to get default config from config store with exception %s\n",
                  kTag, e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Retrieved zel status '%s' from config store successfully\n", kTag,
               enabled ? "enabled" : "disabled");
}

int ZelGetNsiIntOpt(const std::string& component, const std::string& field) {
  const auto& options = zel::platform::CurrentHost().Config().options;
  const auto found = options.find(component + "." + field);
  // An option the host never set reads 0, which turns its feature off.
  if (found == options.end()) {
    ZEL_LOG_DEBUG("%s: Option %s.%s is not set; reading 0\n", kTag, component.c_str(),
                  field.c_str());
    return 0;
  }
  return found->second;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
