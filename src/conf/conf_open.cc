// Opening zel.conf under the advisory lock that every reader and writer of
// the file takes, the daemon among them. A held lock and a missing file are
// both passing states (a writer is saving, or the namespace is still being
// set up), so both are retried for a bounded time. A try at a held lock
// lasts 200 ms but ends as soon as the lock is free, so that writers queued
// on the file follow one another without idling.
#include <errno.h>

#include <algorithm>

#include "conf/reader.h"
#include "platform/Clock.h"

namespace {

constexpr int kLockRetryPauseMs = 200;
constexpr int kLockRetryMaxMs = 600000;
constexpr int kNotFoundRetryPauseMs = 2000;
constexpr int kNotFoundRetryMaxMs = 10000;

// Opens with `access`, retrying a held lock in tries of 200 ms for up to
// `timeout_ms` (at most 10 minutes) and a missing file every 2 s for up to
// `timeout_ms` (at most 10 s). Each kind is counted on its own; the open
// that finds its kind's retries used up ends the loop with its result, and
// so does not wait for the lock.
FileIOResult conf_file_open_with_retry(const char *path, FileIODescriptor *file, int access,
                                       int timeout_ms) {
  const int lock_limit = (std::min(timeout_ms, kLockRetryMaxMs) + kLockRetryPauseMs - 1) /
                         kLockRetryPauseMs;
  const int not_found_limit =
      (std::min(timeout_ms, kNotFoundRetryMaxMs) + kNotFoundRetryPauseMs - 1) /
      kNotFoundRetryPauseMs;
  int lock_retries = 0;
  int not_found_retries = 0;
  FileIOResult result;
  for (;;) {
    // A failed try with retries left has already taken its 200 ms.
    result = lock_retries < lock_limit
                 ? FileIO_OpenAwaitingLock(file, path, access, kLockRetryPauseMs)
                 : FileIO_Open(file, path, access);
    if (result == FILEIO_LOCK_FAILED && lock_retries < lock_limit) {
      lock_retries++;
    } else if (result == FILEIO_FILE_NOT_FOUND && not_found_retries < not_found_limit) {
      not_found_retries++;
      Util_Sleep(kNotFoundRetryPauseMs / 1000);
    } else {
      break;
    }
  }

  if (lock_retries > 0 || not_found_retries > 0) {
    // The caller reports the failed open with errno; logging must not change it.
    int error = errno;
    if (result != FILEIO_SUCCESS)
      log_warnx("open failed for %s after %d lock retries and %d not found retries due to "
                "error (%s).",
                path, lock_retries, not_found_retries, FileIO_MsgError(result));
    else
      log_debugx("open succeeded for %s after %d lock retries and %d not found retries", path,
                 lock_retries, not_found_retries);
    errno = error;
  }
  return result;
}

int conf_file_open_locked(const char *path, FileIODescriptor *file, int timeout_ms,
                          const char *lock, int access) {
  log_debugx("requesting %s lock for config file %s", lock, path);
  FileIOResult result = conf_file_open_with_retry(path, file, access, timeout_ms);
  if (result != FILEIO_SUCCESS) {
    log_warn("unable to open and lock config file %s", path);
    return result;
  }
  log_debugx("%s lock succeeded for config file %s", lock, path);
  return 0;
}

}  // namespace

int conf_file_open_share_lock(const char *path, FileIODescriptor *file, int timeout_ms) {
  return conf_file_open_locked(path, file, timeout_ms, "share",
                               FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_LOCKED);
}

int conf_file_open_exclusive_lock(const char *path, FileIODescriptor *file, int timeout_ms) {
  return conf_file_open_locked(path, file, timeout_ms, "exclusive",
                               FILEIO_OPEN_ACCESS_READ | FILEIO_OPEN_ACCESS_WRITE |
                                   FILEIO_OPEN_EXCLUSIVE_LOCK);
}
