// The site (fault domain) of a host in a stretched cluster, as placement
// needs it: balancing within a site counts only the hosts of that site.
//
// Until the cluster directory keeps which site is the preferred one, a
// host's site can only be named when the cluster is not stretched (there
// is none); in a stretched cluster asking for it throws rather than guess
// which site is "Preferred".
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Whether some cluster member names its fault domain. Throws
// OrvaCtlException when the membership cannot be read.
bool IsInStretchedCluster();

// The site of `host`, "Preferred" or "NonPreferred", with the UUID of its
// fault domain in `*faultDomainUuid`; "" (and "") outside a stretched
// cluster. In a stretched cluster it throws OrvaCtlException "The
// preferred site of the stretched cluster is not set", as it does when the
// membership cannot be read.
std::string GetNodeSiteDomain(const std::string& host, std::string* faultDomainUuid);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
