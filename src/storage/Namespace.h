// The service's configuration namespace ".iSCSI-CONFIG" on the datastore:
// a storage object with its own identity and policy, made once for the
// cluster by the first host that asks and shared by every host.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The configuration namespace's object identity; throws when the datastore
// holds no namespace link.
std::string GetNamespaceUuid();

// Makes the configuration namespace with `policy`, or with the datastore's
// default policy when `policy` is empty. A namespace that is already there,
// or that another host makes first, counts as made (logged). Other failures
// are logged and thrown as the platform reported them.
void CreateNamespaceDir(const std::string& policy);

// Removes the configuration namespace with everything left in it; nothing
// to do when it is not there. Throws OrvaCtlException "Failed to delete
// Orva iSCSI target namespace <path> with error: <cause>".
void DeleteNamespaceDir();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
