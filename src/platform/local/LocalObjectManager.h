// Ownership transfers of a local host: the owner of an object is the one
// recorded in its storage-object entry in the cluster directory
// (platform/local/StorageObjects.h), and a transfer rewrites that record
// under the directory's compare-and-set. A local host may only give away
// what it owns itself; it never takes an object from another host.
//
// The directory and the membership are the selected host's at the time of
// each call. Thread-safe: the object holds no mutable state.
#pragma once

#include <memory>
#include <string>

#include "platform/ObjectManager.h"

namespace zel {
namespace platform {

// Transfers made by the host `hostUuid`.
std::unique_ptr<ObjectManager> NewLocalObjectManager(const std::string& hostUuid);

}  // namespace platform
}  // namespace zel
