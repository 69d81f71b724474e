#include "edit/HostState.h"

#include <string>

#include "platform/HostServices.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "storage/NamespaceDirs.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Util";

bool IsClusterEnabledOnHost() {
  zel::platform::ClusterInfo info;
  const NOK_ReturnStatus status = OrvaInfoImpl::GetClusterInfo(&info);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("%s: Failed to get cluster info: %s\n", kTag, NOK_ReturnStatusToString(status));
    return false;
  }
  return info.isMember;
}

}  // namespace

void VerifyEnvForNamespaceCreate() {
  if (!IsClusterEnabledOnHost()) throw OrvaCtlException("Orva is not enabled on this host.");
}

void VerifyEnvForEnable() {
  VerifyEnvForNamespaceCreate();
  if (!PathExists(GetNamespaceRoot() + "/" + ".iSCSI-CONFIG")) {
    throw OrvaCtlException(
        "Orva iSCSI namespace does not exist. Please create namespace if not already created.");
  }
  bool complete = true;
  const std::string targetsDir = GetTargetsDirPath();
  if (!PathExists(targetsDir)) {
    ZEL_LOG_ERROR("%s: Target dir %s does not exist\n", kTag, targetsDir.c_str());
    complete = false;
  }
  const std::string etcDir = GetConfDirPath();
  if (!PathExists(etcDir)) {
    ZEL_LOG_ERROR("%s: Etc  dir %s does not exist\n", kTag, etcDir.c_str());
    complete = false;
  }
  if (!complete) {
    throw OrvaCtlException(
        "Bad Orva iSCSI target namespace configuration detected. Recreate namespace before "
        "enabling Orva iSCSI Target.");
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
