// The facade's LUN operations: validation first, then the disk and zel.conf,
// with the new disk removed again when the file could not take the LUN.
#include <boost/thread/locks.hpp>

#include "conf/ConfHandle.h"
#include "edit/LunEditor.h"
#include "edit/LunValidation.h"
#include "edit/TargetEditor.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/VolLib.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "cache/ConfigCache.h"
#include "cache/ConfigSave.h"
#include "storage/DatastoreLayout.h"
#include "storage/LunDisks.h"
#include "storage/LunIdentity.h"
#include "storage/NamespaceDirs.h"
#include "storage/Policy.h"
#include "storage/Units.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "OrvaIscsiTargetImpl";
constexpr int kLunUpdateAttempts = 5;
constexpr unsigned kLunUpdatePauseSeconds = 5;

// A move whose save failed leaves the disk in the new target's directory
// while the file still names the old place: put it back.
void MoveDiskBack(const std::string& movedTo, const std::string& original) {
  const VolLibError back = VolLib_Rename(movedTo, original, 0);
  if (!back.Ok()) {
    ZEL_LOG_ERROR("%s: Failed to move LUN disk %s back to %s: %s\n", kTag, movedTo.c_str(),
                  original.c_str(), VolLib_Err2String(back).c_str());
  }
}

}  // namespace

void OrvaIscsiTargetImpl::AddLun(Api::LunInfo& lun) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  ZEL_LOG_INFO("%s: Creating LUN with id %d at target %s\n", kTag, lun.id, lun.target.c_str());
  Util::VerifyLunParams(lun, true);
  if (_lunNaaEnabled) lun.naa = Util::GenerateDiskNaa();
  const uint64_t sectors = Util::GetValidatedLunSize(lun.size);
  const std::string targetUuid = Util::GetTargetInfoFromConfFile(lun.target).uuid;
  Util::CreateLun(targetUuid, std::to_string(lun.id), sectors, lun.policy, lun.path, lun.uuid);
  lun.sizeSectors = sectors;
  bool rollback = true;
  try {
    Parser::AddNewLunToConfFile(lun, rollback);
  } catch (const OrvaCtlException& e) {
    if (!rollback) throw;
    ZEL_LOG_WARNING("%s: Create LUN with id %d at target %s failed with %s, rollback by deleting "
                    "qdsk for the LUN\n",
                    kTag, lun.id, lun.target.c_str(), e.GetMessage().c_str());
    Util::RemoveLun(static_cast<unsigned>(lun.id), lun.path, targetUuid);
    throw;
  }
}

void OrvaIscsiTargetImpl::RemoveLun(unsigned lunId, const std::string& target) {
  ZEL_LOG_INFO("%s: Removing LUN id %d from target %s\n", kTag, lunId, target.c_str());
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  std::string path;
  Util::GetLunPathById(target, static_cast<int>(lunId), path);
  if (!Util::PathExists(path)) {
    ZEL_LOG_WARNING("%s: Removing LUN id %d from target \"%s\" qdsk file \"%s\" not found, try "
                    "remove related entry from zel.conf\n",
                    kTag, lunId, target.c_str(), path.c_str());
    Parser::RemoveLunFromConfFile(static_cast<int>(lunId), target);
    return;
  }
  // Offline first: the owner's daemon lets go of an offline LUN's disk,
  // which is what the removal waits for.
  Api::LunInfo offline;
  offline.id = static_cast<int32_t>(lunId);
  offline.target = target;
  offline.status = "offline";
  UpdateLun(offline, -1, "", false);
  try {
    Util::RemoveLun(lunId, path, Util::GetTargetInfoFromConfFile(target).uuid);
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException(e.GetMessage() + ": LUN has become offline.");
  }
  Parser::RemoveLunFromConfFile(static_cast<int>(lunId), target);
}

void OrvaIscsiTargetImpl::UpdateLun(Api::LunInfo& lun, int newId, const std::string& newTarget,
                                    bool takeLock) {
  ZEL_LOG_INFO("%s: Updating LUN with id %d at target %s size in sectors: %s, with policy %s, "
               "newId: %d, newTarg: %s, alias %s, status: %s.\n",
               kTag, lun.id, lun.target.c_str(), lun.size.c_str(), lun.policy.c_str(), newId,
               newTarget.c_str(), lun.alias.c_str(), lun.status.c_str());
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex, boost::defer_lock);
  if (takeLock) config.lock();
  CheckIscsiServiceStatus(false);
  Util::VerifyLunParams(lun, false);
  std::string originalPath;
  if (!lun.policy.empty() || !newTarget.empty()) {
    Util::GetLunPathById(lun.target, lun.id, originalPath);
  }
  if (!lun.policy.empty()) Util::UpdateLunPolicy(originalPath, lun.policy);

  for (int attempt = 0;;) {
    bool retry = false;
    bool unsaved = true;
    lun.path.clear();
    try {
      ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
      Parser::UpdateLun(lun, newId, newTarget, handle, retry);
      if (retry) {
        handle.WriteConfFile();
      } else {
        Util::SaveAndAnnounceConfig(handle, &unsaved);
      }
    } catch (const OrvaCtlException&) {
      // lun.path is set once the disk has moved.
      if (unsaved && !lun.path.empty()) MoveDiskBack(lun.path, originalPath);
      throw;
    }
    if (!retry) break;
    if (++attempt == kLunUpdateAttempts) {
      throw OrvaCtlException("LUN update still failed after " +
                             std::to_string(kLunUpdateAttempts) + " retries.");
    }
    Util_Sleep(kLunUpdatePauseSeconds);
  }
  ConfigCache::CleanupCachedConfig();
  if (!lun.size.empty()) Parser::CheckResizeDone(lun, newId);
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
