#include "platform/FileIO.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdint>

#include "platform/Host.h"

namespace {
zel::platform::FileSystem& Files() { return zel::platform::CurrentHost().Files(); }
}  // namespace

void FileIO_Invalidate(FileIODescriptor* file) {
  file->fd = -1;
  file->path.clear();
}

bool FileIO_IsValid(const FileIODescriptor& file) { return file.fd >= 0; }

const char* FileIO_MsgError(FileIOResult result) {
  switch (result) {
    case FILEIO_SUCCESS: return "No error";
    case FILEIO_ERROR: return "Error";
    case FILEIO_LOCK_FAILED: return "File is locked by another process";
    case FILEIO_FILE_NOT_FOUND: return "Could not find file";
    case FILEIO_NO_PERMISSION: return "Insufficient permission to access file";
    case FILEIO_WRITE_ERROR_NOSPC: return "No space left on device";
  }
  return "Unknown error";
}

FileIOResult FileIO_Open(FileIODescriptor* file, const char* path, int access) {
  return Files().Open(file, path, access);
}
FileIOResult FileIO_OpenAwaitingLock(FileIODescriptor* file, const char* path, int access,
                                     int waitMs) {
  zel::platform::Clock& clock = zel::platform::CurrentHost().GetClock();
  const uint64_t start = clock.NowMicros();
  const FileIOResult result = Files().Open(file, path, access | FileIOLockWaitAccess(waitMs));
  if (result != FILEIO_LOCK_FAILED) return result;
  const uint64_t waited = clock.NowMicros() - start;
  const uint64_t wait = uint64_t(waitMs) * 1000;
  if (waited < wait) {
    // The caller reports the held lock with errno; the pause must not change it.
    const int error = errno;
    clock.SleepMicros(wait - waited);
    errno = error;
  }
  return result;
}
FileIOResult FileIO_Close(FileIODescriptor* file) { return Files().Close(file); }
FileIOResult FileIO_AtomicTempFile(const char* path, FileIODescriptor* temp) {
  return Files().AtomicTempFile(path, temp);
}
FileIOResult FileIO_Sync(const FileIODescriptor& file) { return Files().Sync(file); }
FileIOResult FileIO_AtomicUpdate(FileIODescriptor* temp, const char* path) {
  return Files().AtomicUpdate(temp, path);
}
FileIOResult FileIO_CloseAndUnlink(FileIODescriptor* file) { return Files().CloseAndUnlink(file); }

FileIOResult FileIO_CreateOwnerOnlyDirectories(const std::string& path) {
  for (std::string::size_type end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string prefix = path.substr(0, end);
    if (!prefix.empty() && ::mkdir(prefix.c_str(), 0700) == 0) {
      // mkdir is subject to the umask, which may take bits away but also
      // be looser than owner-only; chmod makes it exact.
      if (::chmod(prefix.c_str(), 0700) != 0) return FILEIO_ERROR;
    } else if (!prefix.empty() && errno != EEXIST) {
      return errno == EACCES || errno == EPERM ? FILEIO_NO_PERMISSION : FILEIO_ERROR;
    }
    if (end == std::string::npos) return FILEIO_SUCCESS;
  }
}

std::vector<std::string> FileIO_TempFilesOf(const std::string& path) {
  const std::string::size_type slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string prefix = path.substr(slash + 1) + ".tmp";
  std::vector<std::string> found;
  DIR* listing = ::opendir(directory.c_str());
  if (listing == nullptr) return found;
  while (const struct dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0) {
      found.push_back(directory + name);
    }
  }
  ::closedir(listing);
  return found;
}
