// Editing the cluster's initiator groups in zel.conf: creating and deleting
// groups and adding and removing their members. Each operation is one
// exclusive session on the file: it either saves every change it was asked
// for, raising the generation by one and announcing it, or throws
// OrvaCtlException and leaves the file and its generation as they were.
#pragma once

#include <string>
#include <vector>

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

constexpr int kMaxInitiatorGroupsPerCluster = 256;

// Creates the empty group `name`. Group names are compared byte for byte,
// so names differing only in letter case are distinct groups. REQUIRES:
// `name` passed ValidateInitiatorGroupName.
void AddNewInitiatorgroupToConfFile(const std::string& name);

// Deletes group `name` and every target's reference to it. A group that
// still has members is deleted only when `force` is set; an empty one is
// deleted even while targets refer to it.
void RemoveInitiatorgroupFromConfFile(const std::string& name, bool force);

// Adds `initiators` to group `name`, stored in lower case, all or none. Each
// is validated as an initiator IQN; a name already in the group in any
// letter case, or one that would take the cluster past its initiator limit,
// refuses the whole batch.
void AddInitiatorsToInitiatorgroup(const std::string& name,
                                   const std::vector<std::string>& initiators);

// Removes `initiators` (in any letter case) from group `name`, all or none:
// a name that is not a member refuses the whole batch.
void RemoveInitiatorsFromInitiatorgroup(const std::string& name,
                                        const std::vector<std::string>& initiators);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
