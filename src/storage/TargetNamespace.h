// Each target's own namespace on the datastore, named by the target's
// UUID, and the link ".iSCSI-CONFIG/targets/<uuid>" -> "../../<uuid>" that
// makes it visible under the configuration namespace. The link is relative
// so that it resolves on every host, whatever the datastore's mount point
// there. Invariant: the link exists exactly while the namespace does.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Makes the namespace of target `targetUuid` with `policy` (the datastore's
// default when empty), then its link, and sets `namespaceUuid` to the
// namespace's identity. The link is tried up to 12 times, one second apart;
// when it cannot be made the new namespace is removed again and
// OrvaCtlException "Util: Failed to create target symlink with error:
// <reason>" is thrown. A failure of the namespace itself is thrown as the
// platform reported it. `namespaceUuid` is written only on success.
void CreateTargetNamespace(const std::string& targetUuid, const std::string& policy,
                           std::string& namespaceUuid);

// Removes the target's link, then its namespace. When the namespace cannot
// be removed the link is put back, so the target stays whole and
// reachable, and OrvaCtlException "Failed to delete namespace for target
// with UUID <uuid> with error: <cause>" is thrown. A namespace that is
// already gone is reported in the log, and the removal counts as done.
void DeleteTargetNamespace(const std::string& targetUuid);

// DeleteTargetNamespace, except that a link already gone (a removal killed
// midway, an operator's hand) is only warned about and the namespace, if it
// is still there, removed without it: such a target can still be removed.
void DeleteTargetNamespaceOrWhatIsLeft(const std::string& targetUuid);

// Makes the link of target `targetUuid`'s namespace again, as its creation
// does; false, with errno set, when it cannot.
bool RelinkTargetNamespace(const std::string& targetUuid);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
