#include "storage/TargetNamespace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/Clock.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "storage/DiskLunApi.h"
#include "storage/NamespaceDirs.h"
#include "storage/Policy.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kTag[] = "Util";
// A shared datastore may refuse a new name for a moment (metadata still
// settling after another host's change), so the link is tried this often.
constexpr int kLinkAttempts = 12;

std::string LinkPath(const std::string& targetUuid) {
  return GetTargetsDirPath() + "/" + targetUuid;
}

std::string LinkContent(const std::string& targetUuid) { return "../../" + targetUuid; }

}  // namespace

void CreateTargetNamespace(const std::string& targetUuid, const std::string& policy,
                           std::string& namespaceUuid) {
  const std::string root = GetNamespaceRoot();
  const std::string applied = policy.empty() ? GetDatastoreDefaultPolicy() : policy;
  std::string created;
  NokCtl::Storage::DiskLunApi::CreateNamespace(root, targetUuid, applied, 0, created);

  const std::string link = LinkPath(targetUuid);
  const std::string content = LinkContent(targetUuid);
  int failures = 0;
  int result = ::symlink(content.c_str(), link.c_str());
  int error = errno;
  while (result != 0 && ++failures < kLinkAttempts) {
    result = ::symlink(content.c_str(), link.c_str());
    error = errno;
    ZEL_LOG_INFO("%s: %dth retry to create target symlink(%s->%s) due to %s (%d)\n", kTag, failures,
                 link.c_str(), content.c_str(), std::strerror(error), error);
    Util_Sleep(1);
  }
  if (result == 0) {
    namespaceUuid = created;
    return;
  }

  ZEL_LOG_ERROR("%s: Failed to create target symlink(%s->%s) witherror: %s (%d)\n", kTag,
                link.c_str(), content.c_str(), std::strerror(error), error);
  try {
    NokCtl::Storage::DiskLunApi::DeleteNamespace(root, targetUuid);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to delete (clean up) namespace for target UUID %s with error: %s\n",
                  kTag, targetUuid.c_str(), e.GetMessage().c_str());
  }
  throw OrvaCtlException(std::string("Util: Failed to create target symlink with error: ") +
                         std::strerror(error));
}

void DeleteTargetNamespace(const std::string& targetUuid) {
  ZEL_LOG_INFO("%s: Delete target namespace, target uuid: %s\n", kTag, targetUuid.c_str());
  const std::string link = LinkPath(targetUuid);
  if (::unlink(link.c_str()) != 0) {
    throw OrvaCtlException("Util: Failed to remove target symlink: " + link +
                           " with error: " + std::strerror(errno));
  }

  const std::string root = GetNamespaceRoot();
  try {
    if (!PathExists(root + "/" + targetUuid)) {
      // Nothing is left to remove; failing here would keep the target in
      // the configuration for good, with no link left for a second attempt.
      ZEL_LOG_ERROR("%s: Cannot find target namespace dir for target %s\n", kTag,
                    targetUuid.c_str());
      return;
    }
    NokCtl::Storage::DiskLunApi::DeleteNamespace(root, targetUuid);
  } catch (const OrvaCtlException& e) {
    const std::string content = LinkContent(targetUuid);
    if (::symlink(content.c_str(), link.c_str()) != 0) {
      const int error = errno;
      ZEL_LOG_ERROR("%s: Failed to restore symlink for target with UUID %s with error: %s (%d)\n",
                    kTag, targetUuid.c_str(), std::strerror(error), error);
    }
    throw OrvaCtlException("Failed to delete namespace for target with UUID " + targetUuid +
                           " with error: " + e.GetMessage());
  }
}

bool RelinkTargetNamespace(const std::string& targetUuid) {
  return ::symlink(LinkContent(targetUuid).c_str(), LinkPath(targetUuid).c_str()) == 0;
}

void DeleteTargetNamespaceOrWhatIsLeft(const std::string& targetUuid) {
  struct stat link;
  if (::lstat(LinkPath(targetUuid).c_str(), &link) == 0) {
    DeleteTargetNamespace(targetUuid);
    return;
  }
  ZEL_LOG_WARNING("%s: Link of the namespace of target %s is gone; removing what is left\n",
                  kTag, targetUuid.c_str());
  const std::string root = GetNamespaceRoot();
  if (PathExists(root + "/" + targetUuid)) {
    NokCtl::Storage::DiskLunApi::DeleteNamespace(root, targetUuid);
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
