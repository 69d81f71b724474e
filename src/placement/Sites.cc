#include "placement/Sites.h"

#include "platform/HostServices.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

bool IsInStretchedCluster() {
  const zel::platform::ClusterInfo cluster = OrvaInfoImpl::GetClusterInfo();
  for (const zel::platform::ClusterMember& member : cluster.members) {
    if (!member.faultDomain.empty()) return true;
  }
  return false;
}

std::string GetNodeSiteDomain(const std::string& /*host*/, std::string* faultDomainUuid) {
  if (IsInStretchedCluster()) {
    // Which of the two fault domains is the preferred site is the cluster's
    // decision; naming one here could send targets to the wrong site.
    throw OrvaCtlException("The preferred site of the stretched cluster is not set");
  }
  faultDomainUuid->clear();
  return "";
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
