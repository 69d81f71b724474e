// The IQN given to a target created without one.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// "iqn.1998-01.<reversed domain>:<alias>-<8 hex digits>". The domain is the
// host configuration's "iqnDomain", else the domain part of this host's
// fully qualified name, else "zel.local". The alias is shown lower-cased,
// other bytes than letters, digits, '-' and '.' turned into '-', and
// shortened to 64 bytes; the random part keeps two calls for the same alias
// apart. The result matches the target IQN pattern and stays under 190
// bytes. Throws OrvaCtlException only when no random source is available.
std::string GetDefautltIQN(const std::string& alias);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
