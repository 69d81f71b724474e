// The configuration generation entry: publication under compare-and-set,
// lookup, and the subscription that tells this process's configuration cache
// when another save has happened anywhere in the cluster.
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "directory/DirectoryEntries.h"
#include "platform/EntryMarshal.h"
#include "platform/Host.h"
#include "platform/Log.h"

using zel::directory::Brix;
using zel::platform::ZelConfigRecord;
using zel::platform::Directory;
using zel::platform::DirectoryEntry;

namespace {

// The generation this process last handed to its configuration cache; 0
// while unsubscribed. Several subscriptions may race to raise it.
std::atomic<uint64_t> gLastAppliedGeneration{0};
std::atomic<ZeldConfigUpdateCallback> gConfigUpdateCallback{nullptr};
std::atomic<bool> gConfigEntryMissing{false};

// One publication waiting for the directory's verdict: the status stays
// NOK_PENDING until the completion has arrived. Shared with the predicate and
// the completion, which may run on the directory's thread and still be
// releasing the mutex when the woken publisher returns.
struct PendingUpdate {
  std::mutex mutex;
  std::condition_variable arrived;
  NOK_ReturnStatus status = NOK_PENDING;
  // Why the stored payload could not be read, when the publication
  // overwrote it for that reason.
  std::string unreadable;
};

void BrixEntryCallback(const std::shared_ptr<PendingUpdate>& pending, NOK_ReturnStatus result) {
  std::lock_guard<std::mutex> guard(pending->mutex);
  pending->status = result;
  pending->arrived.notify_all();
}

void UpdateConfigCache(const DirectoryEntry* entry, NOK_ReturnStatus status) {
  ZEL_LOG_INFO("Trying to update the ZEL config cache...");
  if (ZeldConfigUpdateCallback callback = gConfigUpdateCallback.load()) callback(entry, status);
  ZEL_LOG_INFO("Updating the ZEL config cache done");
}

bool AsksForQuery(NOK_ReturnStatus status) {
  // The directory lost track of the key (a dropped connection, a watch that
  // timed out): what changed meanwhile is only known by asking again.
  return status == NOK_NO_CONNECTION || status == NOK_TIMEOUT;
}

// Raises the last applied generation to `generation`; false when it already
// is at least that.
bool Apply(uint64_t generation) {
  uint64_t applied = gLastAppliedGeneration.load();
  do {
    if (generation <= applied) {
      ZEL_LOG_INFO("Ignoring config generation %ld because generation %ld already applied",
                   static_cast<long>(generation), static_cast<long>(applied));
      return false;
    }
  } while (!gLastAppliedGeneration.compare_exchange_weak(applied, generation));
  ZEL_LOG_INFO("Applying config generation %ld", static_cast<long>(generation));
  return true;
}

// The subscription callback. Whenever the generation cannot be told (an
// unreadable payload, a failed query, a notice of unknown meaning) the cache
// is refreshed anyway: a needless re-read costs one parse of the file, a
// missed one leaves the host answering from an old configuration.
void ConfigEntryCallback(Directory* brix, const std::string& key, NOK_ReturnStatus status,
                         const DirectoryEntry* entry) {
  ZEL_LOG_DEBUG("%s: Config entry callback, len:%d/%d, status:0x%08X (%s)", __func__,
                entry ? static_cast<int>(entry->payload.size()) : 0,
                static_cast<int>(BRIX_PAYLOAD_MAX), status, NOK_ReturnStatusToString(status));
  if (entry != nullptr) {
    ZEL_LOG_DEBUG("%s: entry type:%u key:%s id:%s owner:%s version:%llu", __func__, entry->type,
                  entry->key.c_str(), entry->entryId.c_str(), entry->ownerHost.c_str(),
                  static_cast<unsigned long long>(entry->version));
  }

  if (status == NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("Config entry NOT FOUND, marking it as need to republished");
    gConfigEntryMissing.store(true);
    // The cache keeps track of whether the entry exists; it learns of the
    // absence from this status and stays clean.
    UpdateConfigCache(entry, status);
    return;
  }

  std::vector<DirectoryEntry> queried;
  const DirectoryEntry* current = entry;
  if (AsksForQuery(status)) {
    const NOK_ReturnStatus queryStatus =
        brix->Query(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, key, &queried);
    if (queryStatus == NOK_NOT_FOUND) {
      ZEL_LOG_WARNING("Config entry doesn't exist, waiting for it to get published");
      return;
    }
    if (queryStatus != NOK_OK) {
      ZEL_LOG_WARNING("Failed to query config entry with status 0x%08X (%s)", queryStatus,
                      NOK_ReturnStatusToString(queryStatus));
      UpdateConfigCache(nullptr, status);
      return;
    }
    current = &queried.front();
  } else if (status != NOK_OK || entry == nullptr) {
    ZEL_LOG_WARNING("Unexpected config entry callback with status 0x%08X (%s)", status,
                    NOK_ReturnStatusToString(status));
    UpdateConfigCache(entry, status);
    return;
  }

  ZelConfigRecord record;
  if (zel::platform::UnmarshalConfigRecord(current->payload, &record, nullptr) != NOK_OK) {
    ZEL_LOG_WARNING("Can't unmarshal ZEL config entry from BRIX");
    UpdateConfigCache(current, status);
    return;
  }
  if (Apply(record.generation)) UpdateConfigCache(current, status);
}

}  // namespace

NOK_ReturnStatus ZeldGetConfigGenNumInBrix(uint64_t* generation) {
  std::string ns;
  NOK_ReturnStatus status = ZeldGetNamespaceUuid(&ns);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("%s: Failed to get namespace UUID (%s).", __func__,
                    NOK_ReturnStatusToString(status));
    return status;
  }
  Directory* brix = Brix();
  if (brix == nullptr) return NOK_NO_CONNECTION;
  std::vector<DirectoryEntry> entries;
  status = brix->Query(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, ns, &entries);
  if (status != NOK_OK) return status;

  ZelConfigRecord record;
  std::string error;
  status = zel::platform::UnmarshalConfigRecord(entries.front().payload, &record, &error);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to unmarshal ZEL conf entry entry: %s", error.c_str());
    return status;
  }
  *generation = record.generation;
  return NOK_OK;
}

NOK_ReturnStatus ZeldUpdateBrixEntryForConfig(uint64_t generation) {
  std::string ns;
  NOK_ReturnStatus status = ZeldGetNamespaceUuid(&ns);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("%s: Failed to get namespace UUID.", __func__);
    return status;
  }

  DirectoryEntry entry;
  entry.type = BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG;
  entry.key = ns;
  entry.entryId = ns;
  entry.ownerHost = zel::platform::CurrentHost().Config().hostUuid;
  status = zel::platform::MarshalConfigRecord(ZelConfigRecord{generation}, &entry.payload);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to marshal BRIX ZEL Config entry: %s",
                    NOK_ReturnStatusToString(status));
    return status;
  }

  Directory* brix = Brix();
  auto pending = std::make_shared<PendingUpdate>();
  if (brix == nullptr) {
    status = NOK_NO_CONNECTION;
  } else {
    // Newer wins: a generation is never replaced by an equal or older one,
    // whichever host publishes it. An unreadable stored generation would
    // otherwise block every publication for good, so it is replaced.
    auto newer = [generation, pending](const DirectoryEntry* stored) {
      if (stored == nullptr) return true;
      ZelConfigRecord current;
      std::string error;
      if (zel::platform::UnmarshalConfigRecord(stored->payload, &current, &error) != NOK_OK) {
        std::lock_guard<std::mutex> guard(pending->mutex);
        pending->unreadable = error;
        return true;
      }
      return current.generation < generation;
    };
    brix->AsyncUpdate(entry, newer, [pending](NOK_ReturnStatus result, const DirectoryEntry*) {
      BrixEntryCallback(pending, result);
    });
    std::unique_lock<std::mutex> lock(pending->mutex);
    pending->arrived.wait(lock, [&] { return pending->status != NOK_PENDING; });
    status = pending->status;
  }

  if (status == NOK_OK) {
    if (!pending->unreadable.empty()) {
      ZEL_LOG_WARNING("Failed to unmarshal ZEL conf entry entry: %s", pending->unreadable.c_str());
    }
    ZEL_LOG_DEBUG("Successfully updated BRIX ZEL config entry: %s", ns.c_str());
  } else if (status != NOK_EXISTS) {
    ZEL_LOG_WARNING("Failed to update ZEL config entry: %s", NOK_ReturnStatusToString(status));
  }
  return status;
}

NOK_ReturnStatus ZeldAddBrixEntryForConfig(uint64_t generation) {
  uint64_t published = 0;
  NOK_ReturnStatus status = ZeldGetConfigGenNumInBrix(&published);
  if (status == NOK_OK) {
    ZEL_LOG_DEBUG("ZEL conf entry in BRIX already exists.");
    return NOK_OK;
  }
  if (status != NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("Failed to get ZEL config generation number: %s.",
                    NOK_ReturnStatusToString(status));
    return status;
  }
  status = ZeldUpdateBrixEntryForConfig(generation);
  if (status == NOK_OK) ZEL_LOG_INFO("Added ZEL config entry to BRIX successfully.");
  return status;
}

NOK_ReturnStatus ZeldBrixSubscribeToConfigEntry(ZeldConfigUpdateCallback callback,
                                                Directory::SubscriptionHandle* handle) {
  gConfigUpdateCallback.store(callback);
  std::string ns;
  NOK_ReturnStatus status = ZeldGetNamespaceUuid(&ns);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("Failed to get ZEL namespace UUID with status: %s",
                    NOK_ReturnStatusToString(status));
    return status;
  }
  Directory* brix = Brix();
  if (brix == nullptr) {
    ZEL_LOG_WARNING("Failed to subscribe to BRIX notifications, error: %s",
                    NOK_ReturnStatusToString(NOK_NO_CONNECTION));
    return NOK_NO_CONNECTION;
  }
  // The directory outlives its subscriptions, so the callback may keep it.
  *handle = brix->Subscribe(BRIX_TYPE_ORVA_ISCSI_TARGET_CONFIG, ns,
                            [brix, ns](NOK_ReturnStatus noticed, const DirectoryEntry* entry) {
                              ConfigEntryCallback(brix, ns, noticed, entry);
                            });
  ZEL_LOG_DEBUG("Successfully subscribed cb 0x%p to BRIX notificationsfor ZEL config",
                reinterpret_cast<void*>(callback));
  return NOK_OK;
}

void ZeldBrixUnsubscribeToConfigEntry(Directory::SubscriptionHandle handle) {
  ZEL_LOG_DEBUG("Unsubscribing the ZEL config BRIX entry");
  if (Directory* brix = Brix()) brix->Unsubscribe(handle);
  // Only after the callback can no longer run, so that it cannot raise the
  // generation again behind the reset.
  gLastAppliedGeneration.store(0);
}

bool ZeldConfigEntryNeedsRepublish() { return gConfigEntryMissing.load(); }

void ZeldClearConfigEntryNeedsRepublish() { gConfigEntryMissing.store(false); }
