#include "storage/Policy.h"

#include "platform/Host.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "storage/DiskLunApi.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

void UpdatePolicyOf(const std::string& name, const std::string& policy) {
  try {
    NokCtl::Storage::DiskLunApi::UpdateNamespace(GetNamespaceRoot(), name, policy);
  } catch (const OrvaCtlException& e) {
    const std::string message = "Failed to update storage policy of namespace " + name +
                                " with error: " + e.GetMessage();
    ZEL_LOG_ERROR("%s: %s\n", "Util", message.c_str());
    throw OrvaCtlException(message);
  }
}

}  // namespace

std::string GetDatastoreDefaultPolicy() {
  const std::string policy = zel::platform::CurrentHost().Config().defaultPolicy;
  zel::platform::PolicyRules rules;
  std::string why;
  if (!zel::platform::ParsePolicyRules(policy, &rules, &why)) {
    throw OrvaCtlException("Invalid default storage policy '" + policy +
                           "' in the host configuration: " + why);
  }
  return policy;
}

void UpdateNamespacePolicy(const std::string& policy) { UpdatePolicyOf(".iSCSI-CONFIG", policy); }

void UpdateTargetNamespacePolicy(const std::string& targetUuid, const std::string& policy) {
  UpdatePolicyOf(targetUuid, policy);
}

void UpdateLunPolicy(const std::string& diskPath, const std::string& policy) {
  try {
    NokCtl::Storage::DiskLunApi::UpdateVirtualDisk(diskPath, policy);
  } catch (const OrvaCtlException& e) {
    const std::string message =
        "Failed to update storage policy of LUN disk " + diskPath + " with error: " + e.GetMessage();
    ZEL_LOG_ERROR("%s: %s\n", "Util", message.c_str());
    throw OrvaCtlException(message);
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
