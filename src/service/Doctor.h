// The consistency of this host's view of the service: zel.conf against the
// datastore (target namespaces and their links, LUN disks, temporary files
// of saves)
// and the directory (the published generation). Killed editors and hands on
// the datastore leave these behind; none of them is repaired implicitly.
#pragma once

#include <string>
#include <vector>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

struct ConsistencyFinding {
  std::string text;         // what is wrong, naming the thing
  bool repairable = false;  // removable without losing configuration
};

// Every inconsistency found, in a fixed order; empty when all is
// consistent. Reads only. Throws only when the datastore cannot be listed.
std::vector<ConsistencyFinding> CheckConsistency();

// Removes what no target or LUN names (namespaces, links and disks older
// than a minute, so that a target or LUN being added keeps its own; the
// temporary files of saves that died) and puts back the link of a target whose namespace is there,
// under zel.conf's exclusive lock. Returns what was removed; a
// finding that needs an operator (a target without its namespace, a LUN
// without its disk, a file behind the published generation) is left for CheckConsistency to report.
// Throws when zel.conf does not read: nothing can be judged unnamed then.
std::vector<ConsistencyFinding> RepairConsistency();

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
