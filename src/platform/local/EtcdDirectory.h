// The cluster directory of several machines: the Directory interface over an
// etcd cluster, reached through its JSON gateway (EtcdClient.h).
//
// Layout under the directory's prefix P (components escaped: '%' as %25,
// '/' as %2F; the type in decimal):
//   P entries/<type>/<key>/<entryId>            the entry
//   P by-host/<type>/<owner>/<key>/<entryId>    the owner index: a copy of the
//                                               entry, so that QueryByHost is
//                                               one range, read at one revision
// Every write puts both keys in one transaction (deleting the old owner's
// index key when the owner changes) and binds both to the same lease: the
// entry's own, else the one that held it (a put without a lease would free
// it). A write naming a lease that is gone fails with NOK_NOT_FOUND. Their
// value is JSON: {"owner": text, "payload": Base64, "nonce": a random UUID of
// the write}. An entry's version is its key's mod_revision, which increases
// across the whole cluster.
//
// Updates run one at a time, in the order they were issued, on the
// directory's worker thread, which also runs their completions: read (or
// take what this directory last wrote there), decide, then a transaction on
// the read mod_revision (create_revision 0 when absent), whose failure
// branch reads again when another writer came first. A write whose
// answer was lost (a member died, the leader changed) may have been applied:
// the nonce of every attempt is remembered and looked for before deciding
// again, so an update is applied once and reported as such.
//
// Subscriptions share one watch stream over P entries/, opened by the first
// Subscribe; callbacks run on the directory's delivery thread. A broken stream
// is opened again on the next endpoint from the revision after the last one
// seen. When that revision was compacted away, or the subscribers fell more
// than kEtcdDirectoryBacklog changes behind (the stream is then closed until
// they caught up), every subscription gets NOK_NO_CONNECTION with no entry
// (lost track) followed by the current state of its key, as Directory.h says.
//
// Construction does not contact the cluster, and never fails for its sake:
// while the cluster cannot be reached (or has no quorum) every call fails
// within a few seconds, NOK_TIMEOUT with a warning naming the endpoints
// logged, and works again, by itself, once the cluster is back. A request
// the cluster refused fails with NOK_FAILURE and the cluster's message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/Directory.h"

namespace zel {
namespace platform {

constexpr size_t kEtcdDirectoryBacklog = 1024;

// `endpoints` are the members' client URLs ("http://127.0.0.1:2379"), tried
// in turn; `prefix` keeps this directory apart from other users of the
// cluster ("zel/"; a missing final '/' is added). Null, with a warning logged,
// only when no endpoint is given.
std::unique_ptr<Directory> NewEtcdDirectory(std::vector<std::string> endpoints,
                                            std::string prefix);

}  // namespace platform
}  // namespace zel
