// The pieces of one target that the add and update operations change in a
// configuration graph: where it listens, whom it admits and on which site it
// should live. Each throws OrvaCtlException before changing anything it
// cannot finish, and none of them saves: the caller writes the file once.
#pragma once

#include <string>
#include <vector>

#include "conf/conf.h"
#include "zel/AuthInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

// Puts the target on the built-in "default" portal group (empty interface)
// or on "pg-<interface>-<port>", created on demand. A "pg-" group that the
// target leaves and no other target uses is deleted; built-in groups never
// are.
void PlaceTargetOnPortal(struct target* target, const std::string& networkInterface,
                         int port);

// Drops the target's portal and, when the target owns it, its auth group,
// as before deleting the target.
void DetachTargetGroups(struct target* target);

// Gives a new target its authentication: "No-Authentication" links the
// built-in "no-authentication" group, an empty type the "default" group, and
// CHAP types a group of its own named after the target's "uuid" option.
void SetNewTargetAuth(struct target* target, const AuthInfo& auth);

// Admits initiators by name, or initiator groups by name when the text is
// not an initiator name. The target first gets an auth group of its own if
// it shares a built-in one, so an ACL never leaks to other targets.
void AddTargetInitiators(struct target* target, const std::vector<std::string>& names);
// Withdraws them again; a name the target does not admit is an error.
void RemoveTargetInitiators(struct target* target, const std::vector<std::string>& names);

// "Preferred" or "NonPreferred" sets the "fault-domain" option, empty or
// "None" clears it; anything else is refused.
void SetTargetAffinity(struct target* target, const std::string& location);

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
