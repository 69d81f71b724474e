// The configured interfaces that cannot carry iSCSI traffic right now.
#pragma once

#include <string>
#include <vector>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The interfaces that configured targets listen on and that are down or
// without carrier, in the configuration's order. An interface without
// physical uplinks is not down; one the host does not have is warned about
// and not reported either.
std::vector<std::string> GetZelDownNokNics();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
