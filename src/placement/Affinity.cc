#include "placement/Affinity.h"

#include <cstdlib>

#include "cache/ConfigCache.h"
#include "directory/HostLookup.h"
#include "placement/ObjectTransfer.h"
#include "placement/Sites.h"
#include "platform/Log.h"
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
  if (!IsInStretchedCluster()) throw OrvaCtlException("This host is not in stretched cluster");
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

std::string SelectHostInFaultDomain(const std::string& site) {
  if (site.empty()) {
    ZEL_LOG_ERROR("%s: Skip select as empty faultDomain Name\n", "Util");
    return "";
  }
  const std::string faultDomain = GetAffinityFdUuid(site);
  std::vector<std::string> hosts;
  for (const zel::platform::ClusterMember& member : OrvaInfoImpl::GetClusterInfo().members) {
    // A host in maintenance is being emptied: it takes no target.
    if (!faultDomain.empty() && member.faultDomain == faultDomain && !member.maintenance) {
      hosts.push_back(member.hostUuid);
    }
  }
  if (hosts.empty()) {
    ZEL_LOG_ERROR("%s: Empty hostList for FD: %s\n", "Util", site.c_str());
    return "";
  }
  const int idx = std::rand() % static_cast<int>(hosts.size());
  ZEL_LOG_INFO("%s: Random Idx[%d] select host: %s\n", "Util", idx, hosts[idx].c_str());
  return hosts[idx];
}

void RefreshLocalTargetAffinity(const std::vector<Api::TargetInfo>& targets) {
  for (const Api::TargetInfo& target : targets) {
    try {
      const std::string dest = SelectHostInFaultDomain(target.faultDomain);
      if (dest.empty()) continue;
      ZEL_LOG_INFO("%s: Move target (%s) to DestNode: %s\n", "Util", target.alias.c_str(),
                   dest.c_str());
      TransferObjectByUuid(target.uuid, dest);
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Failed refresh target (%s) affinity: %s\n", "Util",
                      target.alias.c_str(), e.GetMessage().c_str());
    }
  }
}

void CheckLocalTargetAffinity() {
  try {
    if (!IsInStretchedCluster() || !IsZelFeatureEnabled("ZelStretchedCluster")) return;
    const std::vector<Api::TargetInfo> targets = ConfigCache::GetTargetsInfos();
    if (targets.empty()) return;
    const std::string local = OrvaUtil::GetNodeUuid();
    const std::string localFaultDomain = GetFaultDomainId(local);
    std::vector<Api::TargetInfo> misplaced;
    for (const Api::TargetInfo& target : targets) {
      if (target.faultDomain.empty() || GetTargetOwnerHostUuid(target.ownerId) != local) continue;
      // Compared by fault domain: a site the cluster cannot map to one ("")
      // is never where this host is, and the move then finds no host.
      if (GetAffinityFdUuid(target.faultDomain) != localFaultDomain) misplaced.push_back(target);
    }
    RefreshLocalTargetAffinity(misplaced);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Abort check target affinity: %s\n", "Util", e.GetMessage().c_str());
  } catch (const std::exception& e) {
    ZEL_LOG_WARNING("%s: Hit std Exception, abort check: %s\n", "Util", e.what());
  }
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
