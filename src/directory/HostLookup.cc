#include "directory/HostLookup.h"

#include "directory/DirectoryEntries.h"
#include "platform/HostServices.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

std::string GetTargetOwnerHostUuid(const std::string& objectUuid) {
  std::string owner;
  const NOK_ReturnStatus status = ZeldBrixGetOwnerHost(objectUuid, &owner);
  if (status != NOK_OK) {
    throw OrvaCtlException("Failed to get owner host of object " + objectUuid + ": " +
                           NOK_ReturnStatusToString(status));
  }
  return owner;
}

std::string GetHostNameFromUuid(const std::string& hostUuid) {
  const zel::platform::ClusterInfo info = OrvaInfoImpl::GetClusterInfo();
  for (const zel::platform::ClusterMember& member : info.members) {
    if (member.hostUuid == hostUuid) return member.hostName;
  }
  throw OrvaCtlException("Host " + hostUuid + " is not a member of the cluster");
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
