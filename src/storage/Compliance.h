// Storage policy and compliance of the service's datastore objects, as the
// facade reports them.
#pragma once

#include <string>

#include "platform/HostServices.h"
#include "zel/LunInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The object's policy text and whether it is known to comply. Compliance
// that nothing has measured reads as not compliant: the record has no
// "unknown". Throws when the object cannot be read.
void GetPolicyComplianceStatusForObject(OrvaComplianceHandle* handle,
                                        const std::string& objectUuid, std::string& policy,
                                        bool& compliant);

// The same for the configuration namespace `namespaceUuid`.
void GetPolicyComplianceStatusForNamespace(OrvaComplianceHandle* handle,
                                           const std::string& namespaceUuid, std::string& policy,
                                           bool& compliant);

// The same for a LUN's backing object.
void GetPolicyComplianceStatusForLun(OrvaComplianceHandle* handle,
                                     HostCtl::Orva::IscsiTarget::LunInfo& lun);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
