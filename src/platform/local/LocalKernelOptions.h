// The integer kernel options of a local host, from the options file
// home/options.json:
//   {"ORVA-iSCSI": {"zelNokNicCtlEnable": 1, "zelLunNaaEnable": 0},
//    "ORVA": {"configStore": 1}}
// The file is read afresh on every call (it is small), so an operator's
// change applies without restarting anything. The host.json "options"
// ("GROUP.name": value) are the defaults for values the file lacks; the
// file is the one place where options are changed.
//
// GetIntOption: NOK_OK with the value; NOK_NOT_FOUND when neither the file
// nor the defaults hold it; NOK_IO_ERROR when the file cannot be read or is
// not a JSON object, NOK_BAD_PARAM when the group is not an object or the
// value is not an integer of int range (each logged with the file's path).
// Thread-safe.
#pragma once

#include <memory>

#include "platform/HostConfig.h"
#include "platform/HostControl.h"

namespace zel {
namespace platform {

std::unique_ptr<KernelOptions> NewLocalKernelOptions(const HostConfig& config);

}  // namespace platform
}  // namespace zel
