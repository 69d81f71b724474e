#include "cache/RecordConversion.h"

#include <cstdlib>
#include <string>
#include <utility>

#include "conf/ParserAuth.h"
#include "storage/LunPaths.h"
#include "storage/Units.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Conversion {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;

namespace {

constexpr int kDefaultPort = 3260;
constexpr const char* kNoConfMessage = "Cannot find Orva iSCSI configuration!";

// Optional strings of the graph (alias, mutual user, ...) are null when
// unset; records carry them as empty text.
std::string Text(const char* value) { return value == nullptr ? std::string() : value; }

std::string TargetOption(const struct target* target, const char* name) {
  const struct target_option* option = target_option_find(target, name);
  return option == nullptr ? std::string() : Text(option->to_value);
}

std::string LunOption(const struct lun* lun, const char* name) {
  const struct option* option = option_find(&lun->l_options, name);
  return option == nullptr ? std::string() : Text(option->o_value);
}

// A listen entry keeps its port as written; the reader fills in 3260 when
// the entry names none.
int PortNumber(const char* text) {
  return text == nullptr ? kDefaultPort : static_cast<int>(std::strtol(text, nullptr, 10));
}

// (sectors × 512) / unitBytes without forming the product, which a size
// near the top of the 64-bit range would overflow.
uint64_t SizeInUnits(uint64_t sectors, uint64_t unitBytes) {
  if (unitBytes == 0) return 0;
  return sectors / unitBytes * 512 + sectors % unitBytes * 512 / unitBytes;
}

TargetInfo EmptyTargetInfo() {
  return TargetInfo("", "", "", "", kDefaultPort, "", "", "", "", "", "", "", "", false);
}

LunInfo ToLunInfo(const struct lun* lun, const TargetInfo& target, uint64_t mibBytes) {
  LunInfo info;
  info.id = static_cast<int32_t>(lun->l_zeld_lun);
  info.recordVersion = 1;
  info.sizeSectors = lun->l_size;
  info.size = Util::LunSizeText(lun->l_size);
  info.sizeMiB = SizeInUnits(lun->l_size, mibBytes);
  // Only ramdisk-backed LUNs, which the service never creates, lack a path.
  if (lun->l_path != nullptr) {
    info.path = GetLunAbsPath(lun);
    if (info.path.empty()) {
      throw OrvaCtlException("Failed to get absolute path for LUN " + std::string(lun->l_path) +
                             " of target " + target.alias);
    }
    info.uuid = Util::GetLunUuid(info.path);
  }
  info.alias = LunOption(lun, "lun-alias");
  const struct option* status = option_find(&lun->l_options, "status");
  info.status = status == nullptr ? "online" : Text(status->o_value);
  info.naa = LunOption(lun, "naa");
  info.target = target.alias;
  return info;
}

TargetInfo ToTargetInfo(const struct target* target, uint64_t mibBytes) {
  TargetInfo info = EmptyTargetInfo();
  info.alias = Text(target->t_alias);
  info.iqn = Text(target->t_name);
  info.uuid = TargetOption(target, "uuid");

  const struct auth_group* ag = target->t_auth_group;
  const struct auth* credential = Parser::GetAuthInfo(ag, info.authType);
  if (credential != nullptr) {
    info.userid = Text(credential->a_user);
    if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) info.mutualUserid = Text(credential->a_mutual_user);
  }
  info.ownerId = TargetOption(target, "owner-id");
  info.faultDomain = TargetOption(target, "fault-domain");

  const struct port* port = zeld_target_to_port(target);
  if (port != nullptr && port->p_portal_group != nullptr) {
    const struct portal* portal = TAILQ_FIRST(&port->p_portal_group->pg_portals);
    if (portal != nullptr) {
      info.networkInterface = Text(portal->p_host);
      info.port = PortNumber(portal->p_port);
    }
  }

  if (ag != nullptr) {
    const struct auth_name* name;
    TAILQ_FOREACH(name, &ag->ag_names, an_next) {
      info.initiators.push_back(Text(name->an_initator_name));
    }
    const struct igroup_ref* ref;
    TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
      info.initiatorGroups.push_back(Text(ref->igr_initiator_group->ig_name));
    }
  }

  for (const struct lun* lun : target->t_luns) {
    if (lun != nullptr) info.luns.push_back(ToLunInfo(lun, info, mibBytes));
  }
  return info;
}

// By identity, not by name: group names are not guaranteed unique in a
// graph, and a reference always points at one group.
bool RefersTo(const struct auth_group* ag, const struct initiator_group* group) {
  if (ag == nullptr) return false;
  const struct igroup_ref* ref;
  TAILQ_FOREACH(ref, &ag->ag_igroup_refs, igr_next) {
    if (ref->igr_initiator_group == group) return true;
  }
  return false;
}

}  // namespace

DefaultInfo GetConfigInfoFromConf(const struct conf* conf, bool withSecrets) {
  DefaultInfo info;
  if (conf == nullptr) throw OrvaCtlException(kNoConfMessage);

  const struct auth_group* ag = auth_group_find(conf, "default");
  const struct auth* credential = Parser::GetAuthInfo(ag, info.authType);
  if (credential != nullptr) {
    info.userid = Text(credential->a_user);
    if (withSecrets) info.secret = Text(credential->a_secret);
    if (ag->ag_type == AG_TYPE_CHAP_MUTUAL) {
      info.mutualUserid = Text(credential->a_mutual_user);
      if (withSecrets) info.mutualSecret = Text(credential->a_mutual_secret);
    }
  }

  const struct portal_group* pg = portal_group_find(conf, "default");
  if (pg != nullptr) {
    // A group normally has one listen entry; should there be more, the last
    // one is what new targets inherit.
    const struct portal* portal;
    TAILQ_FOREACH(portal, &pg->pg_portals, p_next) {
      if (portal->p_host == nullptr || portal->p_host[0] == '\0') {
        throw OrvaCtlException("Default network interface not found.");
      }
      info.networkInterface = portal->p_host;
      info.port = PortNumber(portal->p_port);
    }
  }
  return info;
}

void _GetTargetInfos(const struct conf* conf, std::vector<TargetInfo>& out) {
  if (conf == nullptr) throw OrvaCtlException(kNoConfMessage);
  const uint64_t mibBytes = GetUnitValueFromString("mib");
  const struct target* target;
  TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
    out.push_back(ToTargetInfo(target, mibBytes));
  }
}

void _GetInitiatorGroupInfos(const struct conf* conf, std::vector<InitiatorgroupInfo>& out) {
  if (conf == nullptr) throw OrvaCtlException(kNoConfMessage);
  const struct initiator_group* group;
  TAILQ_FOREACH(group, &conf->conf_initiator_groups, ig_next) {
    InitiatorgroupInfo info;
    info.name = Text(group->ig_name);
    const struct initiator* initiator;
    TAILQ_FOREACH(initiator, &group->ig_initiators, i_next) {
      info.initiators.push_back(Text(initiator->i_name));
    }
    const struct target* target;
    TAILQ_FOREACH(target, &conf->conf_targets, t_next) {
      // Keyed by alias: a later target with an alias already present does
      // not replace the first.
      if (RefersTo(target->t_auth_group, group)) {
        info.targets.emplace(Text(target->t_alias), Text(target->t_name));
      }
    }
    out.push_back(std::move(info));
  }
}

}  // namespace Conversion
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
