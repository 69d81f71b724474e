#include "storage/Namespace.h"

#include "directory/DirectoryEntries.h"
#include "platform/Log.h"
#include "platform/Namespaces.h"
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
const char kConfigNamespace[] = ".iSCSI-CONFIG";

}  // namespace

std::string GetNamespaceUuid() {
  std::string uuid;
  const NOK_ReturnStatus status = ZeldGetNamespaceUuid(&uuid);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to get ZEL namespace UUID with status: ") +
                           NOK_ReturnStatusToString(status));
  }
  return uuid;
}

void CreateNamespaceDir(const std::string& policy) {
  const std::string root = GetNamespaceRoot();
  if (PathExists(root + "/" + kConfigNamespace)) {
    ZEL_LOG_INFO("%s: Orva iSCSI Target namespace already exists. Skipping namespace creation..\n",
                 kTag);
    return;
  }
  const std::string applied = policy.empty() ? GetDatastoreDefaultPolicy() : policy;
  std::string objectUuid;
  try {
    NokCtl::Storage::DiskLunApi::CreateNamespace(root, kConfigNamespace, applied, 0, objectUuid);
  } catch (const zel::platform::NamespaceExistsException& e) {
    // Another host made it between the look and the creation: the
    // namespace this host wanted is there.
    ZEL_LOG_INFO("%s: ZEL namespace already exists %s\n", kTag, e.GetMessage().c_str());
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to create namespace %s\n", kTag, e.GetMessage().c_str());
    throw;
  }
}

void DeleteNamespaceDir() {
  const std::string root = GetNamespaceRoot();
  const std::string path = root + "/" + kConfigNamespace;
  if (!PathExists(path)) return;
  try {
    NokCtl::Storage::DiskLunApi::DeleteNamespace(root, kConfigNamespace);
  } catch (const OrvaCtlException& e) {
    const std::string message = "Failed to delete Orva iSCSI target namespace " + path +
                                " with error: " + e.GetMessage();
    ZEL_LOG_ERROR("%s: %s\n", kTag, message.c_str());
    throw OrvaCtlException(message);
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
