// Identities given to LUNs: random UUIDs for temporary disk names, and the
// NAA identifier a LUN reports to initiators.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// A random UUID in canonical text form. Throws OrvaCtlException "UUID
// generation failure" or "UUID convertion failure".
std::string GenerateRandomUuid();

// A random NAA type 6 (registered extended) identifier: 32 upper-case hex
// digits, "6" and this host's 24-bit company identifier (host.json
// "naaCompanyId") first. Empty, with a warning, when none could be made.
std::string GenerateDiskNaa();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
