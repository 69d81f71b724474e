#include "placement/Affinity.h"

#include "storage/Compliance.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
namespace Api = HostCtl::Orva::IscsiTarget;

const char kPreferred[] = "Preferred";
const char kNonPreferred[] = "NonPreferred";
// The update path's way of removing an affinity.
const char kNoLocation[] = "None";

}  // namespace

PolicyLocality GetPolicyLocality(const std::string& policy) {
  if (policy.find("\"locality\" \"Preferred\"") != std::string::npos) {
    return PolicyLocality::Preferred;
  }
  if (policy.find("\"locality\" \"NonPreferred\"") != std::string::npos) {
    return PolicyLocality::NonPreferred;
  }
  return PolicyLocality::None;
}

bool IsLocationCompatibleWithPolicy(const std::string& location, const std::string& policy) {
  const PolicyLocality locality = GetPolicyLocality(policy);
  if (location == kPreferred) return locality != PolicyLocality::NonPreferred;
  if (location == kNonPreferred) return locality != PolicyLocality::Preferred;
  return true;
}

void VerifyNewTargetAffinity(const Api::TargetCreateParam& param) {
  if (param.faultDomain.empty() || param.policy.empty()) return;
  if (!IsLocationCompatibleWithPolicy(param.faultDomain, param.policy)) {
    throw OrvaCtlException("Incompatible between Target location and policy locality");
  }
}

void VerifyUpdateTargetAffinity(OrvaComplianceHandle* handle, const Api::TargetCreateParam& param,
                                const Api::TargetInfo& current) {
  const std::string& location = param.faultDomain.empty() ? current.faultDomain : param.faultDomain;
  if (location.empty() || location == kNoLocation) return;
  if (!param.policy.empty() && !IsLocationCompatibleWithPolicy(location, param.policy)) {
    throw OrvaCtlException("Incompatible between target location and policy locality");
  }
  for (const Api::LunInfo& recorded : current.luns) {
    Api::LunInfo lun = recorded;
    // Records converted from the configuration do not carry policies: those
    // live on the LUNs' storage objects.
    if (lun.policy.empty()) GetPolicyComplianceStatusForLun(handle, lun);
    if (!IsLocationCompatibleWithPolicy(location, lun.policy)) {
      throw OrvaCtlException("Incompatible between target location and lun policy locality");
    }
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
