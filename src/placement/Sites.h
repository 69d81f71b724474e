// The site (fault domain) of a host in a stretched cluster, as placement
// needs it: balancing within a site counts only the hosts of that site, and
// a target placed in a site is owned by a host of it.
//
// A cluster is stretched when its members name exactly two fault domains
// and the preferred site, kept in the cluster directory, is one of them; the
// other is the non-preferred site. A fault domain's UUID is its name: the
// directory knows no other identity for it.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Every function below throws OrvaCtlException when the membership or the
// preferred site cannot be read.

bool IsInStretchedCluster();

// The fault domain that member `host` names; "" for a host naming none or
// no member.
std::string GetFaultDomainId(const std::string& host);

// The site of `host`, "Preferred" or "NonPreferred", with the UUID of its
// fault domain in `*faultDomainUuid`; "" (and "") outside a stretched
// cluster; "" for a host naming no fault domain.
std::string GetNodeSiteDomain(const std::string& host, std::string* faultDomainUuid);

// The first fault domain a member names (in directory order) other than
// `preferred`; "" when there is none.
std::string GetNonPreferredFaultDomainId(const std::string& preferred);

// The fault domain that site `name` ("Preferred" or "NonPreferred")
// denotes; "" for any other name, logged for an empty one.
std::string GetAffinityFdUuid(const std::string& name);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
