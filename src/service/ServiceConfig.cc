#include "service/ServiceConfig.h"

#include <errno.h>

#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <cstring>

#include "platform/ExecApi.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/local/LocalLegacyConfig.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;

namespace {

const char kTag[] = "Util";

// Always taken exclusively, and never while waiting for another lock.
boost::shared_mutex defaultConfigMutex;
DefaultInfo defaultConfigCache;

const char* EnabledText(bool enabled) { return enabled ? "enabled" : "disabled"; }

bool SameDefaults(const DefaultInfo& a, const DefaultInfo& b) {
  return a.networkInterface == b.networkInterface && a.port == b.port &&
         a.authType == b.authType && a.userid == b.userid && a.secret == b.secret &&
         a.mutualUserid == b.mutualUserid && a.mutualSecret == b.mutualSecret;
}

}  // namespace

void SetStatus(bool enabled) {
  zel::platform::Host& host = zel::platform::CurrentHost();
  if (OrvaUtil::IsOrvaConfigStoreFeatureEnabled()) {
    try {
      host.Store().SetOrvaIscsiServiceEnabled(enabled);
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_ERROR(
          "%s: ZEL failed to persist info for ZEL status to config store with exception %s\n",
          kTag, e.GetMessage().c_str());
      throw;
    }
    ZEL_LOG_INFO("%s: Stored zel status '%s' to config store successfully\n", kTag,
                 EnabledText(enabled));
    return;
  }
  try {
    host.LegacyConfig().SetBool(ORVA_ZEL_STATUS_KEY, enabled);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: ZEL failed to persist info for ZEL  status with exception %s\n", kTag,
                  e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Stored zel status '%s' successfully\n", kTag, EnabledText(enabled));
}

void LoadConfig(bool& enabled) {
  zel::platform::Host& host = zel::platform::CurrentHost();
  if (OrvaUtil::IsOrvaConfigStoreFeatureEnabled()) {
    try {
      if (!host.Store().GetOrvaIscsiServiceEnabled(&enabled)) {
        ZEL_LOG_INFO("%s: ZEL service enabled field not exist in config store.\n", kTag);
        enabled = false;
      }
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_ERROR(
          "%s: ZEL failed to get info for ZEL status from config store with exception %s\n", kTag,
          e.GetMessage().c_str());
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
                 EnabledText(enabled));
    return;
  }
  try {
    zel::platform::LegacyConfigFile& legacy = host.LegacyConfig();
    enabled = legacy.HasValue(ORVA_ZEL_STATUS_KEY) && legacy.GetBool(ORVA_ZEL_STATUS_KEY);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: ZEL failed to load info for ZEL  status with exception %s\n", kTag,
                  e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Retrieved zel status '%s' successfully\n", kTag, EnabledText(enabled));
}

void LoadDefaultConfigCacheFromConfigStore() {
  if (!OrvaUtil::IsOrvaConfigStoreFeatureEnabled()) return;
  boost::unique_lock<boost::shared_mutex> exclusive(defaultConfigMutex);
  DefaultInfo stored;
  if (zel::platform::CurrentHost().Store().GetOrvaIscsiDefaultConfig(&stored)) {
    defaultConfigCache = stored;
  }
}

void UpdateDefaultConfigToConfigStore(const DefaultInfo& info) {
  // Without the store the defaults live only in zel.conf.
  if (!OrvaUtil::IsOrvaConfigStoreFeatureEnabled()) return;
  try {
    // Compared under the lock: another thread may replace the cached
    // strings at any moment, and the control thread mirrors the defaults
    // every pass, so equal records must cost no write.
    boost::unique_lock<boost::shared_mutex> exclusive(defaultConfigMutex);
    if (SameDefaults(info, defaultConfigCache)) return;
    zel::platform::CurrentHost().Store().SetOrvaIscsiDefaultConfig(info);
    defaultConfigCache = info;
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: ZEL failed to persist default config to config store with exception %s\n",
                  kTag, e.GetMessage().c_str());
    throw;
  }
}

DefaultInfo GetDefaultConfigCache() {
  boost::unique_lock<boost::shared_mutex> exclusive(defaultConfigMutex);
  return defaultConfigCache;
}

bool IsRunningInOrvaMgmtd() {
  static const bool inMgmtd = std::strstr(program_invocation_name, "orvamgmtd") != nullptr;
  return inMgmtd;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
