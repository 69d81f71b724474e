// The cluster directory's entries of the storage objects a local host makes
// (namespaces and virtual disks): one entry per object under
// (kStorageObjectEntryType, key and entryId the object's identity), owned
// by the host that made it, whose payload is a StorageObjectRecord
// (platform/EntryMarshal.h). Every host sharing the directory reads the
// same record, so the owner, the policy and the extended parameters of an
// object are the same wherever it is asked about.
//
// The directory is the selected host's (CurrentHost().GetDirectory()) at the
// time of each call. Thread-safe.
#pragma once

#include <functional>
#include <string>

#include "platform/EntryMarshal.h"
#include "platform/NokStatus.h"

namespace zel {
namespace platform {

// Publishes the entry of `uuid` with `record` (replacing any) and waits for
// the directory. Throws OrvaCtlException "Failed to announce <what> (<uuid>)
// in the cluster directory: <status>", `what` being for example
// "namespace .iSCSI-CONFIG".
void AnnounceStorageObject(const std::string& what, const std::string& uuid,
                           const StorageObjectRecord& record);

// Removes the entry of `uuid`, for cleanup after a failure that is being
// reported already: an absent entry is fine, another failure is logged and
// never thrown over the cause.
void WithdrawStorageObjectQuietly(const std::string& uuid);

// Reads the record of `uuid`: NOK_OK, NOK_NOT_FOUND when it is not
// announced, NOK_BAD_PARAM when its payload cannot be read (`*why` says
// why), or the directory's status.
NOK_ReturnStatus ReadStorageObject(const std::string& uuid, StorageObjectRecord* record,
                                   std::string* why);

// Read-modify-write of the record of `uuid` under the directory's
// compare-and-set: `change` edits a copy of the stored record, which is
// written only if the entry is still the one read, and otherwise read and
// changed again, so that two hosts changing different parts of one record
// (two extended parameters) both keep their change. NOK_OK, or the status
// of ReadStorageObject or of the directory (`*why` says why when it can);
// NOK_BUSY when other writers won every one of a few attempts.
NOK_ReturnStatus UpdateStorageObject(const std::string& uuid,
                                     const std::function<void(StorageObjectRecord*)>& change,
                                     std::string* why);

}  // namespace platform
}  // namespace zel
