// The host services under the names the service's call sites use. Each is
// a thin dispatch to the selected host's backend.
#pragma once

#include <cstdint>
#include <string>

#include "platform/ClusterFacts.h"
#include "platform/NokStatus.h"
#include "platform/PolicyService.h"

namespace OrvaUtil {
// This host's identity, canonical UUID text.
std::string GetNodeUuid();

// The newest disk format that every cluster member has reached: the
// minimum of the members' published diskFormatVersion. The gates that ask
// for it want to know whether some host has not finished its upgrade, so
// one host behind holds the whole cluster back. With no members (a host
// outside any cluster) it is this host's own. Throws OrvaCtlException when
// the membership cannot be read: guessing the current format would open the
// gates for a host that cannot read it.
uint8_t GetMaxDiskVersionInCluster();
}  // namespace OrvaUtil

namespace OrvaInfoImpl {
NOK_ReturnStatus GetClusterInfo(zel::platform::ClusterInfo* info);
// The same, throwing OrvaCtlException "Failed to get cluster information:
// <status>" when the membership cannot be learnt.
zel::platform::ClusterInfo GetClusterInfo();
// The preferred site's fault domain: its name, and its UUID, which is the
// name (a fault domain has no other identity); both "" while none is set.
// Throws OrvaCtlException "Failed to get the preferred fault domain:
// <status>" when it cannot be read.
void GetPreferredFaultDomainInfo(std::string* name, std::string* uuid);
}  // namespace OrvaInfoImpl

// A compliance session with the storage policy service.
struct OrvaComplianceHandle {
  zel::platform::PolicyService* service;
};
NOK_ReturnStatus OrvaCompliance_Init(OrvaComplianceHandle** handle);
void OrvaCompliance_Deinit(OrvaComplianceHandle* handle);
