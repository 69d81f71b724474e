// Turns a parsed configuration into the public records that queries hand
// out, so that no caller ever holds a pointer into a `conf` graph.
//
// The functions only read the graph. The caller keeps it alive and
// unchanged for the call: under the cache's shared lock, or on a freshly
// read graph that no one else sees. A throw leaves `out` with the records
// appended so far; the caller discards it.
#pragma once

#include <vector>

#include "conf/conf.h"
#include "zel/DefaultInfo.h"
#include "zel/InitiatorgroupInfo.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Conversion {

// The defaults from the built-in auth group and portal group "default".
// Secrets are copied only with `withSecrets`. Throws "Cannot find Orva
// iSCSI configuration!" for a null conf and "Default network interface not
// found." for a default portal without an interface.
HostCtl::Orva::IscsiTarget::DefaultInfo GetConfigInfoFromConf(const struct conf* conf,
                                                              bool withSecrets);

// One record per target in configuration order, its LUNs in LUN number
// order. Never copies a secret. Throws "Cannot find Orva iSCSI
// configuration!" for a null conf.
void _GetTargetInfos(const struct conf* conf,
                     std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>& out);

// One record per initiator group in configuration order. Throws "Cannot
// find Orva iSCSI configuration!" for a null conf.
void _GetInitiatorGroupInfos(const struct conf* conf,
                             std::vector<HostCtl::Orva::IscsiTarget::InitiatorgroupInfo>& out);

}  // namespace Conversion
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
