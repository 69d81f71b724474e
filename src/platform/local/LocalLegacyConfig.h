// The legacy host configuration file of a local host: home/legacy-config.json,
// a JSON object of boolean values at its root,
//   {"/UserVars/ZelServiceEnabled": true}
// Hosts whose configuration-store feature is off keep the service's enabled
// flag here. Reads take no lock (the file is only ever replaced whole);
// SetBool reads, changes its key and replaces the file under an exclusive
// lock on "<path>.lock", so writers in other threads and processes never
// lose each other's keys. Every failure throws OrvaCtlException naming the
// file.
#pragma once

#include <memory>

#include "platform/HostConfig.h"
#include "platform/HostControl.h"

// The key of the service's enabled flag in the legacy file.
constexpr const char* ORVA_ZEL_STATUS_KEY = "/UserVars/ZelServiceEnabled";

namespace zel {
namespace platform {

std::unique_ptr<LegacyConfigFile> NewLocalLegacyConfigFile(const HostConfig& config);

}  // namespace platform
}  // namespace zel
