#include "storage/LunPaths.h"

#include <cstdio>

#include "conf/conf.h"
#include "storage/DatastoreLayout.h"

int GetLunAbsPath(const char* relPath, char* buf, size_t size) {
  if (size == 0) return -1;
  const std::string root = NokCtl::Orva::IscsiTarget::Util::GetNamespaceRoot();
  int length = std::snprintf(buf, size, "%s/%s", root.c_str(), relPath);
  if (length < 0 || static_cast<size_t>(length) >= size) {
    buf[0] = '\0';
    return -1;
  }
  return 0;
}

std::string GetLunAbsPath(const struct lun* lun) {
  char path[256];
  if (lun->l_path == nullptr || GetLunAbsPath(lun->l_path, path, sizeof path) != 0) return "";
  return path;
}

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

std::string GetLunUuid(const std::string& path) {
  std::string::size_type slash = path.rfind('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string::size_type dot = name.rfind('.');
  // A leading dot marks a hidden file, not an extension.
  if (dot == std::string::npos || dot == 0) return name;
  return name.substr(0, dot);
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
