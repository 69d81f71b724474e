// The plain directories inside the configuration namespace: "etc/", which
// holds zel.conf, and "targets", which holds one link per target namespace
// (storage/DatastoreLayout.h names them). Only the owner may enter them.
#pragma once

#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Whether `path` names anything (links followed). False only when it is
// not there; any other failure to look (a loop of links, an unreachable
// device) throws OrvaCtlException "Failed to find path '<path>' with
// error: <reason>. Please check its availability on this host manually and
// try again.".
bool PathExists(const std::string& path);

// Makes "etc/" and then "targets" with mode 0700. A directory that is
// already there is logged and kept, so this may run any number of times.
// Throws OrvaCtlException "Failed to create dir <path> with errno (<n>).".
void CreateConfigDirs();

// Removes zel.conf, then "etc/" and "targets"; what is already gone is
// logged and skipped. Throws OrvaCtlException "Failed to delete config
// directory: <cause>", for example when "targets" still holds a link.
void DeleteConfigDirs();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
