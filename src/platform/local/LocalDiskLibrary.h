// The virtual-disk library of a local host, where the datastore is a
// directory tree (a shared file system mount when several hosts share it).
//
// A disk is its descriptor "<stem>.qdsk" (platform/local/DiskDescriptor.h)
// and its extent files beside it, "<stem>.extent" for a disk this library
// made: a sparse file of the disk's capacity. Its storage object is
// announced in the cluster directory as namespaces are
// (platform/local/StorageObjects.h), owned by the host that made it, and
// keeps the disk's policy and extended parameters.
//
// Descriptors are created whole (temporary file, then a link that refuses
// an existing name, so two creators cannot overwrite each other) and are
// afterwards only ever rewritten in place: holders lock the descriptor's
// inode with flock(2), and replacing the file would silently drop their
// locks. Thread-safe: the object holds no mutable state; the locks belong to
// the handles.
#pragma once

#include <string>

#include "platform/DiskLibrary.h"

namespace zel {
namespace platform {

class LocalDiskLibrary final : public DiskLibrary {
 public:
  // `hostUuid` owns the disks this library creates.
  LocalDiskLibrary(std::string datastoreRoot, std::string hostUuid);

  // NOK_OK when the datastore root is an existing directory that this
  // process may write into; NOK_NOT_FOUND when it is missing or not a
  // directory; NOK_IO_ERROR when it cannot be written (permissions, a
  // read-only mount). A failure is logged with the path and the reason.
  NOK_ReturnStatus Init() override;
  void Exit() override;

  void CreateVirtualDisk(const std::string& path, uint64_t sectors,
                         const std::string& policy) override;
  void RemoveVirtualDisk(const std::string& path) override;
  void UpdateVirtualDiskPolicy(const std::string& path, const std::string& policy) override;

  DiskError Open(const std::string& path, uint32_t flags, std::unique_ptr<DiskHandle>* handle,
                 DiskInfo* info) override;
  // Crash-safe: the extents get their new names as extra hard links first,
  // then the new descriptor is written whole, then the old descriptor and
  // the old names go. A crash leaves the disk whole under the old name (with
  // stray links that a repeated rename takes over) or under the new one.
  DiskError Rename(const std::string& from, const std::string& to) override;
  // Takes no flock, so the holder serving the disk keeps it (online
  // growth); concurrent growers are serialised by a record lock instead.
  DiskError Grow(const std::string& path, uint64_t sectors) override;

  DiskError GetExtParam(const std::string& path, const std::string& name,
                        std::string* value) override;
  DiskError SetExtParam(const std::string& path, const std::string& name,
                        const std::string& value) override;

 private:
  const std::string datastoreRoot_;
  const std::string hostUuid_;
};

}  // namespace platform
}  // namespace zel
