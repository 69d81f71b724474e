// Which host serves a target, and what that host is called.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The host owning the storage object `objectUuid` (a target's namespace).
// Throws with the directory's status text when it cannot be found.
std::string GetTargetOwnerHostUuid(const std::string& objectUuid);

// The name a cluster member registered; throws for a host that is not a
// member.
std::string GetHostNameFromUuid(const std::string& hostUuid);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
