// The service's use of storage policies: the datastore's default policy and
// changing the policy of a namespace or a LUN disk. The policy text itself is
// platform/PolicyRules.h.
#pragma once

#include <string>

#include "platform/PolicyRules.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The datastore's default policy, given to objects created without one:
// the host configuration's "defaultPolicy". Throws OrvaCtlException when
// that text is not a valid policy, since every object would inherit it.
std::string GetDatastoreDefaultPolicy();

// Give the configuration namespace, or the namespace of target
// `targetUuid`, a new policy. The caller has verified it. Failures are
// logged and thrown with the namespace named.
void UpdateNamespacePolicy(const std::string& policy);
void UpdateTargetNamespacePolicy(const std::string& targetUuid, const std::string& policy);

// Gives the LUN disk `diskPath` a new policy, as for namespaces.
void UpdateLunPolicy(const std::string& diskPath, const std::string& policy);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
