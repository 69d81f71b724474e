// The facade's initiator-group editing. These operations take neither
// facade lock: the exclusive lock on zel.conf serialises them against every
// other writer, on this host and on the others.
#include "edit/InitiatorGroupEditor.h"
#include "edit/Validation.h"
#include "service/OrvaIscsiTargetImpl.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

void OrvaIscsiTargetImpl::AddInitiatorgroup(const std::string& name) {
  CheckIscsiServiceStatus(false);
  Util::ValidateInitiatorGroupName(name);
  Parser::AddNewInitiatorgroupToConfFile(name);
}

void OrvaIscsiTargetImpl::RemoveInitiatorgroup(const std::string& name, bool force) {
  CheckIscsiServiceStatus(false);
  Parser::RemoveInitiatorgroupFromConfFile(name, force);
}

void OrvaIscsiTargetImpl::AddInitiatorsToInitiatorgroup(
    const std::string& name, const std::vector<std::string>& initiators) {
  CheckIscsiServiceStatus(false);
  Parser::AddInitiatorsToInitiatorgroup(name, initiators);
}

void OrvaIscsiTargetImpl::RemoveInitiatorsFromInitiatorgroup(
    const std::string& name, const std::vector<std::string>& initiators) {
  CheckIscsiServiceStatus(false);
  Parser::RemoveInitiatorsFromInitiatorgroup(name, initiators);
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
