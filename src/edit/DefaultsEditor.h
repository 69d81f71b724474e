// Setting the cluster-wide defaults that new targets inherit: the
// authentication of the "default" auth group and the listen address of the
// "default" portal group of zel.conf.
#pragma once

#include "zel/DefaultInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

// Writes `info` into zel.conf in one exclusive session and announces the new
// generation. REQUIRES: `info` passed VerifyNetworkConfig and
// VerifyDefaultAuthParams; nothing is checked again here.
//
// An empty or "No-Authentication" type leaves the group without a
// credential. An empty interface leaves the listen address as it is: the
// checks admit no port but 3260 without an interface, which is the record's
// unset value, so the caller asked for no change of address. A failure
// leaves the file and its generation as they were.
void UpdateDefaultConfig(const HostCtl::Orva::IscsiTarget::DefaultInfo& info);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
