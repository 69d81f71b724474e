#include "platform/HostServices.h"

#include "platform/Host.h"

using zel::platform::CurrentHost;

namespace OrvaUtil {
std::string GetNodeUuid() { return CurrentHost().Cluster().LocalHostUuid(); }
}  // namespace OrvaUtil

namespace OrvaInfoImpl {
NOK_ReturnStatus GetClusterInfo(zel::platform::ClusterInfo* info) {
  return CurrentHost().Cluster().GetClusterInfo(info);
}
}  // namespace OrvaInfoImpl

bool VolLib_Init() { return CurrentHost().Disks().Init() == NOK_OK; }

void VolLib_Exit() { CurrentHost().Disks().Exit(); }

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
