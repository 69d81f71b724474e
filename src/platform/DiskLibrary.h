// The virtual-disk library of the datastore: the disks that back LUNs.
// Call sites use the library's own names (VolLib_* in platform/VolLib.h,
// DiskLunApi::CreateVirtualDisk / RemoveVirtualDisk in storage/DiskLunApi.h).
//
// A disk is a descriptor file "<name>.qdsk" naming its extents in order,
// each a data file in the descriptor's directory, and a storage object (an
// identity with a policy and an owner host) announced in the cluster
// directory the way namespaces are.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

enum class DiskErrorCode { Ok, NotFound, Exists, Locked, BadDescriptor, BadParam, NoSpace, IoError };

// The result of a disk call: Ok, or a failure with a text that names the
// file and says what is wrong with it.
struct DiskError {
  DiskErrorCode code = DiskErrorCode::Ok;
  std::string text;
  bool Ok() const { return code == DiskErrorCode::Ok; }
};

// Open flags. The two open-for-writing values are the ones the service
// passes when it must prove that no other holder (the target's owner host,
// whose daemon keeps every disk it serves open) still has the disk:
//   kDiskOpenLocked (0x800a): read-write, holding an exclusive flock(2) on
//     the descriptor for the handle's life, taken without waiting.
//   kDiskOpenExclusiveSession (0x408002): the same, and also an exclusive
//     flock on every extent file, so a holder that opened only the data
//     is seen as well.
// A lock held elsewhere fails either open at once with DiskErrorCode::Locked.
//   kDiskOpenReadOnly (0): reads the descriptor and takes no lock.
constexpr uint32_t kDiskOpenReadOnly = 0;
constexpr uint32_t kDiskOpenLocked = 0x800a;
constexpr uint32_t kDiskOpenExclusiveSession = 0x408002;

struct DiskExtent {
  std::string fileName;  // relative to the descriptor's directory
  uint64_t sizeSectors = 0;
  std::string objectUuid;  // the storage object holding this extent's data
};

struct DiskInfo {
  uint64_t capacitySectors = 0;  // 512-byte sectors
  std::string objectUuid;        // the disk's own identity
  std::vector<DiskExtent> extents;
};

// An open disk; destroying it closes the files and releases its locks.
class DiskHandle {
 public:
  virtual ~DiskHandle() = default;
};

class DiskLibrary {
 public:
  virtual ~DiskLibrary() = default;
  // NOK_OK when the datastore can be used from this host.
  virtual NOK_ReturnStatus Init() = 0;
  virtual void Exit() = 0;

  // Creates the descriptor `path` with one sparse extent of `sectors` and
  // announces the new object with `policy`, owned by this host. Throws
  // OrvaCtlException; a failure leaves no file and no announcement.
  virtual void CreateVirtualDisk(const std::string& path, uint64_t sectors,
                                 const std::string& policy) = 0;
  // Removes the descriptor, its extents and the announcement; a part
  // already gone is skipped, so an interrupted removal can be finished.
  // Throws OrvaCtlException when the disk is not there at all.
  virtual void RemoveVirtualDisk(const std::string& path) = 0;
  // Gives the disk's object a new policy. Throws OrvaCtlException.
  virtual void UpdateVirtualDiskPolicy(const std::string& path, const std::string& policy) = 0;

  // Opens the disk with `flags` and reads its descriptor into `info`;
  // `handle` receives the open disk. Both are left alone on failure.
  virtual DiskError Open(const std::string& path, uint32_t flags,
                         std::unique_ptr<DiskHandle>* handle, DiskInfo* info) = 0;
  // Moves the disk `from` to `to` (descriptor and extents), in any
  // directory of the datastore; `to` must not exist. Fails with Locked
  // while another holder has the disk open.
  virtual DiskError Rename(const std::string& from, const std::string& to) = 0;
  // Extends the disk's last extent to make the capacity `sectors` (still
  // sparse) and records the new capacity atomically. BadParam when
  // `sectors` is not larger than the capacity.
  virtual DiskError Grow(const std::string& path, uint64_t sectors) = 0;

  // The object's extended parameter `name`: NotFound when it was never
  // set. Kept with the object, so every host reads what any host set.
  virtual DiskError GetExtParam(const std::string& path, const std::string& name,
                                std::string* value) = 0;
  virtual DiskError SetExtParam(const std::string& path, const std::string& name,
                                const std::string& value) = 0;
};

}  // namespace platform
}  // namespace zel
