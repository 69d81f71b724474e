#include "storage/LunDisks.h"

#include <unistd.h>

#include <cerrno>

#include "directory/DirectoryEntries.h"
#include "directory/HostLookup.h"
#include "platform/Clock.h"
#include "platform/FeatureGates.h"
#include "platform/Log.h"
#include "platform/VolLib.h"
#include "storage/DatastoreLayout.h"
#include "storage/DiskLunApi.h"
#include "storage/LunIdentity.h"
#include "storage/LunPaths.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";
constexpr int kRenameAttempts = 12;
// The owner gets this many seconds to let go of a disk being removed.
constexpr int kReleaseWaitSeconds = 30;
// Daemons from this iSCSI version on hold their disks in an exclusive
// session, which only the exclusive-session open sees.
constexpr uint32_t kExclusiveSessionIscsiVersion = 6;

// Renames the new disk after its identity. The first attempt is made at
// once; each later one is logged and followed by a pause before its result
// counts, so a retry that succeeds has still paused once.
void RenameIntoPlace(const std::string& from, const std::string& to) {
  VolLibError result = VolLib_Rename(from, to, 0);
  for (int retry = 1; !result.Ok() && retry < kRenameAttempts; ++retry) {
    result = VolLib_Rename(from, to, 0);
    ZEL_LOG_INFO("%s: %dth retry to rename LUN descriptor file from %s to %s due to error %s.\n",
                 kTag, retry, from.c_str(), to.c_str(), VolLib_Err2String(result).c_str());
    Util_Sleep(1);
  }
  if (!result.Ok()) {
    throw OrvaCtlException("Failed to rename LUN " + from +
                           " with error: " + VolLib_Err2String(result));
  }
}

// The open that proves the owner released the disk, by the host's option
// "zelUseKobExclSession": 0 the ordinary locked open, 1 the exclusive
// session for daemons that use one, anything else the exclusive session.
uint32_t ReleaseProofFlags(const std::string& path) {
  const int option = ZelGetNsiIntOpt("ORVA-iSCSI", "zelUseKobExclSession");
  uint32_t version = 0;
  const bool versionKnown = ZeldGetIscsiVersion(path, &version) == NOK_OK;
  if (!versionKnown) {
    ZEL_LOG_INFO("%s: Failed to get iscsi version for LUN: %s. Will try to use HAFS lock and KOB "
                 "exclusive session to detect LUN released by the owner.\n",
                 kTag, path.c_str());
  }
  if (option == 0) return zel::platform::kDiskOpenLocked;
  if (option == 1 && versionKnown && version <= kExclusiveSessionIscsiVersion) {
    return zel::platform::kDiskOpenLocked;
  }
  return zel::platform::kDiskOpenExclusiveSession;
}

std::string OwnerHostOrUnknown(const std::string& targetUuid) {
  try {
    return GetTargetOwnerHostUuid(targetUuid);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Cannot tell the owner of target %s: %s\n", kTag, targetUuid.c_str(),
                    e.GetMessage().c_str());
    return "unknown";
  }
}

}  // namespace

void CreateLun(const std::string& targetUuid, const std::string& lunId, uint64_t sectors,
               const std::string& policy, std::string& path, std::string& objectUuid) {
  const std::string dir = GetNamespaceRoot() + "/" + targetUuid;
  const std::string temporary = dir + "/" + GenerateRandomUuid() + ".qdsk";
  NokCtl::Storage::DiskLunApi::CreateVirtualDisk(temporary, sectors, policy);
  try {
    const std::string identity = GetObjectUuidForLun(temporary);
    ZEL_LOG_INFO("%s: Retrieved Orva object UUID %s for LUN id %s.\n", kTag, identity.c_str(),
                 lunId.c_str());
    const std::string final = dir + "/" + identity + ".qdsk";
    RenameIntoPlace(temporary, final);
    path = final;
    objectUuid = identity;
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to create LUN %s with exception %s\n", kTag, lunId.c_str(),
                  e.GetMessage().c_str());
    NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(temporary);
    throw;
  }
}

void RemoveLun(unsigned lunId, const std::string& path, const std::string& targetUuid) {
  const uint32_t flags = ReleaseProofFlags(path);
  VolLibHandle* handle = nullptr;
  VolLibInfo* info = nullptr;
  for (int attempt = 0;; ++attempt) {
    const VolLibError opened = VolLib_OpenWithInfo(path, flags, 0, &handle, &info);
    if (opened.Ok()) break;
    const std::string reason = VolLib_Err2String(opened);
    ZEL_LOG_INFO("%s: Can not remove LUN disk %s, reason: %s. Retrying... %d\n", kTag,
                 path.c_str(), reason.c_str(), attempt);
    if (attempt == kReleaseWaitSeconds) {
      const std::string owner = OwnerHostOrUnknown(targetUuid);
      ZEL_LOG_ERROR("%s: Failed to remove LUN %s after %d seconds. Giving up. For more details "
                    "please see zeld.log on host %s and retry removing...Last error %s.\n",
                    kTag, path.c_str(), kReleaseWaitSeconds, owner.c_str(), reason.c_str());
      throw OrvaCtlException("Failed to remove LUN " + path + " after " +
                             std::to_string(kReleaseWaitSeconds) +
                             " seconds. Giving up. For more details please see zeld.log on host " +
                             owner + " and retry removing...Last error " + reason + ".");
    }
    Util_Sleep(1);
  }

  const VolLibError closed = VolLib_Close(handle);
  if (!closed.Ok()) {
    ZEL_LOG_WARNING("%s: Failed to close Disk handle %p: %s (%d)\n", kTag,
                    static_cast<void*>(handle), VolLib_Err2String(closed).c_str(),
                    static_cast<int>(closed.code));
  }
  VolLib_FreeInfo(info);
  try {
    NokCtl::Storage::DiskLunApi::RemoveVirtualDisk(path);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to delete disk %s with exception %s\n", kTag, path.c_str(),
                  e.GetMessage().c_str());
    throw;
  }
  RemovePRFile(GetLunUuid(path), targetUuid);
  ZEL_LOG_INFO("%s: Removed disk %s of LUN %u\n", kTag, path.c_str(), lunId);
}

void RemovePRFile(const std::string& lunUuid, const std::string& targetUuid) {
  try {
    const std::string file = GetTargetsDirPath() + "/" + targetUuid + "/." + lunUuid + ".qdsk.pr";
    if (::unlink(file.c_str()) != 0 && errno != ENOENT) {
      ZEL_LOG_WARNING("%s: Failed to remove PR info  file: %s (errno = %d)\n", kTag, file.c_str(),
                      errno);
    }
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Exception while removing PR file: %s\n", kTag, e.GetMessage().c_str());
  }
}

std::string GetObjectUuidForLun(const std::string& path) {
  VolLibHandle* handle = nullptr;
  VolLibInfo* info = nullptr;
  const VolLibError opened =
      VolLib_OpenWithInfo(path, zel::platform::kDiskOpenReadOnly, 0, &handle, &info);
  if (!opened.Ok()) {
    throw OrvaCtlException("Failed to enumerate LUN " + path + " with error " +
                           VolLib_Err2String(opened));
  }
  VolLib_Close(handle);
  const std::vector<zel::platform::DiskExtent> extents = info->extents;
  VolLib_FreeInfo(info);
  if (extents.empty()) {
    throw OrvaCtlException("Failed to retrieve object id for LUN " + path +
                           " with error the descriptor names no extent");
  }
  for (size_t i = 0; i + 1 < extents.size(); ++i) {
    ZEL_LOG_INFO("%s: File %s has multiple extents. Considering UUID of the last extent only. "
                 "Ignoring extent with UUID %s\n",
                 "Parser", path.c_str(), extents[i].objectUuid.c_str());
  }
  return extents.back().objectUuid;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
