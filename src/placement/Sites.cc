#include "placement/Sites.h"

#include "platform/HostServices.h"
#include "platform/Log.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {

const char kPreferred[] = "Preferred";
const char kNonPreferred[] = "NonPreferred";

std::string PreferredFaultDomain() {
  std::string name;
  std::string uuid;
  OrvaInfoImpl::GetPreferredFaultDomainInfo(&name, &uuid);
  return uuid;
}

}  // namespace

bool IsInStretchedCluster() {
  const zel::platform::ClusterInfo cluster = OrvaInfoImpl::GetClusterInfo();
  return zel::platform::IsStretchedCluster(cluster, PreferredFaultDomain());
}

std::string GetFaultDomainId(const std::string& host) {
  for (const zel::platform::ClusterMember& member : OrvaInfoImpl::GetClusterInfo().members) {
    if (member.hostUuid == host) return member.faultDomain;
  }
  return "";
}

std::string GetNodeSiteDomain(const std::string& host, std::string* faultDomainUuid) {
  faultDomainUuid->clear();
  if (!IsInStretchedCluster()) return "";
  *faultDomainUuid = GetFaultDomainId(host);
  if (faultDomainUuid->empty()) return "";
  return *faultDomainUuid == PreferredFaultDomain() ? kPreferred : kNonPreferred;
}

std::string GetNonPreferredFaultDomainId(const std::string& preferred) {
  for (const zel::platform::ClusterMember& member : OrvaInfoImpl::GetClusterInfo().members) {
    if (!member.faultDomain.empty() && member.faultDomain != preferred) return member.faultDomain;
  }
  return "";
}

std::string GetAffinityFdUuid(const std::string& name) {
  if (name.empty()) {
    ZEL_LOG_WARNING("%s: Get affinityFdUuid with empty Name\n", "Util");
    return "";
  }
  if (name != kPreferred && name != kNonPreferred) return "";
  const std::string preferred = PreferredFaultDomain();
  // With no preferred site, neither site denotes a fault domain.
  if (name == kPreferred || preferred.empty()) return preferred;
  return GetNonPreferredFaultDomainId(preferred);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
