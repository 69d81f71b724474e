// The listen interface and port of a target or of the defaults, checked
// before anything is changed. Writes nothing.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The iSCSI well-known port: always accepted, and the only port accepted
// without an interface.
constexpr int32_t kZelDefaultPort = 3260;
// A port given with an interface lies in (kZelMinPortExclusive, kZelMaxPort].
constexpr int32_t kZelMinPortExclusive = 1024;
constexpr int32_t kZelMaxPort = 65535;

// Throws unless `networkInterface` is empty or one of this host's kernel
// network interfaces whose name zel.conf can keep, and `port` suits it:
// kZelDefaultPort always, another port only with an interface and within
// the range above.
void VerifyNetworkConfig(const std::string& networkInterface, int32_t port);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
