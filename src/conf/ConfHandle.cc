#include "conf/ConfHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "conf/reader.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

std::mutex ConfHandle::_fileLock;

ConfHandle::ConfHandle(int mode, const std::string& filePath) : mode(mode) {
  try {
    InitConfHandle(filePath);
    OpenAndLockConfFile();
    ReadConfFile();
  } catch (...) {
    if (conf != nullptr) {
      conf_delete(conf);
      conf = nullptr;
    }
    if (FileIO_IsValid(file)) CloseAndUnlockConfFile();
    throw;
  }
}

ConfHandle::~ConfHandle() {
  if (conf != nullptr) conf_delete(conf);
  CloseAndUnlockConfFile();
}

void ConfHandle::InitConfHandle(const std::string& filePath) {
  path = filePath;
  if (path.empty()) throw OrvaCtlException("Parser: conf path uninitialized");
  FileIO_Invalidate(&file);
}

void ConfHandle::OpenAndLockConfFile() {
  int result;
  if (mode == kExclusiveMode) {
    lock_type = "exclusive";
    result = conf_file_open_exclusive_lock(path.c_str(), &file, kLockTimeoutMs);
  } else {
    lock_type = "share";
    result = conf_file_open_share_lock(path.c_str(), &file, kLockTimeoutMs);
  }
  if (result != 0) throw OrvaCtlException("Parser: " + lock_type + " lock failed on " + path);
}

void ConfHandle::ReadConfFile() {
  std::unique_lock<std::mutex> parse(_fileLock);
  try {
    conf = conf_new_from_file(&file, nullptr);
  } catch (...) {
    ZeldCleanConf();
    throw;
  }
  parse.unlock();
  if (conf == nullptr) throw OrvaCtlException("Failed to read conf file: " + path);
}

void ConfHandle::CloseAndUnlockConfFile() { conf_close_file(&file); }

uint64_t ConfHandle::GetCurrentGenerationNum() const { return conf->conf_generation; }

namespace {

// Removes the temporary file on every way out of a save, unless the swap
// consumed it.
class TempFileGuard {
 public:
  explicit TempFileGuard(FileIODescriptor* temp) : temp_(temp) {}
  ~TempFileGuard() {
    if (FileIO_IsValid(*temp_) && FileIO_CloseAndUnlink(temp_) != FILEIO_SUCCESS) {
      ZEL_LOG_WARNING("%s: Failed to remove temp config file\n", "Parser");
    }
  }

 private:
  FileIODescriptor* temp_;
};

}  // namespace

uint64_t ConfHandle::WriteConfFile() {
  FileIODescriptor temp;
  FileIO_Invalidate(&temp);
  if (FileIO_AtomicTempFile(path.c_str(), &temp) != FILEIO_SUCCESS) {
    throw OrvaCtlException("Failed to create temp config file");
  }
  TempFileGuard removeTemp(&temp);

  FILE* out = fdopen(dup(temp.fd), "w");
  if (out == nullptr) throw OrvaCtlException("Failed to create temp config file");
  conf->conf_generation += 1;
  try {
    _WriteConfigToFile(out);
  } catch (...) {
    fclose(out);
    throw;
  }
  // A short write must never be swapped in: it would be a partial file.
  const bool written = ferror(out) == 0;
  if (fclose(out) != 0 || !written) throw OrvaCtlException("Failed to write temp config file");

  if (FileIO_Sync(temp) != FILEIO_SUCCESS) throw OrvaCtlException("Failed to sync temp config");
  if (FileIO_AtomicUpdate(&temp, path.c_str()) != FILEIO_SUCCESS) {
    throw OrvaCtlException("Failed to swap config and temp config");
  }
  return conf->conf_generation;
}

void ConfHandle::UpdateBackupConfigFile(const std::string& backupPath) {
  // The copy holds the Base64 secrets: owner-only, whatever the umask.
  FileIO_CreateOwnerOnlyDirectories(std::filesystem::path(backupPath).parent_path().string());
  const int fd = open(backupPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FILE* out = fd < 0 || fchmod(fd, 0600) != 0 ? nullptr : fdopen(fd, "w");
  if (out == nullptr) {
    if (fd >= 0) close(fd);
    throw OrvaCtlException(std::string("Failed to open backup config file: ") + strerror(errno));
  }
  try {
    _WriteConfigToFile(out);
  } catch (...) {
    fclose(out);
    throw;
  }
  if (fclose(out) != 0) {
    throw OrvaCtlException(std::string("Failed to close backup config file: ") + strerror(errno));
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
