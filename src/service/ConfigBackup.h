// This host's backup copy of zel.conf, kept by the management process
// whenever the cached configuration has moved past the last copy.
#pragma once

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

// Forgets the last backup, as at the start of the process: the next
// BackupConfigFile copies whatever the generation.
void ForgetBackupConfGenNumber();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
