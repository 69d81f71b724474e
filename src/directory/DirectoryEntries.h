// The directory entries the service shares with every host of the cluster,
// and the datastore paths that everything else builds on.
//
// Plain functions with a status interface, shared by the control library and
// the daemon side: each returns NOK_OK or the directory's or host's status and
// never throws; the class layers turn failures into OrvaCtlException.
//
// The configuration generation entry (type 37) is keyed by the configuration
// namespace's identity and is the only entry under that key: its entryId is
// the key too, so that the first publications of two hosts meet on one entry
// and the compare-and-set between them decides.
//
// GetLunAbsPath, the other datastore path of a LUN, is in storage/LunPaths.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/Directory.h"
#include "platform/NokStatus.h"

// Every datastore path the service builds, terminator included.
constexpr size_t ZEL_PATH_MAX = 256;

// ---- Datastore paths ------------------------------------------------------
// Each writes a path into `path` (`size` bytes) and returns NOK_OK, or
// NOK_BAD_PARAM, leaving `path` empty, when the result does not fit in `size`
// bytes or exceeds ZEL_PATH_MAX: a path is never cut.

// The datastore as this host mounts it.
NOK_ReturnStatus GetOrvaDatastoreUUIDPath(char* path, size_t size);

// The persistent-reservation file beside a LUN's disk: "dir/file" gives
// "dir/.file.pr". NOK_BAD_PARAM too when `diskPath` has no directory or no
// file name.
NOK_ReturnStatus GetLunPRFilePath(const char* diskPath, char* path, size_t size);

// The lock file beside a disk: "dir/name.qdsk" gives "dir/.name.lck". A name
// without extension is taken whole. NOK_BAD_PARAM as for GetLunPRFilePath.
NOK_ReturnStatus GetQdskLockFilePath(const char* diskPath, char* path, size_t size);

// The configuration namespace's identity, canonical UUID text: the target of
// the datastore's ".iSCSI-CONFIG" link names it in its last component.
// NOK_FAILURE with a warning when the link cannot be read or does not name a
// UUID.
NOK_ReturnStatus ZeldGetNamespaceUuid(std::string* uuid);

// ---- Configuration generation entry ----------------------------------------

// The generation published for this datastore's configuration. NOK_NOT_FOUND
// when none is published; NOK_BAD_PARAM when the stored payload is unreadable.
NOK_ReturnStatus ZeldGetConfigGenNumInBrix(uint64_t* generation);

// Publishes `generation` unless the directory holds this or a later one:
// then NOK_EXISTS, without a failure line, since another writer got there
// first and the caller decides whether that matters. A stored payload that
// cannot be read is overwritten (with a warning). Blocks until the directory
// has decided.
NOK_ReturnStatus ZeldUpdateBrixEntryForConfig(uint64_t generation);

// Publishes `generation` only when no generation is published yet; NOK_OK
// when one already is.
NOK_ReturnStatus ZeldAddBrixEntryForConfig(uint64_t generation);

// Told about every change of the generation entry that this process should
// act on: `entry` is the directory's notice (a const DirectoryEntry*, null
// when the notice carried none). `status` is NOK_NOT_FOUND when the entry has
// disappeared (the configuration cache then records it as absent, which is
// what makes the control thread republish it), and otherwise the notice's
// own status: NOK_OK for a newer generation, another one when what changed
// could not be told, which calls for a re-read all the same.
typedef void (*ZeldConfigUpdateCallback)(const void* entry, uint32_t status);

// Registers `callback` as the process's configuration-update callback and
// watches the generation entry. Notices carrying a generation not above the
// last one applied in this process are dropped. On NOK_OK `*handle` is the
// subscription, for ZeldBrixUnsubscribeToConfigEntry.
NOK_ReturnStatus ZeldBrixSubscribeToConfigEntry(
    ZeldConfigUpdateCallback callback, zel::platform::Directory::SubscriptionHandle* handle);

// Ends the subscription and forgets the last applied generation, so that the
// first notice after a new subscription is applied whatever it carries.
void ZeldBrixUnsubscribeToConfigEntry(zel::platform::Directory::SubscriptionHandle handle);

// Set when a notice said the generation entry is gone: the control thread
// republishes it and clears the mark.
bool ZeldConfigEntryNeedsRepublish();
void ZeldClearConfigEntryNeedsRepublish();

// ---- Storage objects and interfaces ----------------------------------------

// The host that owns the storage object `objectUuid` (canonical UUID text).
NOK_ReturnStatus ZeldBrixGetOwnerHost(const std::string& objectUuid, std::string* ownerHost);

// The addresses that host `hostUuid` published for its interface `ifName`,
// as text; an address family the interface lacks leaves its output empty.
// Either output may be null when not wanted. NOK_NOT_FOUND when the host
// published no interface of that name.
NOK_ReturnStatus ZeldBrixGetInterfaceAddress(const std::string& hostUuid, const std::string& ifName,
                                             std::string* ipv4, std::string* ipv6);
// The same for this host.
NOK_ReturnStatus ZeldBrixGetSelfInterfaceAddress(const std::string& ifName, std::string* ipv4,
                                                 std::string* ipv6);

// ---- LUN disk parameters ---------------------------------------------------

// The iSCSI version recorded on the LUN disk `lunPath` (a datastore path,
// absolute or relative to the datastore root), kept as the disk object's
// extended parameter kIscsiVersionParam in decimal text, so every host reads
// what any host recorded. NOK_NOT_FOUND, without a warning, when the disk
// has none yet; NOK_BAD_PARAM when the path is no disk of the datastore or
// the stored text is no number; another status when the disk library
// fails. Failures are logged as warnings.
constexpr const char* kIscsiVersionParam = "orva.EAiscsiVersion";
NOK_ReturnStatus ZeldGetIscsiVersion(const std::string& lunPath, uint32_t* version);
NOK_ReturnStatus ZeldSetIscsiVersion(const std::string& lunPath, uint32_t version);

namespace zel {
namespace directory {

// The selected host's directory, or null, with a warning, in a process
// started without one: the functions above report that as
// NOK_NO_CONNECTION rather than throwing.
platform::Directory* Brix();

}  // namespace directory
}  // namespace zel
