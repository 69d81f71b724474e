// Namespaces of a local host, where the datastore is a directory tree (a
// shared file system mount when several hosts share it).
//
// Under the datastore root a namespace is
//   <uuid>/                    its directory, mode 0700, named by its identity
//   <uuid>/.zel-object.json    its record: objectUuid, name, ownerHost,
//                              policy, size (written atomically)
//   <name> -> <uuid>           a relative link, for a name that is not a UUID
// and, in the cluster directory, the storage-object entry
// (kStorageObjectEntryType, key and entryId <uuid>) owned by the host that
// made it, whose payload carries the owner and the policy.
//
// Creation makes the directory and record, then the announcement, then the
// link: a named namespace becomes visible only when it is complete, and a
// failed step undoes the earlier ones. Removal withdraws the announcement,
// then the tree, then the link; each step may be repeated, so a removal
// that failed half-way is finished by asking again. Hosts racing for one
// name are decided by the file system (mkdir of the identity, symlink of the
// name): the loser undoes its work and gets NamespaceExistsException.
//
// The directory is the selected host's (CurrentHost().GetDirectory()) at the
// time of each call. Thread-safe: the object holds no mutable state.
#pragma once

#include <memory>

#include "platform/HostConfig.h"
#include "platform/Namespaces.h"

namespace zel {
namespace platform {

constexpr const char* kNamespaceRecordFile = ".zel-object.json";

// Namespaces created by the host `config.hostUuid`.
std::unique_ptr<Namespaces> NewLocalNamespaces(const HostConfig& config);

}  // namespace platform
}  // namespace zel
