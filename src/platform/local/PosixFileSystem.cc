// The local file layer: open(2) with flock(2) advisory locks, mkstemp beside
// the target, fsync, rename(2) and an fsync of the directory (the halves
// of local/AtomicFile.h).
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <optional>
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

// Lock retries while waiting: soon after the file reported a close, then
// ever less often, down to the slow pace kept while nothing is reported.
constexpr uint64_t kFirstLockRecheckMicros = 100;
constexpr uint64_t kLastLockRecheckMicros = 25000;

// Reports when an open file is closed by anyone (its holder releasing a
// flock with its last descriptor), swapped away or removed. Each thread keeps
// its inotify instance for its life: closing one waits for a kernel grace
// period, longer than a whole lock hand-over.
class CloseWatch {
 public:
  // Watches the file that `fd` is open on for the object's life.
  explicit CloseWatch(int fd) : inotify_(ThreadInotify()) {
    if (inotify_ < 0) return;  // only the rechecks then
    char event[sizeof(inotify_event) + NAME_MAX + 1];
    while (::read(inotify_, event, sizeof event) > 0) {
    }
    // Through /proc: the file that `fd` is open on, even if its path now
    // names a newer one.
    const std::string self = "/proc/self/fd/" + std::to_string(fd);
    watch_ = ::inotify_add_watch(inotify_, self.c_str(),
                                 IN_CLOSE | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF);
  }
  ~CloseWatch() {
    if (watch_ >= 0) ::inotify_rm_watch(inotify_, watch_);
  }
  CloseWatch(const CloseWatch&) = delete;
  CloseWatch& operator=(const CloseWatch&) = delete;

  // Blocks for up to `micros`; true when the file reported something.
  bool Wait(uint64_t micros) {
    pollfd watched{inotify_, POLLIN, 0};
    const timespec timeout{time_t(micros / 1000000), long(micros % 1000000) * 1000};
    if (::ppoll(&watched, watch_ >= 0 ? 1 : 0, &timeout, nullptr) <= 0) return false;
    char event[sizeof(inotify_event) + NAME_MAX + 1];
    while (::read(inotify_, event, sizeof event) > 0) {
    }
    return true;
  }

 private:
  static int ThreadInotify() {
    struct Instance {
      const int fd = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
      ~Instance() {
        if (fd >= 0) ::close(fd);
      }
    };
    thread_local const Instance instance;
    return instance.fd;
  }

  const int inotify_;
  int watch_ = -1;
};

// Whether `clock` runs with real time, as the system clock does, rather than
// standing still until paused through, as a test clock does: whether it moves
// while a few microseconds pass.
bool RunsInRealTime(Clock& clock) {
  const uint64_t before = clock.NowMicros();
  const auto start = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - start < std::chrono::microseconds(3)) {
  }
  return clock.NowMicros() > before;
}

// Takes the flock `operation` on `fd`, waiting until `deadline` of the host
// clock while it is held elsewhere. flock(2) has no timeout, so the wait
// watches the file instead and retries the lock on each report. The report
// of a close comes just before the kernel drops the lock, hence the quick
// rechecks after one; a lock can also go without a close (LOCK_UN), hence
// the slow ones in between. A host clock that does not run in real time is
// paused through for the wait instead, so that it decides, as for every
// other pause, how long the wait really lasts.
FileIOResult AwaitLock(int fd, int operation, uint64_t deadline) {
  Clock& clock = CurrentHost().GetClock();
  std::optional<CloseWatch> watch;
  if (RunsInRealTime(clock)) watch.emplace(fd);
  uint64_t recheck = kLastLockRecheckMicros;
  for (;;) {
    if (::flock(fd, operation | LOCK_NB) == 0) return FILEIO_SUCCESS;
    if (errno != EWOULDBLOCK) return ResultFromErrno(errno);
    const uint64_t now = clock.NowMicros();
    if (now >= deadline) {
      errno = EWOULDBLOCK;
      return FILEIO_LOCK_FAILED;
    }
    if (!watch) {
      clock.SleepMicros(deadline - now);
    } else if (watch->Wait(std::min(deadline - now, recheck))) {
      recheck = kFirstLockRecheckMicros;
    } else {
      recheck = std::min(2 * recheck, kLastLockRecheckMicros);
    }
  }
}

class PosixFileSystem final : public FileSystem {
 public:
  FileIOResult Open(FileIODescriptor* file, const std::string& path, int access) override {
    const bool write = (access & FILEIO_OPEN_ACCESS_WRITE) != 0;
    const int lockOperation = (access & FILEIO_OPEN_EXCLUSIVE_LOCK) ? LOCK_EX
                              : (access & FILEIO_OPEN_LOCKED)     ? LOCK_SH
                                                                  : 0;
    const uint64_t waitMicros = uint64_t(FileIOLockWaitMillis(access)) * 1000;
    std::optional<uint64_t> deadline;  // on the host clock, from the first held lock
    // A writer swaps a new file into place while we may be waiting for the
    // old one's lock; a lock won on a replaced inode guards nothing, so
    // reopen until the locked file is the one the path names.
    for (;;) {
      const int fd = ::open(path.c_str(), (write ? O_RDWR : O_RDONLY) | O_CLOEXEC);
      if (fd < 0) return ResultFromErrno(errno);
      if (lockOperation == 0) return Adopt(file, fd, path);
      FileIOResult locked = FILEIO_SUCCESS;
      if (::flock(fd, lockOperation | LOCK_NB) != 0) {
        locked = ResultFromErrno(errno);
        if (locked == FILEIO_LOCK_FAILED && waitMicros > 0) {
          if (!deadline) deadline = CurrentHost().GetClock().NowMicros() + waitMicros;
          locked = AwaitLock(fd, lockOperation, *deadline);
        }
      }
      if (locked != FILEIO_SUCCESS) {
        const int error = errno;
        ::close(fd);
        errno = error;
        return locked;
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
