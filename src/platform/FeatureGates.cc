#include "platform/FeatureGates.h"

#include "platform/Host.h"
#include "platform/HostServices.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "Util";
}  // namespace

int ZelGetNsiIntOpt(const std::string& component, const std::string& field) {
  int value = 0;
  NOK_ReturnStatus status;
  try {
    status = zel::platform::CurrentHost().Options().GetIntOption(component, field, &value);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Failed to get component: %s, field: %s: %s\n", kTag, component.c_str(),
                    field.c_str(), e.GetMessage().c_str());
    return 0;
  }
  if (status == NOK_OK) return value;
  if (status == NOK_NOT_FOUND) {
    // Optional features are off unless the host sets their option.
    ZEL_LOG_DEBUG("%s: Option %s.%s is not set; reading 0\n", kTag, component.c_str(),
                  field.c_str());
  } else {
    ZEL_LOG_WARNING("%s: Failed to get component: %s, field: %s: %s\n", kTag, component.c_str(),
                    field.c_str(), NOK_ReturnStatusToString(status));
  }
  return 0;
}

bool IsZelFeatureEnabled(const std::string& name) {
  const bool enabled = ZelGetNsiIntOpt("ORVA", name) != 0;
  ZEL_LOG_INFO("%s: Retrieve Zel Feature (%s): %s.\n", kTag, name.c_str(),
               enabled ? "Enabled" : "Disabled");
  return enabled;
}

bool ZelCheckDiskFormatVersion(const uint8_t& base) {
  const uint8_t cluster = OrvaUtil::GetMaxDiskVersionInCluster();
  ZEL_LOG_INFO("%s: Retrieve current DiskVersinInCluster: %d, baseVersion: %d.\n", kTag, cluster,
               base);
  return cluster >= base;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
