// The embedded cluster directory: one SQLite database file in WAL mode that
// every process of the machine opens, each through its own Directory.
//
// Updates run one at a time, in the order they were issued, on the
// directory's worker thread; completions run there too, never inside the
// AsyncUpdate call. Each update is one write transaction taken up front
// (read, predicate, write), so the compare-and-set holds across processes.
// A watcher thread delivers subscription callbacks for changes made by any
// process: it looks at the database when the database or its write-ahead log
// is written (inotify on their directory), at once after a write through this
// object, and every half second in case a change went unreported.
//
// Leases are rows of the database timed by the machine's boot clock, which
// every process reads alike. Whichever process's watcher first looks after
// a lease ran out (its holder may be dead) deletes it with its entries, so
// an expired entry goes within about half a second of its time.
#pragma once

#include <memory>
#include <string>

#include "platform/Directory.h"

namespace zel {
namespace platform {

// The number of most recent changes that the database keeps for watchers.
// A watcher further behind than this (a callback that blocked while other
// processes wrote) delivers the current state of its subscribed keys.
constexpr int kSqliteDirectoryChangeHistory = 1024;

// Opens (creating when absent) the database at `dbPath`. Its directory must
// exist. Null, with a warning logged, when the database cannot be opened.
std::unique_ptr<Directory> NewSqliteDirectory(const std::string& dbPath);

}  // namespace platform
}  // namespace zel
