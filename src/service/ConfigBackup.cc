#include "service/ConfigBackup.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "cache/ConfigCache.h"
#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "conf/reader.h"
#include "directory/DirectoryEntries.h"
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

// The generation last copied to the backup file; kNoGeneration before the
// first copy. Written only by CopyZelConfWithLock, under the file's shared lock,
// which two threads may hold at once: hence atomic.
std::atomic<uint64_t> backupConfGenNumber{ConfigCache::kNoGeneration};

}  // namespace

bool IsBackupConfNeeded() {
  const uint64_t backedUp = backupConfGenNumber.load();
  return backedUp == ConfigCache::kNoGeneration ||
         ConfigCache::GetCachedConfGenNumber() > backedUp;
}

void BackupConfigFile() {
  if (IsRunningInOrvaMgmtd() && IsBackupConfNeeded()) CopyZelConfWithLock();
}

bool CopyZelConfWithLock() {
  try {
    ConfHandle handle(ConfHandle::kShareMode, Util::GetConfFilePath());
    const uint64_t generation = handle.GetCurrentGenerationNum();
    const uint64_t backedUp = backupConfGenNumber.load();
    if (backedUp != ConfigCache::kNoGeneration && backedUp >= generation) {
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

BackupSummary DescribeBackupConfigFile() {
  BackupSummary summary;
  summary.path = GetBackupConfFilePath();
  if (::access(summary.path.c_str(), R_OK) != 0) {
    throw OrvaCtlException("No backup copy of zel.conf at " + summary.path + ": " +
                           std::strerror(errno));
  }
  ConfHandle backup(ConfHandle::kShareMode, summary.path);
  summary.generation = backup.GetCurrentGenerationNum();
  const struct target* target;
  TAILQ_FOREACH(target, &backup.conf->conf_targets, t_next) {
    ++summary.targets;
    for (const struct lun* lun : target->t_luns) summary.luns += lun != nullptr;
  }
  return summary;
}

uint64_t RestoreBackupConfigFile() {
  const BackupSummary summary = DescribeBackupConfigFile();
  const std::string confPath = GetConfFilePath();
  FileIODescriptor current;
  if (conf_file_open_exclusive_lock(confPath.c_str(), &current, ConfHandle::kLockTimeoutMs) != 0) {
    throw OrvaCtlException("Parser: exclusive lock failed on " + confPath);
  }
  try {
    ConfHandle backup(ConfHandle::kShareMode, summary.path);
    uint64_t published = 0;
    if (ZeldGetConfigGenNumInBrix(&published) == NOK_OK) {
      backup.conf->conf_generation = std::max(backup.conf->conf_generation, published);
    }
    // The copy's graph, saved in the place of zel.conf: the swap replaces
    // the locked file, and waiting editors reopen the new one.
    backup.path = confPath;
    const uint64_t generation = SaveAndAnnounceConfig(backup);
    conf_close_file(&current);
    ZEL_LOG_WARNING("%s: Restored zel.conf from %s as generation %lu\n", kTag,
                    summary.path.c_str(), static_cast<unsigned long>(generation));
    return generation;
  } catch (...) {
    conf_close_file(&current);
    throw;
  }
}

void ForgetBackupConfGenNumber() { backupConfGenNumber.store(ConfigCache::kNoGeneration); }

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
