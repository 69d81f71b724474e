#include "edit/TargetAccess.h"

#include <cstring>

#include "edit/NamePatterns.h"
#include "edit/Parser.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "Parser";
const char kDefaultGroup[] = "default";
const char kNoAuthenticationGroup[] = "no-authentication";
const char kPortalGroupPrefix[] = "pg-";
const char kAffinityOption[] = "fault-domain";

std::string Alias(const struct target* target) {
  return target->t_alias != nullptr ? target->t_alias : target->t_name;
}

// The name of the target's own auth group: its namespace identity, which is
// unique in the cluster and never changes while the target lives.
std::string OwnGroupName(const struct target* target) {
  const struct target_option* uuid = target_option_find(target, "uuid");
  if (uuid == nullptr) {
    throw OrvaCtlException("Target " + Alias(target) + " has no uuid option");
  }
  return uuid->to_value;
}

bool OwnsAuthGroup(const struct target* target) {
  const struct auth_group* ag = target->t_auth_group;
  const struct target_option* uuid = target_option_find(target, "uuid");
  return ag != nullptr && ag->ag_name != nullptr && uuid != nullptr &&
         strcmp(ag->ag_name, uuid->to_value) == 0;
}

bool HasInterface(const struct portal_group* pg) {
  const struct portal* portal;
  TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
    if (portal->p_host != nullptr && portal->p_host[0] != '\0') return true;
  }
  return false;
}

struct portal_group* InterfacePortalGroup(struct conf* conf, const std::string& networkInterface,
                                          int port) {
  const std::string name = kPortalGroupPrefix + networkInterface + "-" + std::to_string(port);
  struct portal_group* pg = portal_group_find(conf, name.c_str());
  if (pg != nullptr) return pg;
  pg = portal_group_new(conf, name.c_str());
  if (pg == nullptr) throw OrvaCtlException("Failed to create portal-group " + name);
  const std::string listen = networkInterface + ":" + std::to_string(port);
  if (portal_group_add_listen(pg, listen.c_str(), false) != 0) {
    portal_group_delete(pg);
    throw OrvaCtlException("Invalid listen address " + listen + " for portal-group " + name);
  }
  return pg;
}

void DeleteIfUnused(struct portal_group* pg) {
  if (strncmp(pg->pg_name, kPortalGroupPrefix, strlen(kPortalGroupPrefix)) != 0) return;
  if (!TAILQ_EMPTY(&pg->pg_ports)) return;
  const std::string name = pg->pg_name;
  portal_group_delete(pg);
  ZEL_LOG_INFO("%s: Deleted portal-group %s successfully.\n", kTag, name.c_str());
}

// A copy of what a shared group grants, so that the target keeps its
// authentication when it gets a group of its own.
void CopyAuth(const struct auth_group* from, struct auth_group* to) {
  to->ag_type = from->ag_type;
  const struct auth* auth = TAILQ_FIRST(&from->ag_auths);
  if (auth == nullptr) return;
  if (from->ag_type == AG_TYPE_CHAP) {
    auth_new_chap(to, auth->a_user, auth->a_secret, false);
  } else if (from->ag_type == AG_TYPE_CHAP_MUTUAL) {
    auth_new_chap_mutual(to, auth->a_user, auth->a_secret, auth->a_mutual_user,
                         auth->a_mutual_secret, false);
  }
}

struct auth_group* OwnAuthGroup(struct target* target) {
  if (OwnsAuthGroup(target)) return target->t_auth_group;
  const std::string name = OwnGroupName(target);
  struct auth_group* own = auth_group_find(target->t_conf, name.c_str());
  if (own == nullptr) {
    own = auth_group_new(target->t_conf, name.c_str());
    if (own == nullptr) throw OrvaCtlException("Failed to create auth-group " + name);
    own->ag_target = target;
    if (target->t_auth_group != nullptr) CopyAuth(target->t_auth_group, own);
  }
  target->t_auth_group = own;
  return own;
}

void AddInitiatorName(struct target* target, struct auth_group* ag, const std::string& name) {
  const std::string alias = Alias(target);
  try {
    if (auth_name_find(ag, name.c_str()) != nullptr) {
      throw OrvaCtlException("Initiator IQN " + name + " already exists for target " + alias);
    }
    if (auth_name_new(ag, name.c_str()) == nullptr) {
      throw OrvaCtlException("Failed to add initiator-name " + name);
    }
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to add initiator " + name + " to target " + alias + ": " +
                           e.GetMessage());
  }
}

void AddInitiatorGroupRef(struct target* target, struct auth_group* ag, const std::string& name) {
  const std::string alias = Alias(target);
  try {
    if (initiator_group_find(target->t_conf, name.c_str()) == nullptr) {
      throw OrvaCtlException(name + " is neither a valid initiator IQN nor " +
                             "a predefined Initiator group ");
    }
    if (auth_group_igroup_ref_find(ag, name.c_str()) != nullptr) {
      throw OrvaCtlException("Initiator group " + name + " already added for target " + alias);
    }
    if (auth_group_igroup_ref_add(target->t_conf, ag, name.c_str()) == nullptr) {
      throw OrvaCtlException("Failed to refer to initiator group " + name);
    }
    ZEL_LOG_INFO("%s: Adding initiator group %s to target %s\n", kTag, name.c_str(),
                 alias.c_str());
  } catch (const OrvaCtlException& e) {
    throw OrvaCtlException("Failed to add initiator group " + name + " to target " + alias +
                           ": " + e.GetMessage());
  }
}

}  // namespace

void PlaceTargetOnPortal(struct target* target, const std::string& networkInterface, int port) {
  struct conf* conf = target->t_conf;
  struct portal_group* pg;
  if (networkInterface.empty()) {
    pg = portal_group_find(conf, kDefaultGroup);
    if (pg == nullptr || !HasInterface(pg)) {
      throw OrvaCtlException("Default network interface not found.");
    }
  } else {
    pg = InterfacePortalGroup(conf, networkInterface, port);
  }
  struct port* current = zeld_target_to_port(target);
  struct portal_group* previous = current != nullptr ? current->p_portal_group : nullptr;
  if (previous == pg) return;
  if (current != nullptr) port_delete(current);
  if (port_new(conf, target, pg) == nullptr) {
    throw OrvaCtlException("Failed to add target " + Alias(target) + " to portal-group " +
                           pg->pg_name);
  }
  if (previous != nullptr) DeleteIfUnused(previous);
}

void DetachTargetGroups(struct target* target) {
  struct port* port;
  while ((port = TAILQ_FIRST(&target->t_ports)) != nullptr) {
    struct portal_group* pg = port->p_portal_group;
    port_delete(port);
    if (pg != nullptr) DeleteIfUnused(pg);
  }
  if (!OwnsAuthGroup(target)) return;
  struct auth_group* own = target->t_auth_group;
  target->t_auth_group = nullptr;
  // A file edited by hand may let another target use this group too; it
  // then stays, or that target would point at freed memory.
  const struct target* other;
  TAILQ_FOREACH(other, &target->t_conf->conf_targets, t_next) {
    if (other->t_auth_group == own) return;
  }
  auth_group_delete(own);
}

void SetNewTargetAuth(struct target* target, const AuthInfo& auth) {
  if (auth.authType.empty() || auth.authType == "No-Authentication") {
    const char* shared = auth.authType.empty() ? kDefaultGroup : kNoAuthenticationGroup;
    target->t_auth_group = auth_group_find(target->t_conf, shared);
    if (target->t_auth_group == nullptr) {
      throw OrvaCtlException(std::string("Auth-group ") + shared + " not found.");
    }
    return;
  }
  UpdateTargetAuthGroup(target, auth);
}

void AddTargetInitiators(struct target* target, const std::vector<std::string>& names) {
  if (names.empty()) return;
  int initiatorNames = 0;
  for (const std::string& name : names) initiatorNames += Util::IsValidInitiatorIQN(name) ? 1 : 0;
  checkInitiatorCount(target->t_conf, initiatorNames);
  struct auth_group* ag = OwnAuthGroup(target);
  const std::string alias = Alias(target);
  for (const std::string& name : names) {
    if (Util::IsValidInitiatorIQN(name)) {
      ZEL_LOG_INFO("%s: Adding initiator iSCSI name %s to target %s.\n", kTag, name.c_str(),
                   alias.c_str());
      AddInitiatorName(target, ag, name);
    } else {
      ZEL_LOG_INFO("%s: %s is not a valid initiator IQN taking it as an initiator group name\n",
                   kTag, name.c_str());
      AddInitiatorGroupRef(target, ag, name);
    }
  }
}

void RemoveTargetInitiators(struct target* target, const std::vector<std::string>& names) {
  const std::string alias = Alias(target);
  for (const std::string& name : names) {
    struct auth_group* ag = target->t_auth_group;
    if (Util::IsValidInitiatorIQN(name)) {
      ZEL_LOG_INFO("%s: Removing initiator iSCSI name %s from target %s.\n", kTag, name.c_str(),
                   alias.c_str());
      const struct auth_name* an =
          OwnsAuthGroup(target) ? auth_name_find(ag, name.c_str()) : nullptr;
      if (an == nullptr) {
        throw OrvaCtlException("Initiator " + name + " is not found for target " + alias);
      }
      auth_name_delete(const_cast<struct auth_name*>(an));
    } else {
      ZEL_LOG_INFO("%s: Removing intiator group %s from target %s\n", kTag, name.c_str(),
                   alias.c_str());
      struct igroup_ref* ref =
          OwnsAuthGroup(target) ? auth_group_igroup_ref_find(ag, name.c_str()) : nullptr;
      if (ref == nullptr) {
        throw OrvaCtlException("Initiator group " + name + " is not found for target " + alias);
      }
      auth_group_igroup_ref_remove(ag, ref);
    }
  }
}

void SetTargetAffinity(struct target* target, const std::string& location) {
  struct target_option* current = target_option_find(target, kAffinityOption);
  if (location.empty() || location == "None") {
    if (current != nullptr) target_option_delete(current);
    ZEL_LOG_INFO("%s: Clear affinity for target %s\n", kTag, Alias(target).c_str());
    return;
  }
  if (location != "Preferred" && location != "NonPreferred") {
    throw OrvaCtlException("The input affinity location " + location +
                           " is invalid, and the expected is {\"Preferred\" or "
                           "\"NonPreferred\"} in stretched cluster mode.");
  }
  ZEL_LOG_INFO("%s: Update affinity faultDomain: %s\n", kTag, location.c_str());
  if (current != nullptr) target_option_delete(current);
  target_option_new(target, kAffinityOption, location.c_str());
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
