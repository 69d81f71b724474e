// The service's state on this host outside zel.conf: the enabled flag and
// the copy of the defaults in the host configuration store, and the
// integer kernel options.
#pragma once

#include <boost/thread/shared_mutex.hpp>
#include <string>

#include "zel/DefaultInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Reads the enabled flag (false when the store never held one) and the
// stored defaults. Throws with the store's message after logging it.
void LoadConfig(bool& enabled);
void LoadDefaultConfigCacheFromConfigStore();

// The last defaults read from or written to the store.
HostCtl::Orva::IscsiTarget::DefaultInfo GetDefaultConfigCache();

// The integer option `field` of option group `component` ("ORVA-iSCSI",
// "ORVA"); an option the host never set reads 0.
int ZelGetNsiIntOpt(const std::string& component, const std::string& field);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
