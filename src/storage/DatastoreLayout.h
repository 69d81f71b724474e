// Where the service's shared state lives on the datastore: the
// configuration namespace ".iSCSI-CONFIG" with "etc/" (zel.conf) and
// "targets" (one link per target namespace).
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The datastore root as this host mounts it.
std::string GetNamespaceRoot();
// root + "/" + ".iSCSI-CONFIG/etc/"
std::string GetConfDirPath();
// GetConfDirPath() + "zel.conf"
std::string GetConfFilePath();
// root + "/" + ".iSCSI-CONFIG/targets"
std::string GetTargetsDirPath();
// The local backup copy of zel.conf.
std::string GetBackupConfFilePath();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
