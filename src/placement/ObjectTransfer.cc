#include "placement/ObjectTransfer.h"

#include "platform/Host.h"
#include "platform/HostServices.h"
#include "platform/Log.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {
namespace {
const char kTag[] = "Util";
}  // namespace

NOK_ReturnStatus TransferObjectByUuid(const std::string& objectUuid, const std::string& destHost) {
  ZEL_LOG_INFO("%s: Move local target Object (%s) to dest Node (%s)\n", kTag, objectUuid.c_str(),
               destHost.c_str());
  // Only the owner may give an object away, so the transfer is always from
  // this host; the object manager refuses it when that is no longer true.
  const NOK_ReturnStatus status = zel::platform::CurrentHost().Objects().TransferOwnership(
      objectUuid, OrvaUtil::GetNodeUuid(), destHost);
  if (status != NOK_OK) {
    ZEL_LOG_ERROR("%s: Failed to transfer target uuid %s (%s)\n", kTag, objectUuid.c_str(),
                  NOK_ReturnStatusToString(status));
  }
  return status;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
