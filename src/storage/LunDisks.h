// The disks that back LUNs. Each lives in its target's namespace directory
// and is named by its own object identity: "<root>/<target-uuid>/<object-
// uuid>.qdsk". Removal must not pull a disk from under the host that still
// serves it; that host's daemon keeps every served disk open under its lock,
// so a locked open of our own is the proof that it let go.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Makes the disk of LUN `lunId` (decimal text, for the log) of target
// `targetUuid`: `sectors` long, with `policy`. It is created under a
// temporary name and then renamed after its object identity, the rename
// tried up to 12 times a second apart. Sets `path` (absolute) and
// `objectUuid` on success; any failure after the disk exists removes it
// again and is rethrown as OrvaCtlException.
void CreateLun(const std::string& targetUuid, const std::string& lunId, uint64_t sectors,
               const std::string& policy, std::string& path, std::string& objectUuid);

// Removes the disk `path` of LUN `lunId` of target `targetUuid` once the
// owner released it (at most 31 locked opens, 30 seconds apart in all),
// then its reservation file. Giving up throws OrvaCtlException naming the
// owner host and the last error; nothing is removed then.
void RemoveLun(unsigned lunId, const std::string& path, const std::string& targetUuid);

// Removes the persistent-reservation file of LUN `lunUuid` of target
// `targetUuid`. Never throws: a missing file is no error, other failures
// are logged.
void RemovePRFile(const std::string& lunUuid, const std::string& targetUuid);

// The object identity of the disk `path`: its last extent's. Throws
// OrvaCtlException when the disk cannot be read.
std::string GetObjectUuidForLun(const std::string& path);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
