// The service's state on this host outside zel.conf: the enabled flag and
// the copy of the cluster-wide defaults, kept in the host configuration
// store (or, with the store feature off, the flag alone in the legacy host
// configuration file). The kernel options are platform/FeatureGates.h.
#pragma once

#include <string>

#include "zel/DefaultInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Persists the enabled flag. Throws with the store's or file's message
// after logging it.
void SetStatus(bool enabled);

// Reads the enabled flag (false when it was never stored) and, from the
// store, the defaults into the defaults cache. Throws with the store's or
// file's message after logging it.
void LoadConfig(bool& enabled);

// Fills the defaults cache from the store, when the store is in use and
// holds defaults.
void LoadDefaultConfigCacheFromConfigStore();

// Writes `info` to the store when the store is in use and `info` differs
// from the defaults cache, then caches it; an unchanged record writes
// nothing. Throws with the store's message after logging it (the cache then
// keeps the old record, so the next call tries again).
void UpdateDefaultConfigToConfigStore(const HostCtl::Orva::IscsiTarget::DefaultInfo& info);

// The last defaults read from or written to the store.
HostCtl::Orva::IscsiTarget::DefaultInfo GetDefaultConfigCache();

// Whether this process is the host management agent, by its invocation
// name. Decided once.
bool IsRunningInOrvaMgmtd();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
