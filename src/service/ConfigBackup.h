// This host's backup copy of zel.conf, kept by the management process
// whenever the cached configuration has moved past the last copy.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// True before the first backup of this process, and afterwards when the
// cached generation is later than the last one backed up (or nothing is
// cached, so the file must be asked).
bool IsBackupConfNeeded();

// Copies zel.conf to the backup path, only inside the management process
// and only when IsBackupConfNeeded.
void BackupConfigFile();

// Copies zel.conf to the backup path under the file's shared lock, unless
// this generation or a later one was copied already (a warning). False,
// after logging, when the file cannot be read or copied.
bool CopyZelConfWithLock();

// What the local backup copy holds.
struct BackupSummary {
  std::string path;
  uint64_t generation = 0;
  int targets = 0;
  int luns = 0;
};

// Reads the local backup copy. Throws OrvaCtlException when there is none
// or it does not read as a configuration.
BackupSummary DescribeBackupConfigFile();

// Puts the local backup copy in place of zel.conf, under zel.conf's
// exclusive lock (the file it replaces need not read at all), with a
// generation above both the copy's and the published one, so that every
// host reads it, and announces it. Returns the new generation.
uint64_t RestoreBackupConfigFile();

// Forgets the last backup, as at the start of the process: the next
// BackupConfigFile copies whatever the generation.
void ForgetBackupConfGenNumber();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
