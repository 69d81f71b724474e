#include "placement/Affinity.h"

#include "cache/ConfigCache.h"
#include "platform/FeatureGates.h"
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
const char kLunLocalityMismatch[] = "Incompatible between target location and lun policy locality";

// Without a finer fact from the cluster, a cluster is stretched when some
// member names the site it is in.
bool InStretchedCluster() {
  zel::platform::ClusterInfo cluster;
  const NOK_ReturnStatus status = OrvaInfoImpl::GetClusterInfo(&cluster);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to get cluster information: ") +
                           NOK_ReturnStatusToString(status));
  }
  for (const zel::platform::ClusterMember& member : cluster.members) {
    if (!member.faultDomain.empty()) return true;
  }
  return false;
}

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
      throw OrvaCtlException(kLunLocalityMismatch);
    }
  }
}

void ValidateSiteAffinity() {
  if (!IsZelFeatureEnabled("ZelStretchedCluster")) {
    throw OrvaCtlException("ZEL support stretched cluster is disabled");
  }
  if (!ZelCheckDiskFormatVersion(kDiskFormatPlacement)) {
    throw OrvaCtlException(
        "Some hosts didn't finish disk format upgrade of Orva 7.0u1, rejecting zel affinity check "
        "until upgrade is completed.");
  }
  if (!InStretchedCluster()) throw OrvaCtlException("This host is not in stretched cluster");
}

void ValidateSiteAffinityFor(const std::string& location) {
  if (location == kPreferred || location == kNonPreferred) ValidateSiteAffinity();
}

void VerifyLunPolicyAndAffinity(const Api::LunInfo& lun) {
  for (const Api::TargetInfo& target : ConfigCache::GetTargetsInfos()) {
    if (target.alias != lun.target) continue;
    if (!IsLocationCompatibleWithPolicy(target.faultDomain, lun.policy)) {
      throw OrvaCtlException(kLunLocalityMismatch);
    }
    return;
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
