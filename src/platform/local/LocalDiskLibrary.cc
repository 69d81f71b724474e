#include "platform/local/LocalDiskLibrary.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/PolicyRules.h"
#include "platform/local/AtomicFile.h"
#include "platform/local/DiskDescriptor.h"
#include "platform/local/LocalPolicyService.h"
#include "platform/local/StorageObjects.h"
#include "zel/OrvaCtlException.h"

namespace zel {
namespace platform {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kTag[] = "DiskLibrary";

NOK_ReturnStatus Unusable(const std::string& root, int error) {
  ZEL_LOG_WARNING("%s: Datastore root %s cannot be used: %s", kTag, root.c_str(),
                  std::strerror(error));
  return error == ENOENT || error == ENOTDIR ? NOK_NOT_FOUND : NOK_IO_ERROR;
}

DiskError Failure(DiskErrorCode code, const std::string& text) { return {code, text}; }

DiskError SystemError(const std::string& action, const std::string& path, int error) {
  const DiskErrorCode code = error == ENOENT   ? DiskErrorCode::NotFound
                             : error == EEXIST ? DiskErrorCode::Exists
                             : error == ENOSPC ? DiskErrorCode::NoSpace
                                               : DiskErrorCode::IoError;
  return {code, "Failed to " + action + " " + path + ": " + std::strerror(error)};
}

// An open file descriptor, closed (and so unlocked) with the object.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

class LocalDiskHandle final : public DiskHandle {
 public:
  LocalDiskHandle(Fd descriptor, std::vector<Fd> extents)
      : descriptor_(std::move(descriptor)), extents_(std::move(extents)) {}

 private:
  Fd descriptor_;
  std::vector<Fd> extents_;
};

enum class Lock { None, Holder, Grower };

struct OpenDisk {
  Fd descriptor;
  DiskInfo info;
  size_t bytes = 0;  // the descriptor's length
};

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

DiskError LockedBy(const std::string& what, const std::string& path) {
  return {DiskErrorCode::Locked, what + " " + path + " is locked by another holder"};
}

// Opens and reads the descriptor `path`, taking `lock` on it first so that
// what is read is what the lock covers.
DiskError OpenDescriptor(const std::string& path, Lock lock, bool checkExtents, OpenDisk* disk) {
  const int access = lock == Lock::None ? O_RDONLY : O_RDWR;
  // A rename may replace the name between the open and the lock; the
  // second attempt opens whatever the name holds now.
  for (int attempt = 0;; ++attempt) {
    Fd fd(::open(path.c_str(), access | O_CLOEXEC));
    if (fd.get() < 0) {
      if (errno == ENOENT)
        return Failure(DiskErrorCode::NotFound, "Virtual disk " + path + " not found");
      return SystemError("open virtual disk", path, errno);
    }
    if (lock == Lock::Holder && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) return LockedBy("Virtual disk", path);
      return SystemError("lock virtual disk", path, errno);
    }
    if (lock == Lock::Grower) {
      // A record lock, independent of the holders' flock: it only keeps two
      // growers from extending from the same old capacity.
      struct flock range = {};
      range.l_type = F_WRLCK;
      range.l_whence = SEEK_SET;
      while (::fcntl(fd.get(), F_OFD_SETLKW, &range) != 0) {
        if (errno != EINTR) return SystemError("lock virtual disk", path, errno);
      }
    }
    struct stat opened, named;
    if (lock != Lock::None && ::fstat(fd.get(), &opened) == 0 &&
        (::stat(path.c_str(), &named) != 0 || !SameFile(opened, named))) {
      if (attempt == 0) continue;
      return Failure(DiskErrorCode::IoError,
                     "Virtual disk " + path + " was replaced while it was being opened");
    }
    DiskError error = ReadDiskDescriptor(path, fd.get(), &disk->info, &disk->bytes);
    if (error.Ok() && checkExtents) error = CheckDiskExtents(path, disk->info);
    if (error.Ok()) disk->descriptor = std::move(fd);
    return error;
  }
}

// Syncs the directory holding `path`, making a link or unlink there durable.
void SyncDirectoryOf(const std::string& path) {
  Fd dir(::open(DiskDirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() < 0 || ::fsync(dir.get()) != 0) {
    ZEL_LOG_WARNING("%s: Failed to sync the directory of %s: %s", kTag, path.c_str(),
                    std::strerror(errno));
  }
}

// Writes `contents` as the new file `path`, mode 0600, whole or not at all:
// a temporary file beside it is written and synced, then linked to `path`.
// link(2), unlike rename(2), refuses an existing name, so a descriptor made
// by someone else at the same moment is never overwritten. 0 or the errno.
int WriteNewFile(const std::string& path, const std::string& contents) {
  int raw = -1;
  std::string temp;
  if (const int error = CreateTempFileBeside(path, &raw, &temp)) return error;
  int error = 0;
  {
    Fd fd(raw);
    size_t written = 0;
    if (::fchmod(fd.get(), 0600) != 0) error = errno;
    while (error == 0 && written < contents.size()) {
      const ssize_t n = ::write(fd.get(), contents.data() + written, contents.size() - written);
      if (n < 0 && errno != EINTR) error = errno;
      if (n > 0) written += static_cast<size_t>(n);
    }
    if (error == 0 && ::fsync(fd.get()) != 0) error = errno;
  }
  if (error == 0 && ::link(temp.c_str(), path.c_str()) != 0) error = errno;
  ::unlink(temp.c_str());
  if (error == 0) SyncDirectoryOf(path);
  return error;
}

void UnlinkQuietly(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    ZEL_LOG_WARNING("%s: Failed to remove %s: %s", kTag, path.c_str(), std::strerror(errno));
  }
}

// True when `a` and `b` are one directory entry (same directory, same name),
// which a rename into its own extent names must not remove.
bool SameEntry(const std::string& a, const std::string& b) {
  struct stat dirA, dirB;
  return a.substr(a.rfind('/') + 1) == b.substr(b.rfind('/') + 1) &&
         ::stat(DiskDirectoryOf(a).c_str(), &dirA) == 0 &&
         ::stat(DiskDirectoryOf(b).c_str(), &dirB) == 0 && SameFile(dirA, dirB);
}

std::string NewUuid() { return boost::uuids::to_string(boost::uuids::random_generator()()); }

// The descriptor of `path` for the calls that do not need its data.
DiskInfo DescribeOrThrow(const std::string& path) {
  OpenDisk disk;
  const DiskError error = OpenDescriptor(path, Lock::None, false, &disk);
  if (!error.Ok()) throw OrvaCtlException(error.text);
  return disk.info;
}

}  // namespace

LocalDiskLibrary::LocalDiskLibrary(std::string datastoreRoot, std::string hostUuid)
    : datastoreRoot_(std::move(datastoreRoot)), hostUuid_(std::move(hostUuid)) {}

NOK_ReturnStatus LocalDiskLibrary::Init() {
  struct stat root;
  if (::stat(datastoreRoot_.c_str(), &root) != 0) return Unusable(datastoreRoot_, errno);
  if (!S_ISDIR(root.st_mode)) return Unusable(datastoreRoot_, ENOTDIR);
  // Creating namespaces and disks needs to write entries into the tree.
  if (::access(datastoreRoot_.c_str(), W_OK | X_OK) != 0) return Unusable(datastoreRoot_, errno);
  ZEL_LOG_DEBUG("%s: Datastore root %s is usable", kTag, datastoreRoot_.c_str());
  return NOK_OK;
}

void LocalDiskLibrary::Exit() {
  // Init only checks the datastore and holds nothing; every disk is opened
  // and locked by the handle of the operation that uses it and released with
  // that handle, so there is nothing left to close here.
  ZEL_LOG_DEBUG("%s: Disk library exit, nothing held", kTag);
}

void LocalDiskLibrary::CreateVirtualDisk(const std::string& path, uint64_t sectors,
                                         const std::string& policy) {
  if (sectors == 0 || sectors > kDiskMaxSectors) {
    throw OrvaCtlException("Invalid capacity of virtual disk " + path + ": " +
                           std::to_string(sectors) + " sectors");
  }
  NokCtl::Orva::IscsiTarget::Util::VerifyPolicy(policy);
  struct stat existing;
  if (::lstat(path.c_str(), &existing) == 0) {
    throw OrvaCtlException("Virtual disk " + path + " already exists");
  }

  DiskInfo info;
  info.capacitySectors = sectors;
  info.objectUuid = NewUuid();
  // The one extent's data belongs to the disk's own object.
  info.extents.push_back({DiskExtentName(path, 0), sectors, info.objectUuid});
  const std::string extent = DiskSibling(path, info.extents.front().fileName);

  {
    Fd fd(::open(extent.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
      throw OrvaCtlException(SystemError("create extent file", extent, errno).text);
    }
    // ftruncate allocates nothing: the extent is as sparse as it gets.
    if (::fchmod(fd.get(), 0600) != 0 ||
        ::ftruncate(fd.get(), static_cast<off_t>(sectors * kDiskSectorBytes)) != 0) {
      const int error = errno;
      UnlinkQuietly(extent);
      throw OrvaCtlException(SystemError("size extent file", extent, error).text);
    }
  }
  if (const int error = WriteNewFile(path, FormatDiskDescriptor(info))) {
    UnlinkQuietly(extent);
    if (error == EEXIST) throw OrvaCtlException("Virtual disk " + path + " already exists");
    throw OrvaCtlException(SystemError("write virtual disk descriptor", path, error).text);
  }
  try {
    AnnounceStorageObject("virtual disk " + path, info.objectUuid, {hostUuid_, policy});
  } catch (const OrvaCtlException&) {
    // A failed completion does not prove that nothing was written.
    WithdrawStorageObjectQuietly(info.objectUuid);
    UnlinkQuietly(path);
    UnlinkQuietly(extent);
    throw;
  }
  ZEL_LOG_DEBUG("%s: Created virtual disk %s (%s) of %llu sectors", kTag, path.c_str(),
                info.objectUuid.c_str(), static_cast<unsigned long long>(sectors));
}

void LocalDiskLibrary::RemoveVirtualDisk(const std::string& path) {
  OpenDisk disk;
  const DiskError error = OpenDescriptor(path, Lock::None, false, &disk);
  if (error.code == DiskErrorCode::NotFound) {
    // The descriptor goes last, so only the extent of its usual name can be
    // left by a removal that got that far.
    const std::string extent = DiskSibling(path, DiskExtentName(path, 0));
    if (::unlink(extent.c_str()) != 0)
      throw OrvaCtlException("Virtual disk " + path + " not found");
    return;
  }
  if (!error.Ok()) throw OrvaCtlException(error.text);

  const std::string& uuid = disk.info.objectUuid;
  const NOK_ReturnStatus status =
      CurrentHost().GetDirectory().Delete(kStorageObjectEntryType, uuid, uuid);
  if (status != NOK_OK && status != NOK_NOT_FOUND) {
    throw OrvaCtlException("Failed to withdraw virtual disk " + path + " (" + uuid +
                           ") from the cluster directory: " + NOK_ReturnStatusToString(status));
  }
  for (const DiskExtent& extent : disk.info.extents) {
    const std::string file = DiskSibling(path, extent.fileName);
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
      throw OrvaCtlException(SystemError("remove extent file", file, errno).text);
    }
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    throw OrvaCtlException(SystemError("remove virtual disk descriptor", path, errno).text);
  }
  SyncDirectoryOf(path);
  ZEL_LOG_DEBUG("%s: Removed virtual disk %s (%s)", kTag, path.c_str(), uuid.c_str());
}

void LocalDiskLibrary::UpdateVirtualDiskPolicy(const std::string& path, const std::string& policy) {
  NokCtl::Orva::IscsiTarget::Util::VerifyPolicy(policy);
  const DiskInfo info = DescribeOrThrow(path);
  std::string why;
  const NOK_ReturnStatus status = UpdateStorageObject(
      info.objectUuid, [&policy](StorageObjectRecord* record) { record->policy = policy; }, &why);
  if (status != NOK_OK) {
    throw OrvaCtlException("Failed to announce virtual disk " + path + " (" + info.objectUuid +
                           ") in the cluster directory: " + why);
  }
}

DiskError LocalDiskLibrary::Open(const std::string& path, uint32_t flags,
                                 std::unique_ptr<DiskHandle>* handle, DiskInfo* info) {
  if (flags != kDiskOpenReadOnly && flags != kDiskOpenLocked &&
      flags != kDiskOpenExclusiveSession) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", flags);
    return Failure(DiskErrorCode::BadParam,
                   std::string("Invalid open flags ") + text + " for virtual disk " + path);
  }
  OpenDisk disk;
  DiskError error =
      OpenDescriptor(path, flags == kDiskOpenReadOnly ? Lock::None : Lock::Holder, true, &disk);
  if (!error.Ok()) return error;

  std::vector<Fd> extents;
  if (flags == kDiskOpenExclusiveSession) {
    for (const DiskExtent& extent : disk.info.extents) {
      const std::string file = DiskSibling(path, extent.fileName);
      Fd fd(::open(file.c_str(), O_RDWR | O_CLOEXEC));
      if (fd.get() < 0) return SystemError("open extent file", file, errno);
      if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) return LockedBy("Extent file", file);
        return SystemError("lock extent file", file, errno);
      }
      extents.push_back(std::move(fd));
    }
  }
  *handle = std::make_unique<LocalDiskHandle>(std::move(disk.descriptor), std::move(extents));
  *info = std::move(disk.info);
  return {};
}

DiskError LocalDiskLibrary::Rename(const std::string& from, const std::string& to) {
  struct stat existing;
  if (::lstat(to.c_str(), &existing) == 0) {
    return Failure(DiskErrorCode::Exists, "Virtual disk " + to + " already exists");
  }
  // Held to the end: no holder may open the disk while its names move.
  OpenDisk disk;
  DiskError error = OpenDescriptor(from, Lock::Holder, true, &disk);
  if (!error.Ok()) return error;

  DiskInfo moved = disk.info;
  std::vector<std::string> linked;  // new names this call made, undone on failure
  auto undo = [&linked] {
    for (const std::string& name : linked) UnlinkQuietly(name);
  };
  for (size_t i = 0; i < moved.extents.size(); ++i) {
    const std::string oldName = DiskSibling(from, moved.extents[i].fileName);
    moved.extents[i].fileName = DiskExtentName(to, i);
    const std::string newName = DiskSibling(to, moved.extents[i].fileName);
    if (::link(oldName.c_str(), newName.c_str()) == 0) {
      linked.push_back(newName);
      continue;
    }
    const int cause = errno;
    struct stat oldFile, newFile;
    // The same file under the new name: left by a rename that died here.
    if (cause == EEXIST && ::stat(oldName.c_str(), &oldFile) == 0 &&
        ::stat(newName.c_str(), &newFile) == 0 && SameFile(oldFile, newFile)) {
      continue;
    }
    undo();
    return SystemError("link extent file " + oldName + " to", newName, cause);
  }
  if (const int cause = WriteNewFile(to, FormatDiskDescriptor(moved))) {
    undo();
    if (cause == EEXIST)
      return Failure(DiskErrorCode::Exists, "Virtual disk " + to + " already exists");
    return SystemError("write virtual disk descriptor", to, cause);
  }
  // From here the disk is whole under `to`; what is left of `from` is only
  // names to clean up.
  if (::unlink(from.c_str()) != 0) {
    return SystemError("remove virtual disk descriptor", from, errno);
  }
  for (size_t i = 0; i < moved.extents.size(); ++i) {
    const std::string oldName = DiskSibling(from, disk.info.extents[i].fileName);
    if (!SameEntry(oldName, DiskSibling(to, moved.extents[i].fileName))) UnlinkQuietly(oldName);
  }
  SyncDirectoryOf(from);
  ZEL_LOG_DEBUG("%s: Renamed virtual disk %s to %s", kTag, from.c_str(), to.c_str());
  return {};
}

DiskError LocalDiskLibrary::Grow(const std::string& path, uint64_t sectors) {
  OpenDisk disk;
  DiskError error = OpenDescriptor(path, Lock::Grower, true, &disk);
  if (!error.Ok()) return error;
  const uint64_t capacity = disk.info.capacitySectors;
  if (sectors <= capacity || sectors > kDiskMaxSectors) {
    return Failure(DiskErrorCode::BadParam, "Cannot grow virtual disk " + path + " of " +
                                                std::to_string(capacity) + " sectors to " +
                                                std::to_string(sectors) + " sectors");
  }
  DiskInfo grown = disk.info;
  grown.capacitySectors = sectors;
  DiskExtent& last = grown.extents.back();
  last.sizeSectors += sectors - capacity;
  const std::string text = FormatDiskDescriptor(grown);
  if (text.size() != disk.bytes) {
    return Failure(DiskErrorCode::BadDescriptor,
                   "Virtual disk descriptor " + path +
                       ": not in the fixed-width form that can be rewritten in place");
  }

  const std::string file = DiskSibling(path, last.fileName);
  {
    Fd extent(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    if (extent.get() < 0) return SystemError("open extent file", file, errno);
    const off_t want = static_cast<off_t>(last.sizeSectors * kDiskSectorBytes);
    struct stat status;
    if (::fstat(extent.get(), &status) != 0) return SystemError("read extent file", file, errno);
    // Never shorten: the file may be longer than its size already.
    if (status.st_size < want && ::ftruncate(extent.get(), want) != 0) {
      return SystemError("extend extent file", file, errno);
    }
  }
  // In place, never by rename: the holders' flocks are on this inode, and a
  // new inode under the name would let the next opener in beside them. The
  // write is one call of the descriptor's own length, so a reader sees the
  // old or the new capacity.
  const ssize_t written = ::pwrite(disk.descriptor.get(), text.data(), text.size(), 0);
  if (written != static_cast<ssize_t>(text.size()) || ::fsync(disk.descriptor.get()) != 0) {
    return SystemError("rewrite virtual disk descriptor", path, written < 0 ? errno : EIO);
  }
  ZEL_LOG_DEBUG("%s: Grew virtual disk %s to %llu sectors", kTag, path.c_str(),
                static_cast<unsigned long long>(sectors));
  return {};
}

DiskError LocalDiskLibrary::GetExtParam(const std::string& path, const std::string& name,
                                        std::string* value) {
  OpenDisk disk;
  DiskError error = OpenDescriptor(path, Lock::None, false, &disk);
  if (!error.Ok()) return error;
  const std::string& uuid = disk.info.objectUuid;
  StorageObjectRecord record;
  std::string why;
  const NOK_ReturnStatus status = ReadStorageObject(uuid, &record, &why);
  if (status == NOK_NOT_FOUND) {
    return Failure(DiskErrorCode::NotFound, "Virtual disk " + path + " (" + uuid +
                                                ") is not announced in the cluster directory");
  }
  if (status != NOK_OK) {
    return Failure(DiskErrorCode::IoError,
                   "Failed to read the record of virtual disk " + path + " (" + uuid + "): " + why);
  }
  const auto found = record.extParams.find(name);
  if (found == record.extParams.end()) {
    return Failure(DiskErrorCode::NotFound,
                   "Extended parameter " + name + " of virtual disk " + path + " is not set");
  }
  *value = found->second;
  return {};
}

DiskError LocalDiskLibrary::SetExtParam(const std::string& path, const std::string& name,
                                        const std::string& value) {
  if (name.empty()) {
    return Failure(DiskErrorCode::BadParam, "Empty extended parameter name for " + path);
  }
  OpenDisk disk;
  DiskError error = OpenDescriptor(path, Lock::None, false, &disk);
  if (!error.Ok()) return error;
  const std::string& uuid = disk.info.objectUuid;
  std::string why;
  const NOK_ReturnStatus status = UpdateStorageObject(
      uuid, [&](StorageObjectRecord* record) { record->extParams[name] = value; }, &why);
  if (status == NOK_OK) return {};
  const DiskErrorCode code = status == NOK_NOT_FOUND   ? DiskErrorCode::NotFound
                             : status == NOK_BAD_PARAM ? DiskErrorCode::BadParam
                                                       : DiskErrorCode::IoError;
  return Failure(code, "Failed to set extended parameter " + name + " of virtual disk " + path +
                           " (" + uuid + "): " + why);
}

}  // namespace platform
}  // namespace zel
