// What follows a save of zel.conf: announcing its generation in the cluster
// directory and telling whether the cached configuration moved on. Editors
// save through here without knowing the facade.
#pragma once

#include <cstdint>

#include "conf/ConfHandle.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Publishes `generation` in the directory. All ones means that no file was
// written: nothing happens. A directory that already holds this or a later
// generation (another host wrote since) is only a warning. Any other
// failure throws "Failed to Update ZEL conf entry into BRIX with error: "
// and the status text.
void DoActionForConfigChange(uint64_t generation);

// Saves the graph of `handle` and makes the change known: this process's
// configuration cache is dropped first (the file has changed whatever the
// announcement does next), then the generation is announced while the
// handle still holds the file, so that generations reach the directory in
// the order they were saved. Returns the new generation.
//
// A file whose generation is behind the published one is refused, nothing
// saved, with a message that names the backup copy: an empty or truncated
// zel.conf reads as a valid configuration, and a save over it would publish
// a lower generation that every host ignores while the configuration is
// lost.
//
// When `rollback` is given it is cleared as soon as the file is written:
// from then on the file names what the caller made for it (a namespace, a
// disk), and undoing that would leave the entry without it.
uint64_t SaveAndAnnounceConfig(ConfHandle& handle, bool* rollback = nullptr);

// True, storing the cached generation into `known`, when the configuration
// cache holds a generation later than `known`. An empty cache tells
// nothing and answers false.
bool IsRefreshConfNeeded(uint64_t& known);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
