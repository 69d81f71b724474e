// The one way the class layers touch zel.conf. A handle lives for one
// operation: construction opens the file under a shared lock (readers) or an
// exclusive lock (mode 2, editors) and parses it; the caller queries or edits
// `conf`, optionally saves; destruction releases the lock. The file stays
// locked for the handle's whole life.
//
// Lock order: the file's advisory lock first, then _fileLock around the
// parse only. Never build a handle while holding the configuration cache's
// lock.
#pragma once

#include <cstdio>
#include <cstdint>
#include <mutex>
#include <string>

#include "conf/conf.h"
#include "platform/FileIO.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

class ConfHandle {
 public:
  static constexpr int kExclusiveMode = 2;
  static constexpr int kShareMode = 1;
  static constexpr int kLockTimeoutMs = 300000;

  // Opens `filePath` (this host's zel.conf is Util::GetConfFilePath(); tools
  // also check or format a file an operator names). Throws
  // OrvaCtlException; on failure nothing stays locked or allocated.
  ConfHandle(int mode, const std::string& filePath);
  ~ConfHandle();
  ConfHandle(const ConfHandle&) = delete;
  ConfHandle& operator=(const ConfHandle&) = delete;

  uint64_t GetCurrentGenerationNum() const;

  // Saves `conf` atomically with the generation raised by one and returns
  // the new generation. After a failure the file and its generation are as
  // before, but the in-memory generation is already raised: discard the
  // handle.
  uint64_t WriteConfFile();

  // Writes the same text to `backupPath`, this host's local backup copy
  // (generation unchanged).
  void UpdateBackupConfigFile(const std::string& backupPath);

  // Prints the whole graph in the file's fixed order and spacing.
  void _WriteConfigToFile(FILE* out);

  void InitConfHandle(const std::string& filePath);
  void OpenAndLockConfFile();
  void ReadConfFile();
  void CloseAndUnlockConfFile();

  struct conf* conf = nullptr;  // owned
  std::string path;
  FileIODescriptor file;
  std::string lock_type;
  int mode;

  // The generated reader keeps global state: every parse in the process
  // runs under this lock.
  static std::mutex _fileLock;
};

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
