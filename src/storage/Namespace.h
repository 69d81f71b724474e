// The service's configuration namespace on the datastore.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The configuration namespace's object identity; throws when the datastore
// holds no namespace link.
std::string GetNamespaceUuid();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
