// The cluster directory: small typed entries that every host can read,
// publish under compare-and-set, and watch. Abstract so that the backend can
// be chosen per deployment: SQLite for the processes of one machine (the
// embedded default, SqliteDirectory.h), etcd for clusters of several.
//
// An entry is identified by (type, key, entryId). Several entries may share
// a (type, key), for example one per published network interface of a host.
//
// Thread safety: every method may be called from any thread, including from
// within an update completion or a subscription callback. A Directory must
// not be destroyed from within one of its own completions or callbacks.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/NokStatus.h"

namespace zel {
namespace platform {

struct DirectoryEntry {
  uint32_t type = 0;
  std::string key;        // text; UUIDs in canonical 8-4-4-4-12 form
  std::string ownerHost;  // the owning host's identity, canonical UUID text
  std::string entryId;    // identity within (type, key)
  std::string payload;    // opaque bytes, marshalled by the caller
  // Set by the directory on every write and increasing across the whole
  // directory: a later write of any entry carries a larger version. Ignored
  // when the entry is handed to AsyncUpdate.
  uint64_t version = 0;
  // The lease that holds the entry (GrantLease), 0 for none. Handed to
  // AsyncUpdate, a non-zero lease binds the entry to it and 0 keeps the
  // stored entry's lease (none for a new entry), so that a writer who does
  // not hold the lease never frees the entry from it.
  int64_t lease = 0;
};

class Directory {
 public:
  // Decides an update from the entry stored under the update's identity, or
  // null when there is none. Runs while the directory holds that identity
  // against other writers, so it must be quick, must not throw and must not
  // call into the directory.
  using UpdatePredicate = std::function<bool(const DirectoryEntry* stored)>;

  // `entry` is valid during the call only.
  using Completion = std::function<void(NOK_ReturnStatus status, const DirectoryEntry* entry)>;
  using Callback = std::function<void(NOK_ReturnStatus status, const DirectoryEntry* entry)>;

  // Never 0.
  using SubscriptionHandle = uint64_t;
  // Never 0.
  using LeaseId = int64_t;

  virtual ~Directory() = default;

  // Replaces `*entries` by every entry of (type, key), sorted by entryId.
  // NOK_NOT_FOUND (and no entries) when there is none.
  virtual NOK_ReturnStatus Query(uint32_t type, const std::string& key,
                                 std::vector<DirectoryEntry>* entries) = 0;

  // Replaces `*entries` by every entry of `type` owned by `host`, sorted by
  // key, then entryId. NOK_NOT_FOUND (and no entries) when there is none.
  virtual NOK_ReturnStatus QueryByHost(uint32_t type, const std::string& host,
                                       std::vector<DirectoryEntry>* entries) = 0;

  // Writes `entry` under its identity, atomically with the check by `accept`
  // (no check when empty): the compare-and-set of publishers, so that an
  // older generation never overwrites a newer one.
  //   - A non-empty entryId names the identity: an existing entry is replaced
  //     in place (owner and payload), an absent one is created with exactly
  //     that entryId. Publishers of a one-per-key entry name its identity
  //     themselves, so that concurrent first publications meet on one entry.
  //   - An empty entryId creates a new entry with a fresh identity (a random
  //     UUID); `accept` then sees null.
  // `done`, when given, runs exactly once, with
  //   NOK_OK and the entry as now stored (its identity, version and lease);
  //   NOK_NOT_FOUND when entry.lease names a lease that is gone, with null,
  //     and nothing was written;
  //   NOK_EXISTS when `accept` refused, with the stored entry (or null), and
  //     nothing was written;
  //   another status when the directory failed, with null.
  // Whether `done` runs before or after this returns, and on which thread,
  // is the backend's; callers must allow both. Every update issued before
  // the directory's destruction completes before the destructor returns.
  // REQUIRES: entry.key is not empty.
  virtual void AsyncUpdate(const DirectoryEntry& entry, UpdatePredicate accept,
                           Completion done) = 0;

  // Removes one entry. NOK_NOT_FOUND when it is not there. Not ordered
  // against updates of this object whose completion has not run yet.
  virtual NOK_ReturnStatus Delete(uint32_t type, const std::string& key,
                                  const std::string& entryId) = 0;

  // Watches every entry of (type, key), whether written by this process or
  // another. `callback` gets
  //   NOK_OK and the entry after it was created or replaced;
  //   NOK_NOT_FOUND and the entry's identity (type, key, entryId; no owner,
  //     no payload) after it was deleted;
  //   another status and null when the backend lost track of the key, for
  //     example a dropped connection: the subscriber should query again.
  // Changes committed after Subscribe returns are delivered; earlier ones
  // may be. Writes in quick succession may be coalesced into one callback
  // with the latest state, but the latest state of each changed entry is
  // always delivered, and the callbacks of one subscription never overlap
  // and follow the order of the changes. A subscriber that fell behind more
  // changes than the backend keeps gets the current state of its key
  // instead: every entry with NOK_OK, or NOK_NOT_FOUND with an empty entryId
  // when the key has none.
  // Callbacks run on the directory's own thread; a slow callback delays the
  // others, so a callback should hand long work elsewhere.
  virtual SubscriptionHandle Subscribe(uint32_t type, const std::string& key,
                                       Callback callback) = 0;

  // Liveness: entries bound to a lease last only while its holder renews it.
  // Grants a lease that lives `ttlSeconds` (>= 1) from now unless renewed.
  // When it expires or is revoked, every entry bound to it is deleted and
  // subscribers see the deletions. NOK_OK with `*lease` set, or the
  // directory's status.
  virtual NOK_ReturnStatus GrantLease(int ttlSeconds, LeaseId* lease) = 0;
  // Gives the lease its whole time to live again. NOK_NOT_FOUND when it has
  // expired or was revoked (its entries are gone or going); another status
  // when the directory could not be asked, the lease still running down.
  virtual NOK_ReturnStatus RenewLease(LeaseId lease) = 0;
  // Ends the lease now, deleting its entries. NOK_NOT_FOUND when it is gone.
  virtual NOK_ReturnStatus RevokeLease(LeaseId lease) = 0;

  // Ends a subscription; unknown handles are ignored. Once it returns, the
  // callback will not run again and is not running, unless Unsubscribe was
  // called from within a callback: then it returns at once, without waiting
  // for the callback that called it.
  virtual void Unsubscribe(SubscriptionHandle handle) = 0;
};

}  // namespace platform
}  // namespace zel
