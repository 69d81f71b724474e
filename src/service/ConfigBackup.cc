#include "service/ConfigBackup.h"

#include <atomic>
#include <limits>

#include "cache/ConfigCache.h"
#include "conf/ConfHandle.h"
#include "platform/Log.h"
#include "service/ServiceConfig.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";
constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();

// The generation last copied to the backup file; kNone before the first
// copy. Written only by CopyZelConfWithLock, under the file's shared lock,
// which two threads may hold at once: hence atomic.
std::atomic<uint64_t> backupConfGenNumber{kNone};

}  // namespace

bool IsBackupConfNeeded() {
  const uint64_t backedUp = backupConfGenNumber.load();
  return backedUp == kNone || ConfigCache::GetCachedConfGenNumber() > backedUp;
}

void BackupConfigFile() {
  if (IsRunningInOrvaMgmtd() && IsBackupConfNeeded()) CopyZelConfWithLock();
}

bool CopyZelConfWithLock() {
  try {
    ConfHandle handle(ConfHandle::kShareMode, Util::GetConfFilePath());
    const uint64_t generation = handle.GetCurrentGenerationNum();
    const uint64_t backedUp = backupConfGenNumber.load();
    if (backedUp != kNone && backedUp >= generation) {
      ZEL_LOG_WARNING("%s: backup zel.conf gen: %ld, global zel.conf gen: %ld, skip backup\n",
                      kTag, static_cast<long>(backedUp), static_cast<long>(generation));
      return true;
    }
    handle.UpdateBackupConfigFile(GetBackupConfFilePath());
    backupConfGenNumber.store(generation);
    return true;
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to copy file from %s due to: %s\n", kTag,
                  GetConfFilePath().c_str(), e.GetMessage().c_str());
    return false;
  }
}

void ForgetBackupConfGenNumber() { backupConfGenNumber.store(kNone); }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
