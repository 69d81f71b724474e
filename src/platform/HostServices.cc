#include "platform/HostServices.h"

#include <algorithm>

#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

using zel::platform::CurrentHost;

namespace OrvaUtil {
std::string GetNodeUuid() { return CurrentHost().Cluster().LocalHostUuid(); }

uint8_t GetMaxDiskVersionInCluster() {
  zel::platform::ClusterInfo info;
  const NOK_ReturnStatus status = CurrentHost().Cluster().GetClusterInfo(&info);
  if (status != NOK_OK) {
    throw HostCtl::Lib::Orva::OrvaCtlException(
        std::string("Failed to learn the disk format version of the cluster: ") +
        NOK_ReturnStatusToString(status));
  }
  int lowest = CurrentHost().Config().diskFormatVersion;
  if (!info.members.empty()) {
    lowest = std::min_element(info.members.begin(), info.members.end(),
                              [](const auto& a, const auto& b) {
                                return a.diskFormatVersion < b.diskFormatVersion;
                              })->diskFormatVersion;
  }
  return static_cast<uint8_t>(lowest);
}
}  // namespace OrvaUtil

namespace OrvaInfoImpl {
NOK_ReturnStatus GetClusterInfo(zel::platform::ClusterInfo* info) {
  return CurrentHost().Cluster().GetClusterInfo(info);
}

zel::platform::ClusterInfo GetClusterInfo() {
  zel::platform::ClusterInfo info;
  const NOK_ReturnStatus status = GetClusterInfo(&info);
  if (status != NOK_OK) {
    throw HostCtl::Lib::Orva::OrvaCtlException(std::string("Failed to get cluster information: ") +
                                               NOK_ReturnStatusToString(status));
  }
  return info;
}

void GetPreferredFaultDomainInfo(std::string* name, std::string* uuid) {
  const NOK_ReturnStatus status = CurrentHost().Cluster().GetPreferredFaultDomain(name);
  if (status != NOK_OK) {
    throw HostCtl::Lib::Orva::OrvaCtlException(
        std::string("Failed to get the preferred fault domain: ") +
        NOK_ReturnStatusToString(status));
  }
  *uuid = *name;
}
}  // namespace OrvaInfoImpl

NOK_ReturnStatus OrvaCompliance_Init(OrvaComplianceHandle** handle) {
  zel::platform::PolicyService& policies = CurrentHost().Policies();
  const NOK_ReturnStatus status = policies.Init();
  if (status == NOK_OK) *handle = new OrvaComplianceHandle{&policies};
  return status;
}

void OrvaCompliance_Deinit(OrvaComplianceHandle* handle) {
  if (handle == nullptr) return;
  handle->service->Deinit();
  delete handle;
}
