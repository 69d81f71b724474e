// The host's integer kernel options (group "ORVA-iSCSI" for the service's
// own switches, "ORVA" for feature switches) and the cluster's disk-format
// version, which gate what the service may do.
#pragma once

#include <cstdint>
#include <string>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// The disk formats that the gates ask for: every host must have reached
// the format of that release before the gated operation is allowed.
constexpr uint8_t kDiskFormatOnlineResize = 10;
constexpr uint8_t kDiskFormatPlacement = 11;

// The integer option `field` of option group `component`. Never throws: an
// option the host never set reads 0 (which turns its feature off), and an
// option that cannot be read reads 0 with a warning.
int ZelGetNsiIntOpt(const std::string& component, const std::string& field);

// Whether the feature switch `name` of group "ORVA" is on.
bool IsZelFeatureEnabled(const std::string& name);

// Whether every host of the cluster has reached disk format `base`.
// Throws OrvaCtlException when the membership cannot be read.
bool ZelCheckDiskFormatVersion(const uint8_t& base);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
