#include "edit/TargetEditor.h"

#include <strings.h>

#include "cache/ConfigSave.h"
#include "edit/Parser.h"
#include "edit/ParserQueries.h"
#include "edit/TargetAccess.h"
#include "edit/Validation.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "storage/TargetNamespace.h"
#include "zel/AuthInfo.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using HostCtl::Orva::IscsiTarget::TargetInfo;

namespace Parser {
namespace {

const char kTag[] = "Parser";

// Refuses a target that would repeat an alias (exactly) or an IQN (in any
// letter case), or exceed the cluster's target limit.
void CheckNewTargetFits(struct conf* conf, const TargetCreateParam& param) {
  int count = 0;
  const struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_alias != nullptr && param.alias == target->t_alias) {
      throw OrvaCtlException("Target alias " + param.alias + " already exists.");
    }
    if (strcasecmp(target->t_name, param.iqn.c_str()) == 0) {
      throw OrvaCtlException("Target iqn " + param.iqn + " already exists.");
    }
    ++count;
  }
  if (count >= kMaxTargetsPerCluster) {
    throw OrvaCtlException("Limit on total number of targets (" +
                           std::to_string(kMaxTargetsPerCluster) + ") has been reached.");
  }
}

AuthInfo AuthOf(const TargetCreateParam& param) {
  return AuthInfo(param.authType, param.userid, param.secret, param.mutualUserid,
                  param.mutualSecret);
}

void Rename(struct conf* conf, struct target* target, const std::string& newAlias) {
  const struct target* other;
  TAILQ_FOREACH(other, &conf->conf_targets, t_next) {
    if (other != target && other->t_alias != nullptr && newAlias == other->t_alias) {
      throw OrvaCtlException("Can't change target alias to " + newAlias +
                             ", because target alias " + newAlias + " already exists");
    }
  }
  free(target->t_alias);
  target->t_alias = checked_strdup(newAlias.c_str());
}

}  // namespace

struct target* FindTargetByAlias(struct conf* conf, const std::string& alias) {
  struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    if (target->t_alias != nullptr && alias == target->t_alias) {
      ZEL_LOG_INFO("%s: Target found %s for alias %s.\n", kTag, target->t_name, alias.c_str());
      return target;
    }
  }
  throw OrvaCtlException("Target " + alias + " not found.");
}

void AddNewTargetToConfFile(TargetCreateParam& param, bool& rollback) {
  ZEL_LOG_INFO("%s: Adding new target to conf file.\n", kTag);
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    CheckNewTargetFits(handle.conf, param);
    struct target* target = target_new(handle.conf, param.iqn.c_str());
    if (target == nullptr) throw OrvaCtlException("Failed to create new target " + param.iqn);
    target->t_alias = checked_strdup(param.alias.c_str());
    // The creating host is the first owner: both options start from the
    // namespace identity, and ownership moves rewrite "owner-id" only.
    target_option_new(target, "uuid", param.uuid.c_str());
    target_option_new(target, "owner-id", param.uuid.c_str());
    SetNewTargetAuth(target, AuthOf(param));
    PlaceTargetOnPortal(target, param.networkInterface, param.port);
    AddTargetInitiators(target, param.initiatorsToAdd);
    if (!param.faultDomain.empty()) SetTargetAffinity(target, param.faultDomain);

    Util::SaveAndAnnounceConfig(handle, &rollback);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to add target %s to conf file with error: %s\n", kTag,
                  param.alias.c_str(), e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Added target %s successfully.\n", kTag, param.alias.c_str());
}

void RemoveTargetFromConfFile(const std::string& alias, const std::string& uuid) {
  ZEL_LOG_INFO("%s: Removing target alias %s from config file\n", kTag, alias.c_str());
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    struct target* target = FindTargetByAlias(handle.conf, alias);
    const struct target_option* identity = target_option_find(target, "uuid");
    if (identity == nullptr || uuid != identity->to_value) {
      throw OrvaCtlException("Target " + alias +
                             " was changed by another editor while it was being removed; "
                             "nothing was removed.");
    }
    Util::DeleteTargetNamespaceOrWhatIsLeft(uuid);
    DetachTargetGroups(target);
    target_delete(target);
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to remove target %s from conf file with error %s\n", kTag,
                  alias.c_str(), e.GetMessage().c_str());
    throw;
  }
  ZEL_LOG_INFO("%s: Removed target successfully.\n", kTag);
}

void UpdateTargetConf(const TargetCreateParam& param, ConfHandle& handle) {
  struct target* target = FindTargetByAlias(handle.conf, param.alias);
  if (!param.newAlias.empty()) {
    Util::VerifyAlias(param.newAlias);
    Rename(handle.conf, target, param.newAlias);
  }
  if (!param.authType.empty()) UpdateTargetAuthGroup(target, AuthOf(param));
  if (!param.networkInterface.empty()) {
    ZEL_LOG_INFO("%s: Updating target %s with interface %s and port number %d\n", kTag,
                 param.alias.c_str(), param.networkInterface.c_str(), param.port);
    PlaceTargetOnPortal(target, param.networkInterface, param.port);
  }
  RemoveTargetInitiators(target, param.initiatorsToRemove);
  AddTargetInitiators(target, param.initiatorsToAdd);
  if (!param.faultDomain.empty()) SetTargetAffinity(target, param.faultDomain);
}

}  // namespace Parser

namespace Util {

TargetInfo GetTargetInfoFromConfFile(const std::string& alias) {
  for (TargetInfo& target : Parser::GetTargets()) {
    if (target.alias == alias) return std::move(target);
  }
  throw OrvaCtlException("Target " + alias + " not found.");
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
