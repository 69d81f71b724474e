// The host services under the names the service's call sites use. Each is
// a thin dispatch to the selected host's backend.
#pragma once

#include <string>

#include "platform/ClusterFacts.h"
#include "platform/NokStatus.h"
#include "platform/PolicyService.h"

namespace OrvaUtil {
// This host's identity, canonical UUID text.
std::string GetNodeUuid();
}  // namespace OrvaUtil

namespace OrvaInfoImpl {
NOK_ReturnStatus GetClusterInfo(zel::platform::ClusterInfo* info);
}  // namespace OrvaInfoImpl

// The virtual-disk library of the datastore.
bool VolLib_Init();
void VolLib_Exit();

// A compliance session with the storage policy service.
struct OrvaComplianceHandle {
  zel::platform::PolicyService* service;
};
NOK_ReturnStatus OrvaCompliance_Init(OrvaComplianceHandle** handle);
void OrvaCompliance_Deinit(OrvaComplianceHandle* handle);
