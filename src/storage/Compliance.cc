#include "storage/Compliance.h"

#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

void GetPolicyComplianceStatusForObject(OrvaComplianceHandle* handle,
                                        const std::string& objectUuid, std::string& policy,
                                        bool& compliant) {
  if (handle == nullptr) {
    throw HostCtl::Lib::Orva::OrvaCtlException("Orva compliance lib is not initialized");
  }
  const zel::platform::PolicyStatus status = handle->service->GetObjectPolicyStatus(objectUuid);
  policy = status.policy;
  compliant = status.compliance == zel::platform::Compliance::Compliant;
}

void GetPolicyComplianceStatusForNamespace(OrvaComplianceHandle* handle,
                                           const std::string& namespaceUuid, std::string& policy,
                                           bool& compliant) {
  GetPolicyComplianceStatusForObject(handle, namespaceUuid, policy, compliant);
}

void GetPolicyComplianceStatusForLun(OrvaComplianceHandle* handle,
                                     HostCtl::Orva::IscsiTarget::LunInfo& lun) {
  GetPolicyComplianceStatusForObject(handle, lun.uuid, lun.policy, lun.policyCompliant);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
