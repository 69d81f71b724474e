#include "edit/LunEditor.h"

#include <cstring>

#include "cache/ConfigSave.h"
#include "edit/LunValidation.h"
#include "edit/ParserQueries.h"
#include "edit/TargetEditor.h"
#include "platform/FeatureGates.h"
#include "platform/Log.h"
#include "platform/VolLib.h"
#include "storage/DatastoreLayout.h"
#include "storage/LunPaths.h"
#include "storage/Units.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::LunInfo;

namespace Parser {
namespace {

const char kTag[] = "Parser";
constexpr uint64_t kSectorBytes = 512;
constexpr uint64_t kSectorsPerMiB = (1u << 20) / kSectorBytes;
// Far beyond any datastore this service is deployed on, and well inside
// what the disk format and 64-bit byte offsets can address.
constexpr uint64_t kMaxLunSectors = (uint64_t{64} << 40) / kSectorBytes;
constexpr const char* kMaxLunSizeText = "64TiB";

std::string Text(const char* value) { return value == nullptr ? std::string() : value; }

struct lun* FindLun(struct target* target, int id) {
  if (id < 0 || id >= ZELD_MAX_LUNS || target->t_luns[id] == nullptr) {
    throw OrvaCtlException("LUN id " + std::to_string(id) + " not found for target " +
                           Text(target->t_alias));
  }
  return target->t_luns[id];
}

void SetLunOption(struct lun* lun, const char* name, const std::string& value) {
  struct option* option = option_find(&lun->l_options, name);
  if (option != nullptr) {
    option_set(option, value.c_str());
  } else {
    option_new(&lun->l_options, name, value.c_str());
  }
}

int CountLuns(const struct conf* conf) {
  int count = 0;
  const struct lun* lun;
  TAILQ_FOREACH(lun, &conf->conf_luns, l_next) ++count;
  return count;
}

// The file names disks relative to the datastore root, so that it holds
// on every host whatever the mount point there.
std::string RelativeDiskPath(const std::string& absolute) {
  const std::string root = Util::GetNamespaceRoot() + "/";
  if (absolute.compare(0, root.size(), root) != 0) {
    throw OrvaCtlException("LUN disk " + absolute + " is not on the datastore " + root);
  }
  return absolute.substr(root.size());
}

std::string AbsoluteDiskPath(const struct lun* lun) {
  std::string path = GetLunAbsPath(lun);
  if (path.empty()) throw OrvaCtlException("LUN " + Text(lun->l_name) + " names no usable disk path");
  return path;
}

// Runs one step of an update, prefixing its refusal with what was tried.
template <typename Step>
void Wrapped(const char* context, Step step) {
  try {
    step();
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException(context + e.GetMessage());
  }
}

void UpdateLunAlias(struct lun* lun, const std::string& alias) {
  SetLunOption(lun, "lun-alias", alias);
}

void UpdateLunStatus(struct lun* lun, const std::string& status) {
  if (status != "online" && status != "offline") {
    throw OrvaCtlException("Invalid LUN status '" + status + "'. Valid statuses: online, offline");
  }
  SetLunOption(lun, "status", status);
}

void UpdateLunId(struct target* target, struct lun* lun, int newId) {
  if (!lun_is_offline(lun)) {
    throw OrvaCtlException(
        "Changing the ID of an online LUN is not allowed. Bring the LUN offline first.");
  }
  Util::VerifyLunId(newId);
  if (target->t_luns[newId] != nullptr) {
    throw OrvaCtlException("LUN with id " + std::to_string(newId) + " already exists.");
  }
  target->t_luns[lun->l_zeld_lun] = nullptr;
  target->t_luns[newId] = lun;
  lun_set_zeld_lun(lun, static_cast<uint32_t>(newId));
}

// Moves the LUN's disk into the other target's namespace directory and the
// LUN into the same slot of that target. Returns the disk's new path.
std::string MoveLunToNewTarget(struct target* from, struct target* to, struct lun* lun) {
  if (!lun_is_offline(lun)) {
    throw OrvaCtlException(
        "Moving an online LUN to new target is not allowed. Bring the LUN offline first.");
  }
  const uint32_t id = lun->l_zeld_lun;
  if (to->t_luns[id] != nullptr) {
    throw OrvaCtlException("LUN id " + std::to_string(id) + " already exists for target " +
                           Text(to->t_alias));
  }
  const std::string oldPath = AbsoluteDiskPath(lun);
  lun_modify_target_path(lun, to);
  const std::string newPath = AbsoluteDiskPath(lun);
  const VolLibError moved = VolLib_Rename(oldPath, newPath, 0);
  if (!moved.Ok()) {
    lun_modify_target_path(lun, from);
    throw OrvaCtlException("Failed to move src QDSK: " + VolLib_Err2String(moved));
  }
  from->t_luns[id] = nullptr;
  to->t_luns[id] = lun;
  ZEL_LOG_INFO("%s: Successfully moved %s to new path %s\n", kTag, oldPath.c_str(),
               newPath.c_str());
  return newPath;
}

void GrowLunSize(struct lun* lun, const std::string& size) {
  const uint64_t oldSectors = lun->l_size;
  const uint64_t newSectors = Util::GetValidatedLunSize(size);
  if (newSectors <= oldSectors) {
    throw OrvaCtlException(
        "Shrinking the LUN or changing it to the same size is not supported: old size = " +
        std::to_string(oldSectors / kSectorsPerMiB) +
        "MiB, new size = " + std::to_string(newSectors / kSectorsPerMiB) + "MiB.");
  }
  if (newSectors > kMaxLunSectors) {
    throw OrvaCtlException(
        std::string("Resize capacity greater than max supported size for a LUN, Max LUN size = ") +
        kMaxLunSizeText);
  }
  const bool online = !lun_is_offline(lun);
  if (online && !Util::IsZelFeatureEnabled("ZelOnlineResize")) {
    throw OrvaCtlException(
        "Growing size of an online LUN is not allowed. Bring the LUN offline first.");
  }
  if (online && !Util::ZelCheckDiskFormatVersion(Util::kDiskFormatOnlineResize)) {
    throw OrvaCtlException(
        "Some hosts didn't finish Disk Format upgrade of Orva 6.7u3, reject online resizing until "
        "upgrade completed.");
  }
  const std::string path = AbsoluteDiskPath(lun);
  // A disk that already has the size (a growth whose save was lost) is
  // only recorded.
  if (GetZelLunActualSize(lun) < newSectors * kSectorBytes) {
    const VolLibError grown = VolLib_Grow(path, newSectors);
    if (!grown.Ok()) throw OrvaCtlException("VolLib_Grow failed: " + VolLib_Err2String(grown));
  }
  lun_set_size(lun, newSectors);
  ZEL_LOG_INFO("%s: GrowSize %s, old: %lu, new: %lu on LUN(%s)\n", kTag,
               online ? "online" : "offline", static_cast<unsigned long>(oldSectors),
               static_cast<unsigned long>(newSectors), path.c_str());
}

}  // namespace

void AddNewLunToConfFile(LunInfo lun, bool& rollback) {
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct target* target = FindTargetByAlias(handle.conf, lun.target);
    int id = lun.id;
    if (id < 0) {
      id = Util::GenerateLunIdForTarget(target);
    } else if (target->t_luns[id] != nullptr) {
      throw OrvaCtlException("LUN id " + std::to_string(id) + " already exists for target " +
                             lun.target);
    }
    if (CountLuns(handle.conf) > kMaxLunsPerCluster - 1) {
      throw OrvaCtlException("Limit on total number of LUNs (" +
                             std::to_string(kMaxLunsPerCluster) + ") has been reached.");
    }
    char name[256];
    zeld_target_lun_name(name, sizeof name, target, static_cast<uint32_t>(id));
    struct lun* entry = lun_new(handle.conf, name);
    if (entry == nullptr) throw OrvaCtlException("Failed to create LUN " + std::string(name));
    lun_set_zeld_lun(entry, static_cast<uint32_t>(id));
    lun_set_size(entry, lun.sizeSectors);
    lun_set_path(entry, RelativeDiskPath(lun.path).c_str());
    lun_set_backend(entry, "qdsk");
    target->t_luns[id] = entry;
    if (!lun.alias.empty()) SetLunOption(entry, "lun-alias", lun.alias);
    if (!lun.naa.empty()) SetLunOption(entry, "naa", lun.naa);
    Util::SaveAndAnnounceConfig(handle, &rollback);
    ZEL_LOG_INFO("%s: Added LUN %d for target %s successfully.\n", kTag, id, lun.target.c_str());
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to add LUN to conf file with error %s\n", kTag,
                  e.GetMessage().c_str());
    throw;
  }
}

void RemoveLunFromConfFile(int id, const std::string& targetAlias) {
  ZEL_LOG_INFO("%s: Removing LUN %d for target %s from config file\n", kTag, id,
               targetAlias.c_str());
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct target* target = FindTargetByAlias(handle.conf, targetAlias);
    if (id < 0 || id >= ZELD_MAX_LUNS || target->t_luns[id] == nullptr) {
      throw OrvaCtlException("Failed to find LUN " + std::to_string(id) + " for target " +
                             targetAlias);
    }
    struct lun* lun = target->t_luns[id];
    ZEL_LOG_INFO("%s: removed lun path %s\n", kTag, Text(lun->l_path).c_str());
    lun_delete(lun);
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to remove LUN from conf file with error %s\n", kTag,
                  e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Removed LUN %d for target %s from config file\n", kTag, id,
               targetAlias.c_str());
}

void UpdateLun(LunInfo& lun, int newId, const std::string& newTarget, ConfHandle& handle,
               bool& retry) {
  struct target* target = FindTargetByAlias(handle.conf, lun.target);
  struct lun* entry = FindLun(target, lun.id);
  if (!lun.size.empty() && GetZelLunActualSize(entry) < entry->l_size * kSectorBytes) {
    ZEL_LOG_INFO("%s: LUN %d of target %s has not reached its configured size yet\n", kTag,
                 lun.id, lun.target.c_str());
    retry = true;
    return;
  }
  if (!lun.alias.empty()) {
    Wrapped("Failed to update LUN alias: ", [&] { UpdateLunAlias(entry, lun.alias); });
  }
  if (!lun.status.empty()) {
    Wrapped("Failed to update LUN status: ", [&] { UpdateLunStatus(entry, lun.status); });
  }
  if (newId != -1) {
    ZEL_LOG_INFO("%s: For target '%s' updating id form %d to %d\n", kTag, lun.target.c_str(),
                 lun.id, newId);
    Wrapped("Failed to update LUN ID: ", [&] { UpdateLunId(target, entry, newId); });
  }
  if (!newTarget.empty()) {
    Wrapped("Failed to move LUN to new target: ", [&] {
      if (newTarget == lun.target) {
        throw OrvaCtlException("New target: " + newTarget + ", same as original: " + lun.target);
      }
      ZEL_LOG_INFO("%s: Move LUN %d from target '%s' to new Target '%s'\n", kTag,
                   static_cast<int>(entry->l_zeld_lun), lun.target.c_str(), newTarget.c_str());
      lun.path = MoveLunToNewTarget(target, FindTargetByAlias(handle.conf, newTarget), entry);
      lun.target = newTarget;
    });
  }
  if (!lun.size.empty()) {
    Wrapped("Failed to grow LUN size: ", [&] { GrowLunSize(entry, lun.size); });
  }
}

void CheckResizeDone(const LunInfo& lun, const int& id) {
  const int number = id == -1 ? lun.id : id;
  uint64_t configured;
  uint64_t actual;
  {
    ConfHandle handle(ConfHandle::kShareMode, Util::GetConfFilePath());
    struct lun* entry = FindLun(FindTargetByAlias(handle.conf, lun.target), number);
    configured = entry->l_size;
    actual = GetZelLunActualSize(entry);
  }
  if (actual >= configured * kSectorBytes) {
    ZEL_LOG_INFO("%s: Async resize completed for LUN: %s\n", kTag, lun.path.c_str());
    return;
  }
  LunInfo moved = lun;
  moved.id = number;
  RollbackConfigLunSize(moved, number, actual / kSectorBytes);
  throw OrvaCtlException("Cannot complete resizing, no enough space on Orva Datastore");
}

void RollbackConfigLunSize(const LunInfo& lun, const int& id, const unsigned long& oldSize) {
  ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
  struct target* target = FindTargetByAlias(handle.conf, lun.target);
  if (id < 0 || id >= ZELD_MAX_LUNS || target->t_luns[id] == nullptr) {
    throw OrvaCtlException("LUN not found when rollback LUN size");
  }
  lun_set_size(target->t_luns[id], oldSize);
  Util::SaveAndAnnounceConfig(handle);
}

uint64_t GetZelLunActualSize(const struct lun* lun) {
  const std::string path = AbsoluteDiskPath(lun);
  VolLibHandle* handle = nullptr;
  VolLibInfo* info = nullptr;
  const VolLibError opened =
      VolLib_OpenWithInfo(path, zel::platform::kDiskOpenReadOnly, 0, &handle, &info);
  if (!opened.Ok()) {
    ZEL_LOG_ERROR("%s: VolLib_OpenWithInfo failed: %s\n", kTag, VolLib_Err2String(opened).c_str());
    throw OrvaCtlException("Cannot retrieve LUN actual size");
  }
  const uint64_t bytes = info->capacitySectors * kSectorBytes;
  VolLib_Close(handle);
  VolLib_FreeInfo(info);
  return bytes;
}

}  // namespace Parser

namespace Util {

void GetLunPathById(const std::string& target, int id, std::string& path) {
  std::vector<LunInfo> luns;
  try {
    Parser::GetLunsForTarget(target, luns);
  } catch (const OrvaCtlException&) {
    luns.clear();
  }
  for (const LunInfo& lun : luns) {
    if (lun.id == id && !lun.path.empty()) {
      path = lun.path;
      return;
    }
  }
  throw OrvaCtlException("Failed to find path for LUN " + std::to_string(id) + " on target " +
                         target);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
