#include "storage/DatastoreLayout.h"

#include "platform/Host.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

std::string GetNamespaceRoot() { return zel::platform::CurrentHost().Config().datastoreRoot; }

std::string GetConfDirPath() { return GetNamespaceRoot() + "/" + ".iSCSI-CONFIG/etc/"; }

std::string GetConfFilePath() { return GetConfDirPath() + "zel.conf"; }

std::string GetTargetsDirPath() { return GetNamespaceRoot() + "/" + ".iSCSI-CONFIG/targets"; }

std::string GetBackupConfFilePath() {
  return zel::platform::CurrentHost().Config().backupConfPath;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
