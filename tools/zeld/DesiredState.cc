#include "DesiredState.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <stdexcept>

#include "conf/ConfHandle.h"
#include "conf/ParserAuth.h"
#include "directory/DirectoryEntries.h"
#include "platform/VolLib.h"
#include "storage/DatastoreLayout.h"
#include "storage/LunPaths.h"
#include "zel/OrvaCtlException.h"

namespace zeltools {
namespace {

using NokCtl::Orva::IscsiTarget::ConfHandle;

std::string Text(const char* value) { return value == nullptr ? std::string() : value; }

std::string TargetOption(const struct target* target, const char* name) {
  const struct target_option* option = target_option_find(target, name);
  return option == nullptr ? std::string() : Text(option->to_value);
}

// A target is skipped for the reason this carries; the others go on.
struct Skip : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// "address:port" of interface `nic` as host `host` published it.
std::string PublishedPortal(const std::string& host, const std::string& nic,
                            const std::string& port) {
  std::string ipv4, ipv6;
  if (ZeldBrixGetInterfaceAddress(host, nic, &ipv4, &ipv6) != NOK_OK ||
      (ipv4.empty() && ipv6.empty())) {
    throw Skip("host " + host + " has published no address for interface " + nic);
  }
  return ipv4.empty() ? "[" + ipv6 + "]:" + port : ipv4 + ":" + port;
}

void ReadAcl(const struct auth_group* group, DesiredTarget* desired) {
  if (group == nullptr) {
    desired->admitAll = true;
    return;
  }
  if (group->ag_type == AG_TYPE_DENY) return;
  std::set<std::string> names;
  const struct auth_name* name;
  TAILQ_FOREACH(name, &group->ag_names, an_next) names.insert(Text(name->an_initator_name));
  bool groups = false;
  const struct igroup_ref* ref;
  TAILQ_FOREACH(ref, &group->ag_igroup_refs, igr_next) {
    groups = true;
    const struct initiator* member;
    TAILQ_FOREACH(member, &ref->igr_initiator_group->ig_initiators, i_next) {
      names.insert(Text(member->i_name));
    }
  }
  desired->initiators.assign(names.begin(), names.end());
  // Initiator portals restrict by address, which this engine binding does
  // not carry: a group naming only portals admits nobody rather than
  // everybody.
  desired->admitAll = names.empty() && !groups && TAILQ_EMPTY(&group->ag_portals);
}

void ReadChap(const struct auth_group* group, DesiredTarget* desired) {
  std::string type;
  const struct auth* credential = NokCtl::Orva::IscsiTarget::Parser::GetAuthInfo(group, type);
  if (credential == nullptr) return;
  // The reader keeps secrets decoded in the graph.
  desired->chap = ChapAccount{Text(credential->a_user), Text(credential->a_secret)};
  if (group->ag_type == AG_TYPE_CHAP_MUTUAL) {
    desired->mutualChap =
        ChapAccount{Text(credential->a_mutual_user), Text(credential->a_mutual_secret)};
  }
}

ServedLun ReadLun(const struct lun* lun) {
  const std::string path = GetLunAbsPath(lun);
  if (path.empty()) throw Skip("LUN " + std::to_string(lun->l_zeld_lun) + " names no usable disk");
  VolLibHandle* handle = nullptr;
  VolLibInfo* info = nullptr;
  const VolLibError opened =
      VolLib_OpenWithInfo(path, zel::platform::kDiskOpenReadOnly, 0, &handle, &info);
  if (!opened.Ok()) throw Skip("LUN " + std::to_string(lun->l_zeld_lun) + ": " + opened.text);
  VolLib_Close(handle);
  const std::vector<zel::platform::DiskExtent> extents = info->extents;
  VolLib_FreeInfo(info);
  // The engine serves one file per LUN.
  if (extents.size() != 1) {
    throw Skip("LUN " + std::to_string(lun->l_zeld_lun) + " has " +
               std::to_string(extents.size()) + " extents; only single-extent disks are served");
  }
  ServedLun served;
  served.engineLun = lun->l_zeld_lun + kEngineLunOffset;
  served.disk = path;
  const std::string dir = served.disk.substr(0, served.disk.rfind('/') + 1);
  served.backingStore = dir + extents.front().fileName;
  served.sectors = lun->l_size;
  served.online = !lun_is_offline(lun);
  served.serial = NokCtl::Orva::IscsiTarget::Util::GetLunUuid(served.disk);
  const struct option* naa = option_find(&lun->l_options, "naa");
  served.scsiId = naa != nullptr ? Text(naa->o_value) : served.serial;
  return served;
}

// A LUN that cannot be served is left out alone, noted in `skipped`.
DesiredTarget ReadTarget(const struct target* target, const std::string& hostUuid,
                         std::vector<std::string>* skipped) {
  DesiredTarget desired;
  desired.iqn = Text(target->t_name);
  desired.alias = Text(target->t_alias);
  const struct port* port = zeld_target_to_port(target);
  const struct portal* portal = port == nullptr || port->p_portal_group == nullptr
                                    ? nullptr
                                    : TAILQ_FIRST(&port->p_portal_group->pg_portals);
  if (portal == nullptr || portal->p_host == nullptr) throw Skip("it listens on no interface");
  const std::string nic = Text(portal->p_host);
  const std::string portNumber = portal->p_port == nullptr ? "3260" : Text(portal->p_port);
  desired.portal = PublishedPortal(hostUuid, nic, portNumber);

  desired.ownerObject = TargetOption(target, "owner-id");
  if (desired.ownerObject.empty()) desired.ownerObject = TargetOption(target, "uuid");
  std::string owner;
  const NOK_ReturnStatus status = ZeldBrixGetOwnerHost(desired.ownerObject, &owner);
  if (status != NOK_OK) {
    throw Skip(std::string("its owner cannot be told: ") + NOK_ReturnStatusToString(status));
  }
  ReadAcl(target->t_auth_group, &desired);
  if (owner != hostUuid) {
    desired.redirect = PublishedPortal(owner, nic, portNumber);
    return desired;
  }
  ReadChap(target->t_auth_group, &desired);
  for (const struct lun* lun : target->t_luns) {
    if (lun == nullptr) continue;
    try {
      desired.luns.push_back(ReadLun(lun));
    } catch (const Skip& e) {
      skipped->push_back("target " + desired.alias + ": " + e.what());
    }
  }
  return desired;
}

}  // namespace

bool ServedLun::operator==(const ServedLun& other) const {
  return engineLun == other.engineLun && disk == other.disk &&
         backingStore == other.backingStore && sectors == other.sectors &&
         online == other.online && serial == other.serial && scsiId == other.scsiId;
}

DesiredState ReadDesiredState(const std::string& hostUuid) {
  DesiredState state;
  const std::string path = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
  // The file handle waits for a missing file to appear, which suits an
  // editor, not a daemon asked what to serve now.
  struct stat file;
  if (::stat(path.c_str(), &file) != 0) return state;
  ConfHandle handle(ConfHandle::kShareMode, path);
  state.generation = handle.GetCurrentGenerationNum();
  const struct target* target;
  TAILQ_FOREACH(target, &handle.conf->conf_targets, t_next) {
    try {
      state.targets.push_back(ReadTarget(target, hostUuid, &state.skipped));
    } catch (const Skip& e) {
      state.skipped.push_back("target " + Text(target->t_alias) + " (" + Text(target->t_name) +
                              "): " + e.what());
    }
  }
  return state;
}

}  // namespace zeltools
