// Whether this host is in a state in which the service's namespace may be
// created or the service enabled. Checks only: nothing is written.
#pragma once

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Throws "Orva is not enabled on this host." unless this host is a member
// of the storage cluster (a membership that cannot be learned counts as
// none, with a warning naming the reason).
void VerifyEnvForNamespaceCreate();

// The namespace check, then the configuration namespace on the datastore
// and both of its directories ("targets" and "etc/"). Each missing
// directory is logged before the one failure is thrown, so the operator
// learns every gap at once.
void VerifyEnvForEnable();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
