// The local file layer: open(2) with flock(2) advisory locks, mkstemp beside
// the target, fsync, rename(2) and an fsync of the directory (the halves
// of local/AtomicFile.h).
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/Host.h"
#include "platform/local/AtomicFile.h"

namespace zel {
namespace platform {
namespace {

FileIOResult ResultFromErrno(int error) {
  switch (error) {
    case 0: return FILEIO_SUCCESS;
    case ENOENT: return FILEIO_FILE_NOT_FOUND;
    case EACCES:
    case EPERM: return FILEIO_NO_PERMISSION;
    case ENOSPC: return FILEIO_WRITE_ERROR_NOSPC;
    case EWOULDBLOCK: return FILEIO_LOCK_FAILED;
    default: return FILEIO_ERROR;
  }
}

class PosixFileSystem final : public FileSystem {
 public:
  FileIOResult Open(FileIODescriptor* file, const std::string& path, int access) override {
    const bool write = (access & FILEIO_OPEN_ACCESS_WRITE) != 0;
    const int lockOperation = (access & FILEIO_OPEN_EXCLUSIVE_LOCK) ? LOCK_EX
                              : (access & FILEIO_OPEN_LOCKED)     ? LOCK_SH
                                                                  : 0;
    // A writer swaps a new file into place while we may be waiting for the
    // old one's lock; a lock won on a replaced inode guards nothing, so
    // reopen until the locked file is the one the path names.
    for (;;) {
      const int fd = ::open(path.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC);
      if (fd < 0) return ResultFromErrno(errno);
      if (lockOperation == 0) return Adopt(file, fd, path);
      if (::flock(fd, lockOperation | LOCK_NB) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return ResultFromErrno(error);
      }
      struct stat opened, current;
      if (::fstat(fd, &opened) != 0) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return ResultFromErrno(error);
      }
      if (::stat(path.c_str(), &current) == 0 && current.st_ino == opened.st_ino &&
          current.st_dev == opened.st_dev) {
        return Adopt(file, fd, path);
      }
      ::close(fd);
    }
  }

  FileIOResult Close(FileIODescriptor* file) override {
    if (file->fd < 0) return FILEIO_SUCCESS;
    const int rc = ::close(file->fd);
    const int error = errno;
    FileIO_Invalidate(file);
    errno = error;
    return rc == 0 ? FILEIO_SUCCESS : ResultFromErrno(error);
  }

  FileIOResult AtomicTempFile(const std::string& path, FileIODescriptor* temp) override {
    RemoveStaleTempFiles(path);
    int fd = -1;
    std::string tempPath;
    if (const int error = CreateTempFileBeside(path, &fd, &tempPath)) return ResultFromErrno(error);
    struct stat existing;
    if (::stat(path.c_str(), &existing) == 0) ::fchmod(fd, existing.st_mode & 07777);
    temp->fd = fd;
    temp->path = tempPath;
    return FILEIO_SUCCESS;
  }

  FileIOResult Sync(const FileIODescriptor& file) override {
    return ::fsync(file.fd) == 0 ? FILEIO_SUCCESS : ResultFromErrno(errno);
  }

  FileIOResult AtomicUpdate(FileIODescriptor* temp, const std::string& path) override {
    if (const int error = RenameDurably(temp->path, path)) return ResultFromErrno(error);
    ::close(temp->fd);
    FileIO_Invalidate(temp);
    return FILEIO_SUCCESS;
  }

  FileIOResult CloseAndUnlink(FileIODescriptor* file) override {
    const std::string path = file->path;
    const FileIOResult closed = Close(file);
    if (::unlink(path.c_str()) != 0) return ResultFromErrno(errno);
    return closed;
  }

 private:
  static FileIOResult Adopt(FileIODescriptor* file, int fd, const std::string& path) {
    file->fd = fd;
    file->path = path;
    return FILEIO_SUCCESS;
  }
};

}  // namespace

std::unique_ptr<FileSystem> NewPosixFileSystem() { return std::make_unique<PosixFileSystem>(); }

}  // namespace platform
}  // namespace zel
