// The process-wide cache of the parsed zel.conf. It is trusted only while
// this process is subscribed to the directory's configuration generation
// entry and no change notice has arrived since the last re-read; otherwise
// every query reads the file afresh (and refills the cache).
//
// Lock order: the cache lock is never held while zel.conf is open. A query
// reads the file with no cache lock held and takes the lock only to swap the
// fresh graph in.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/thread/shared_mutex.hpp>

#include "conf/conf.h"
#include "platform/Directory.h"
#include "zel/DefaultInfo.h"
#include "zel/InitiatorgroupInfo.h"
#include "zel/LunInfo.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

class ConfigCache {
 public:
  using SubscriptionHandle = zel::platform::Directory::SubscriptionHandle;

  // REQUIRES: the cache lock is held (shared or exclusive).
  static bool IsZelConfCacheAvailable();
  static bool IsZelConfDirty();
  static void SetZelConfDirty(bool dirty);
  static bool IsBrixSubscribed();

  // All ones: no generation (nothing cached, no file written, no backup).
  static constexpr uint64_t kNoGeneration = std::numeric_limits<uint64_t>::max();

  // The cached conf's generation, or kNoGeneration when nothing is cached.
  static uint64_t GetCachedConfGenNumber();

  // Subscribes to the generation entry once; throws when it cannot.
  static void SubscribeBrix();
  // Ends the subscription and drops the cached conf.
  static void UnsubscribeBrix();
  // The same without taking the cache lock, for the library's unload when
  // no other thread uses the cache. Never call either while holding the
  // cache lock: ending a subscription waits for a notice being delivered,
  // and the notice takes that lock.
  static void UnsubscribeBrixNoLock();

  // Re-reads the file into the cache without touching the dirty flag.
  // Never throws: a failure is logged and empties the cache.
  static void UpdateZelConfigCache(SubscriptionHandle subscribeInstance);

  // Drops the cached conf and keeps the subscription.
  static void CleanupCachedConfig();

  // The directory's notice about the generation entry (see
  // UpdateZelConfigCacheAPI).
  static void OnConfigEntryNotice(uint32_t status);

  static void SetZelConfBrixEntryExists(bool value, bool lock);
  static bool GetZelConfBrixEntryExists(bool lock);

  // The queries: from the cache when it can be trusted, else from the file.
  static HostCtl::Orva::IscsiTarget::DefaultInfo GetConfigInfo(bool withSecrets);
  static std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> GetTargetsInfos();
  // Copies the LUNs of the target `alias` into `luns` and returns true, or
  // returns false and leaves `luns` alone when no target has that alias.
  // Only that target's LUNs are copied, not the whole list.
  static bool GetLunInfos(const std::string& alias,
                          std::vector<HostCtl::Orva::IscsiTarget::LunInfo>& luns);
  static std::vector<HostCtl::Orva::IscsiTarget::InitiatorgroupInfo> GetInitiatorGroupInfos();
  // The network interfaces the configuration listens on, each once.
  static std::vector<std::string> GetAllIscsiNoknics();

  // Reads zel.conf under a shared file lock and hands over its graph.
  static struct conf* _CreateZelConf();
  static void _UpdateZelConf(struct conf* fresh, struct conf*& cached);
  static void _UpdateZelConfWithLock(struct conf* fresh, struct conf*& cached);

 private:
  // One shape for the four queries: convert the trusted cache, or read the
  // file (no lock held), convert, and swap the fresh graph in.
  template <typename Result, typename Convert>
  static Result Query(const char* name, Convert convert);

  // The targets converted from gZelConfig, converting them on first use.
  // REQUIRES: the cache lock held (shared or exclusive) and the cache
  // available; the list stays valid while the lock is held.
  static const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>& ConvertedTargets();

  // Drops what was converted from gZelConfig. REQUIRES: the cache lock
  // held exclusively.
  static void ForgetConvertedTargets();

  // Clears the subscription state and the cached conf and returns the
  // handle to end (0 when there was none). REQUIRES: the cache lock held
  // exclusively, or no other thread using the cache.
  static SubscriptionHandle ForgetSubscription();
  // Ends the directory subscription `handle`. REQUIRES: the cache lock not
  // held by this thread.
  static void EndSubscription(SubscriptionHandle handle);

  static boost::shared_mutex cacheLock;
  static struct conf* gZelConfig;
  // The targets converted from gZelConfig, built by the first query that
  // trusts the cache and dropped whenever gZelConfig changes: converting is
  // most of a cached query's cost. Both are never destroyed: at process
  // exit the library's unload hook runs after the static destructors and
  // still drops the cache.
  static std::shared_ptr<const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>>&
      gConvertedTargets;
  static std::mutex& gConvertedTargetsMutex;
  static bool gZelConfDirty;
  static bool gIsBrixSubscribed;
  static SubscriptionHandle gBrixSubscribeInstance;
  static bool gZelConfBrixEntryExists;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl

// The directory's change notice for the configuration generation entry,
// exported under this plain name. `entry` is the directory's notice data;
// status NOK_NOT_FOUND says the entry is absent.
extern "C" void UpdateZelConfigCacheAPI(const void* entry, uint32_t status);
