#include "platform/local/StorageObjects.h"

#include <future>
#include <vector>

#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/local/LocalPolicyService.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

const char kTag[] = "StorageObjects";

// Beyond this many lost compare-and-sets the record is being rewritten
// faster than it can be read; the caller gets NOK_BUSY rather than a loop.
constexpr int kUpdateAttempts = 8;

DirectoryEntry EntryOf(const std::string& uuid, const std::string& owner) {
  DirectoryEntry entry;
  entry.type = kStorageObjectEntryType;
  entry.key = uuid;
  entry.entryId = uuid;
  entry.ownerHost = owner;
  return entry;
}

NOK_ReturnStatus UpdateAndWait(const DirectoryEntry& entry, Directory::UpdatePredicate accept) {
  std::promise<NOK_ReturnStatus> completed;
  std::future<NOK_ReturnStatus> result = completed.get_future();
  CurrentHost().GetDirectory().AsyncUpdate(
      entry, std::move(accept),
      [&completed](NOK_ReturnStatus done, const DirectoryEntry*) { completed.set_value(done); });
  return result.get();
}

}  // namespace

void AnnounceStorageObject(const std::string& what, const std::string& uuid,
                           const StorageObjectRecord& record) {
  DirectoryEntry entry = EntryOf(uuid, record.ownerHost);
  NOK_ReturnStatus status = MarshalStorageObjectRecord(record, &entry.payload);
  if (status == NOK_OK) status = UpdateAndWait(entry, nullptr);
  if (status != NOK_OK) {
    throw HostCtl::Lib::Orva::OrvaCtlException(
        "Failed to announce " + what + " (" + uuid +
        ") in the cluster directory: " + NOK_ReturnStatusToString(status));
  }
}

void WithdrawStorageObjectQuietly(const std::string& uuid) {
  const NOK_ReturnStatus status =
      CurrentHost().GetDirectory().Delete(kStorageObjectEntryType, uuid, uuid);
  if (status != NOK_OK && status != NOK_NOT_FOUND) {
    ZEL_LOG_WARNING("%s: Failed to withdraw storage object %s from the cluster directory: %s", kTag,
                    uuid.c_str(), NOK_ReturnStatusToString(status));
  }
}

namespace {

NOK_ReturnStatus ReadEntry(const std::string& uuid, DirectoryEntry* entry,
                           StorageObjectRecord* record, std::string* why) {
  std::vector<DirectoryEntry> entries;
  NOK_ReturnStatus status =
      CurrentHost().GetDirectory().Query(kStorageObjectEntryType, uuid, &entries);
  if (status == NOK_OK && entries.empty()) status = NOK_NOT_FOUND;
  if (status != NOK_OK) {
    *why = NOK_ReturnStatusToString(status);
    return status;
  }
  *entry = entries.front();
  return UnmarshalStorageObjectRecord(entry->payload, record, why);
}

}  // namespace

NOK_ReturnStatus ReadStorageObject(const std::string& uuid, StorageObjectRecord* record,
                                   std::string* why) {
  DirectoryEntry entry;
  return ReadEntry(uuid, &entry, record, why);
}

NOK_ReturnStatus UpdateStorageObject(const std::string& uuid,
                                     const std::function<void(StorageObjectRecord*)>& change,
                                     std::string* why) {
  for (int attempt = 0; attempt < kUpdateAttempts; ++attempt) {
    DirectoryEntry read;
    StorageObjectRecord record;
    NOK_ReturnStatus status = ReadEntry(uuid, &read, &record, why);
    if (status != NOK_OK) return status;
    change(&record);
    // The owner is the record's, which the change may not move.
    DirectoryEntry entry = EntryOf(uuid, read.ownerHost);
    status = MarshalStorageObjectRecord(record, &entry.payload);
    if (status != NOK_OK) {
      *why = "the record would exceed the directory's payload limit";
      return status;
    }
    const uint64_t version = read.version;
    status = UpdateAndWait(entry, [version](const DirectoryEntry* stored) {
      return stored != nullptr && stored->version == version;
    });
    // NOK_EXISTS: another writer came between the read and the write.
    if (status != NOK_EXISTS) {
      if (status != NOK_OK) *why = NOK_ReturnStatusToString(status);
      return status;
    }
  }
  *why = "the record kept changing under concurrent updates";
  return NOK_BUSY;
}

}  // namespace platform
}  // namespace zel
