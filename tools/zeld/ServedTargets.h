// What zeld would serve: the targets of zel.conf as the library's reader
// sees them, one log line each.
#pragma once

namespace zeltools {

// Reads this host's zel.conf under the shared file lock and logs its
// generation and one line per target (IQN, alias, portal groups with their
// listen addresses, LUN count); never a credential. A missing file is
// logged and serves nothing; a file that cannot be read is logged as an
// error. Never throws.
void LogServedTargets();

}  // namespace zeltools
