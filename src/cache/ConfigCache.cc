#include "cache/ConfigCache.h"

#include <boost/thread/locks.hpp>
#include <algorithm>
#include <limits>

#include "cache/RecordConversion.h"
#include "conf/ConfHandle.h"
#include "directory/DirectoryEntries.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;

boost::shared_mutex ConfigCache::cacheLock;
struct conf* ConfigCache::gZelConfig = nullptr;
bool ConfigCache::gZelConfDirty = false;
bool ConfigCache::gIsBrixSubscribed = false;
ConfigCache::SubscriptionHandle ConfigCache::gBrixSubscribeInstance = 0;
bool ConfigCache::gZelConfBrixEntryExists = false;
std::shared_ptr<const std::vector<TargetInfo>>& ConfigCache::gConvertedTargets =
    *new std::shared_ptr<const std::vector<TargetInfo>>();
std::mutex& ConfigCache::gConvertedTargetsMutex = *new std::mutex();

namespace {
const char kTag[] = "ZelConfigCache";
}  // namespace

bool ConfigCache::IsZelConfCacheAvailable() {
  return gZelConfig != nullptr && gIsBrixSubscribed && !gZelConfDirty;
}

bool ConfigCache::IsZelConfDirty() { return gZelConfDirty; }
void ConfigCache::SetZelConfDirty(bool dirty) { gZelConfDirty = dirty; }
bool ConfigCache::IsBrixSubscribed() { return gIsBrixSubscribed; }

uint64_t ConfigCache::GetCachedConfGenNumber() {
  boost::shared_lock<boost::shared_mutex> shared(cacheLock);
  return gZelConfig != nullptr ? gZelConfig->conf_generation : kNoGeneration;
}

void ConfigCache::SubscribeBrix() {
  boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
  if (gIsBrixSubscribed) return;
  ZEL_LOG_INFO("%s: Subscribing ZEL config info from BRIX\n", kTag);
  SubscriptionHandle handle = 0;
  const NOK_ReturnStatus status = ZeldBrixSubscribeToConfigEntry(&UpdateZelConfigCacheAPI, &handle);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to subscribe BRIX ZEL config entry: ") +
                           NOK_ReturnStatusToString(status));
  }
  gBrixSubscribeInstance = handle;
  gIsBrixSubscribed = true;
  ZEL_LOG_INFO("%s: Subscribing ZEL config is done\n", kTag);
}

void ConfigCache::UnsubscribeBrix() {
  SubscriptionHandle handle;
  {
    boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
    handle = ForgetSubscription();
  }
  // Outside the lock: ending a subscription waits for a notice still being
  // delivered, and that notice waits for the cache lock.
  EndSubscription(handle);
}

void ConfigCache::UnsubscribeBrixNoLock() { EndSubscription(ForgetSubscription()); }

ConfigCache::SubscriptionHandle ConfigCache::ForgetSubscription() {
  if (!gIsBrixSubscribed) return 0;
  ZEL_LOG_INFO("%s: Unsubscribing ZEL config info from BRIX\n", kTag);
  const SubscriptionHandle handle = gBrixSubscribeInstance;
  gBrixSubscribeInstance = 0;
  gIsBrixSubscribed = false;
  if (gZelConfig != nullptr) {
    conf_delete(gZelConfig);
    gZelConfig = nullptr;
  }
  ForgetConvertedTargets();
  return handle;
}

void ConfigCache::EndSubscription(SubscriptionHandle handle) {
  if (handle == 0) return;
  ZeldBrixUnsubscribeToConfigEntry(handle);
  ZEL_LOG_INFO("%s: Unsubscribing ZEL config info is done\n", kTag);
}

void ConfigCache::UpdateZelConfigCache(SubscriptionHandle subscribeInstance) {
  ZEL_LOG_INFO("%s: Updating the ZEL config cache.\n", kTag);
  try {
    struct conf* fresh = _CreateZelConf();
    boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
    if (subscribeInstance != 0 && gBrixSubscribeInstance == 0) {
      gBrixSubscribeInstance = subscribeInstance;
    }
    _UpdateZelConf(fresh, gZelConfig);
    ZEL_LOG_INFO("%s: Done with the ZEL config cache update.\n", kTag);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to update the config cache due to: %s\n", kTag,
                  e.GetMessage().c_str());
    CleanupCachedConfig();
  }
}

struct conf* ConfigCache::_CreateZelConf() {
  ConfHandle handle(ConfHandle::kShareMode, Util::GetConfFilePath());
  struct conf* taken = handle.conf;
  handle.conf = nullptr;
  return taken;
}

void ConfigCache::_UpdateZelConf(struct conf* fresh, struct conf*& cached) {
  if (cached != nullptr) conf_delete(cached);
  cached = fresh;
  ForgetConvertedTargets();
}

void ConfigCache::ForgetConvertedTargets() {
  std::lock_guard<std::mutex> guard(gConvertedTargetsMutex);
  gConvertedTargets.reset();
}

void ConfigCache::_UpdateZelConfWithLock(struct conf* fresh, struct conf*& cached) {
  boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
  _UpdateZelConf(fresh, cached);
  gZelConfDirty = false;
}

void ConfigCache::CleanupCachedConfig() {
  boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
  if (gZelConfig == nullptr) return;
  ZEL_LOG_INFO("%s: Cleanup cached zel config\n", kTag);
  conf_delete(gZelConfig);
  gZelConfig = nullptr;
  ForgetConvertedTargets();
  ZEL_LOG_INFO("%s: Cleanup cached zel config is done\n", kTag);
}

void ConfigCache::SetZelConfBrixEntryExists(bool value, bool lock) {
  if (!lock) {
    gZelConfBrixEntryExists = value;
    return;
  }
  boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
  gZelConfBrixEntryExists = value;
}

bool ConfigCache::GetZelConfBrixEntryExists(bool lock) {
  if (!lock) return gZelConfBrixEntryExists;
  boost::shared_lock<boost::shared_mutex> shared(cacheLock);
  return gZelConfBrixEntryExists;
}

void ConfigCache::OnConfigEntryNotice(uint32_t status) {
  boost::unique_lock<boost::shared_mutex> exclusive(cacheLock);
  // The notice only says whether the entry exists and that it changed;
  // the next query re-reads the file for whatever it now holds.
  if (status == NOK_NOT_FOUND) {
    gZelConfBrixEntryExists = false;
    return;
  }
  gZelConfBrixEntryExists = true;
  gZelConfDirty = true;
}

template <typename Result, typename Convert>
Result ConfigCache::Query(const char* name, Convert convert) {
  {
    boost::shared_lock<boost::shared_mutex> shared(cacheLock);
    if (IsZelConfCacheAvailable()) return convert(gZelConfig);
  }
  ZEL_LOG_INFO("%s: %s from conf file\n", kTag, name);
  struct conf* fresh = _CreateZelConf();
  Result result;
  try {
    result = convert(fresh);
  } catch (...) {
    conf_delete(fresh);
    throw;
  }
  _UpdateZelConfWithLock(fresh, gZelConfig);
  return result;
}

DefaultInfo ConfigCache::GetConfigInfo(bool withSecrets) {
  return Query<DefaultInfo>("GetConfigInfo", [withSecrets](const struct conf* conf) {
    return Conversion::GetConfigInfoFromConf(conf, withSecrets);
  });
}

const std::vector<TargetInfo>& ConfigCache::ConvertedTargets() {
  // Readers share the cache lock, so the first of them to get here converts
  // while the others wait for it.
  std::lock_guard<std::mutex> guard(gConvertedTargetsMutex);
  if (!gConvertedTargets) {
    auto converted = std::make_shared<std::vector<TargetInfo>>();
    Conversion::_GetTargetInfos(gZelConfig, *converted);
    gConvertedTargets = std::move(converted);
  }
  return *gConvertedTargets;
}

std::vector<TargetInfo> ConfigCache::GetTargetsInfos() {
  {
    boost::shared_lock<boost::shared_mutex> shared(cacheLock);
    if (IsZelConfCacheAvailable()) return ConvertedTargets();
  }
  return Query<std::vector<TargetInfo>>("GetTargetsInfos", [](const struct conf* conf) {
    std::vector<TargetInfo> targets;
    Conversion::_GetTargetInfos(conf, targets);
    return targets;
  });
}

bool ConfigCache::GetLunInfos(const std::string& alias, std::vector<LunInfo>& luns) {
  const auto copyLuns = [&alias, &luns](const std::vector<TargetInfo>& targets) {
    for (const TargetInfo& target : targets) {
      if (target.alias == alias) {
        luns = target.luns;
        return true;
      }
    }
    return false;
  };
  {
    boost::shared_lock<boost::shared_mutex> shared(cacheLock);
    if (IsZelConfCacheAvailable()) return copyLuns(ConvertedTargets());
  }
  return Query<bool>("GetLunInfos", [&copyLuns](const struct conf* conf) {
    std::vector<TargetInfo> targets;
    Conversion::_GetTargetInfos(conf, targets);
    return copyLuns(targets);
  });
}

std::vector<InitiatorgroupInfo> ConfigCache::GetInitiatorGroupInfos() {
  return Query<std::vector<InitiatorgroupInfo>>(
      "GetInitiatorGroupInfos", [](const struct conf* conf) {
        std::vector<InitiatorgroupInfo> groups;
        Conversion::_GetInitiatorGroupInfos(conf, groups);
        return groups;
      });
}

std::vector<std::string> ConfigCache::GetAllIscsiNoknics() {
  return Query<std::vector<std::string>>("GetAllIscsiNoknics", [](const struct conf* conf) {
    std::vector<std::string> names;
    const struct portal_group* pg;
    TAILQ_FOREACH(pg, &conf->conf_portal_groups, pg_next) {
      const struct portal* portal;
      TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
        if (portal->p_host == nullptr) continue;
        if (std::find(names.begin(), names.end(), portal->p_host) == names.end()) {
          names.push_back(portal->p_host);
        }
      }
    }
    return names;
  });
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl

extern "C" void UpdateZelConfigCacheAPI(const void* /*entry*/, uint32_t status) {
  NokCtl::Orva::IscsiTarget::ConfigCache::OnConfigEntryNotice(status);
}
