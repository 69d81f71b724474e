// The file layer: opens under advisory locks, atomic temporary files, sync
// and swap. Call sites use the FileIO_* functions below, which dispatch to
// the selected host's FileSystem.
#pragma once

#include <string>
#include <vector>

enum FileIOResult {
  FILEIO_SUCCESS = 0,
  FILEIO_ERROR,               // any other failure; errno tells which
  FILEIO_LOCK_FAILED,         // the lock is held by another open file
  FILEIO_FILE_NOT_FOUND,
  FILEIO_NO_PERMISSION,
  FILEIO_WRITE_ERROR_NOSPC,
};

// Access word bits. 0x21 opens for reading under a shared lock, 0x2003 for
// reading and writing under an exclusive lock.
constexpr int FILEIO_OPEN_ACCESS_READ = 0x0001;
constexpr int FILEIO_OPEN_ACCESS_WRITE = 0x0002;
constexpr int FILEIO_OPEN_LOCKED = 0x0020;
constexpr int FILEIO_OPEN_EXCLUSIVE_LOCK = 0x2000;

// Bits 16-30 of the access word: how long an open may wait for a lock held
// through another open file, in milliseconds of the host clock (at most
// FILEIO_OPEN_LOCK_WAIT_MAX_MS). Without them the lock is tried once.
constexpr int FILEIO_OPEN_LOCK_WAIT_SHIFT = 16;
constexpr int FILEIO_OPEN_LOCK_WAIT_MAX_MS = 0x7fff;
constexpr int FileIOLockWaitAccess(int milliseconds) {
  return (milliseconds & FILEIO_OPEN_LOCK_WAIT_MAX_MS) << FILEIO_OPEN_LOCK_WAIT_SHIFT;
}
constexpr int FileIOLockWaitMillis(int access) {
  return (access >> FILEIO_OPEN_LOCK_WAIT_SHIFT) & FILEIO_OPEN_LOCK_WAIT_MAX_MS;
}

struct FileIODescriptor {
  int fd = -1;
  std::string path;
};

namespace zel {
namespace platform {

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Opens an existing file. With a lock bit the lock is tried once, without
  // waiting, unless the access word carries a lock wait (FileIOLockWaitAccess):
  // a held lock is then waited for, and the open returns as soon as the lock
  // is granted, or when the wait has run out on the host clock. The wait is
  // real only while that clock runs in real time; a clock that does not (a
  // test clock) is paused through for it instead. A backend, or a test
  // double, may ignore the wait and fail at once: FileIO_OpenAwaitingLock
  // makes up for that. A lock still held through another open file gives
  // FILEIO_LOCK_FAILED.
  // A locked open always refers to the file currently at `path`, never to
  // one that a concurrent swap has just replaced. Sets errno on failure.
  virtual FileIOResult Open(FileIODescriptor* file, const std::string& path, int access) = 0;

  // Closes and releases the lock. The descriptor becomes invalid either way.
  virtual FileIOResult Close(FileIODescriptor* file) = 0;

  // Creates an empty, writable temporary file in the directory of `path`,
  // with the permission bits of `path` when it exists. The caller holds the
  // exclusive lock of `path`, so temporary files of `path` already there
  // were left by a save that died: they are removed first (they may hold
  // secrets).
  virtual FileIOResult AtomicTempFile(const std::string& path, FileIODescriptor* temp) = 0;

  virtual FileIOResult Sync(const FileIODescriptor& file) = 0;

  // Renames `temp` over `path` and syncs the directory, so that after
  // success either the old or the new file is found there after a crash,
  // never a partial one. On success `temp` is closed and invalidated; on
  // failure it is left open for the caller to remove.
  virtual FileIOResult AtomicUpdate(FileIODescriptor* temp, const std::string& path) = 0;

  // Closes and removes the file.
  virtual FileIOResult CloseAndUnlink(FileIODescriptor* file) = 0;
};

}  // namespace platform
}  // namespace zel

void FileIO_Invalidate(FileIODescriptor* file);
bool FileIO_IsValid(const FileIODescriptor& file);
const char* FileIO_MsgError(FileIOResult result);

FileIOResult FileIO_Open(FileIODescriptor* file, const char* path, int access);
// One try at a lock that another open file may hold: opens with a lock wait
// of `waitMs` and, when the lock is still held, returns FILEIO_LOCK_FAILED only
// once `waitMs` of the host clock have passed since the call, pausing through
// the clock for whatever part the file layer did not wait itself. So a retry
// loop keeps the length of its tries, and each try ends as soon as the lock
// is free. Other results return at once.
FileIOResult FileIO_OpenAwaitingLock(FileIODescriptor* file, const char* path, int access,
                                     int waitMs);
FileIOResult FileIO_Close(FileIODescriptor* file);
FileIOResult FileIO_AtomicTempFile(const char* path, FileIODescriptor* temp);
FileIOResult FileIO_Sync(const FileIODescriptor& file);
FileIOResult FileIO_AtomicUpdate(FileIODescriptor* temp, const char* path);
FileIOResult FileIO_CloseAndUnlink(FileIODescriptor* file);

// Creates `path` and its missing parents as owner-only (0700) directories,
// whatever the process's umask; existing ones are left as they are.
// FILEIO_SUCCESS, or the failure with errno set. Not a host service: every
// backend keeps its files in real directories.
FileIOResult FileIO_CreateOwnerOnlyDirectories(const std::string& path);

// The temporary files of `path` that are there now: `path` + ".tmp" + six
// characters, as AtomicTempFile names them. Only a save that died leaves
// one behind a save holding the file's exclusive lock.
std::vector<std::string> FileIO_TempFilesOf(const std::string& path);
