#include "platform/ClusterFacts.h"

#include <set>

namespace zel {
namespace platform {

bool IsStretchedCluster(const ClusterInfo& cluster, const std::string& preferredFaultDomain) {
  std::set<std::string> faultDomains;
  for (const ClusterMember& member : cluster.members) {
    if (!member.faultDomain.empty()) faultDomains.insert(member.faultDomain);
  }
  return faultDomains.size() == 2 && faultDomains.count(preferredFaultDomain) != 0;
}

}  // namespace platform
}  // namespace zel
