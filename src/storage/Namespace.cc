#include "storage/Namespace.h"

#include "directory/DirectoryEntries.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

std::string GetNamespaceUuid() {
  std::string uuid;
  const NOK_ReturnStatus status = ZeldGetNamespaceUuid(&uuid);
  if (status != NOK_OK) {
    throw HostCtl::Lib::Orva::OrvaCtlException(
        std::string("Failed to get ZEL namespace UUID with status: ") +
        NOK_ReturnStatusToString(status));
  }
  return uuid;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
