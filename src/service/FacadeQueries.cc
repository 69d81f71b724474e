// The facade's read operations: records from the configuration cache,
// enriched with owner hosts and storage policy compliance.
#include <boost/thread/locks.hpp>

#include "directory/HostLookup.h"
#include "edit/ParserQueries.h"
#include "platform/Log.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "storage/Compliance.h"
#include "storage/Namespace.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";

Api::TargetInfo EmptyTargetInfo() {
  return Api::TargetInfo("", "", "", "", 3260, "", "", "", "", "", "", "", "", false);
}
}  // namespace

std::vector<Api::TargetInfo> OrvaIscsiTargetImpl::GetTargetsInternal() {
  return Parser::GetTargets();
}

Api::TargetInfo OrvaIscsiTargetImpl::GetTargetInfo(const std::string& alias) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  Api::TargetInfo found = EmptyTargetInfo();
  bool known = false;
  for (const Api::TargetInfo& target : Parser::GetTargets()) {
    if (target.alias == alias) {
      found = target;
      known = true;
      break;
    }
  }
  if (!known) throw OrvaCtlException("Target " + alias + " not found");
  found.ownerHostUuid = Util::GetTargetOwnerHostUuid(found.ownerId);
  found.ownerHostName = Util::GetHostNameFromUuid(found.ownerHostUuid);
  Util::GetPolicyComplianceStatusForObject(_complianceHandle, found.ownerId, found.policy,
                                           found.policyCompliant);
  return found;
}

std::vector<Api::TargetInfo> OrvaIscsiTargetImpl::GetTargets(bool withCompliance,
                                                             bool localOnly) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  std::vector<Api::TargetInfo> targets = Parser::GetTargets();
  const std::string localHost = OrvaUtil::GetNodeUuid();
  for (auto target = targets.begin(); target != targets.end();) {
    try {
      target->ownerHostUuid = Util::GetTargetOwnerHostUuid(target->ownerId);
      if (localOnly && target->ownerHostUuid != localHost) {
        target = targets.erase(target);
        continue;
      }
      if (withCompliance) {
        Util::GetPolicyComplianceStatusForObject(_complianceHandle, target->ownerId,
                                                 target->policy, target->policyCompliant);
      }
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_ERROR("%s: Failed to get target information: %s\n", kTag, e.GetMessage().c_str());
    }
    ++target;
  }
  return targets;
}

void OrvaIscsiTargetImpl::GetLuns(std::string target, std::vector<Api::LunInfo>& luns,
                                  bool withCompliance) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  Parser::GetLunsForTarget(target, luns);
  if (!withCompliance) return;
  for (Api::LunInfo& lun : luns) {
    try {
      Util::GetPolicyComplianceStatusForLun(_complianceHandle, lun);
    } catch (const OrvaCtlException& e) {
      ZEL_LOG_ERROR("%s: Failed to get LUN configuration: %s\n", kTag, e.GetMessage().c_str());
    }
  }
}

Api::LunInfo OrvaIscsiTargetImpl::GetLunInfo(const std::string& target, int lunId) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  std::vector<Api::LunInfo> luns;
  Parser::GetLunsForTarget(target, luns);
  for (Api::LunInfo& lun : luns) {
    if (lun.id != lunId) continue;
    Util::GetPolicyComplianceStatusForLun(_complianceHandle, lun);
    return lun;
  }
  throw OrvaCtlException("LUN id " + std::to_string(lunId) + " not found for target " + target);
}

Api::DefaultInfo OrvaIscsiTargetImpl::GetDefaultInfo() {
  CheckIscsiServiceStatus(false);
  return Parser::GetDefaultInfo(false);
}

std::vector<Api::InitiatorgroupInfo> OrvaIscsiTargetImpl::GetInitiatorgroups() {
  CheckIscsiServiceStatus(false);
  return Parser::GetInitiatorgroupsFromConfFile("");
}

Api::InitiatorgroupInfo OrvaIscsiTargetImpl::GetInitiatorgroupInfo(const std::string& name) {
  CheckIscsiServiceStatus(false);
  std::vector<Api::InitiatorgroupInfo> groups = Parser::GetInitiatorgroupsFromConfFile(name);
  if (groups.empty()) throw OrvaCtlException("Initiator group " + name + " not found.");
  return groups.front();
}

Api::NamespaceInfo OrvaIscsiTargetImpl::GetNamespaceInfo(bool throwOnError) {
  try {
    return GetNamespaceInternal();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to GetNamespaceInfo, zel(%s), exception(%s)\n", kTag,
                  _isEnabled ? "Enabled" : "Disabled", e.GetMessage().c_str());
    if (throwOnError) throw;
    return Api::NamespaceInfo();
  }
}

Api::NamespaceInfo OrvaIscsiTargetImpl::GetNamespaceInternal() {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  {
    boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
    initComplianceLib();
  }
  Api::NamespaceInfo info;
  info.uuid = Util::GetNamespaceUuid();
  if (!info.uuid.empty()) {
    Util::GetPolicyComplianceStatusForNamespace(_complianceHandle, info.uuid, info.policy,
                                                info.policyCompliant);
  }
  return info;
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
