#include "edit/DefaultsEditor.h"

#include <cstdint>
#include <string>

#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "edit/Parser.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/AuthInfo.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;

namespace {

const char kTag[] = "Parser";
const char kDefaultGroup[] = "default";

AuthInfo DefaultAuth(const DefaultInfo& info) {
  if (info.authType.empty() || info.authType == "No-Authentication") {
    return AuthInfo("No-Authentication", "", "", "", "");
  }
  return AuthInfo(info.authType, info.userid, info.secret, info.mutualUserid, info.mutualSecret);
}

// The writer prints only a group's first portal that has a host, so the
// group is left with exactly the one address asked for.
void ReplaceListen(struct portal_group* pg, const std::string& listen) {
  struct portal* portal;
  while ((portal = TAILQ_FIRST(&pg->pg_portals)) != nullptr) portal_delete(portal);
  if (portal_group_add_listen(pg, listen.c_str(), false) != 0) {
    throw OrvaCtlException("Failed to update listen address " + listen + " for portal-group " +
                           kDefaultGroup);
  }
}

}  // namespace

void UpdateDefaultConfig(const DefaultInfo& info) {
  ZEL_LOG_INFO("%s: Updating default config: auth type '%s', network interface '%s', port %d\n",
               kTag, info.authType.c_str(), info.networkInterface.c_str(), info.port);
  // The reader gives every conf both built-in "default" groups.
  ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
  struct auth_group* ag = auth_group_find(handle.conf, kDefaultGroup);
  struct portal_group* pg = portal_group_find(handle.conf, kDefaultGroup);
  UpdateAuthGroupAuth(ag, DefaultAuth(info));
  if (!info.networkInterface.empty()) {
    ReplaceListen(pg, info.networkInterface + ":" + std::to_string(info.port));
  }
  const uint64_t generation = Util::SaveAndAnnounceConfig(handle);
  ZEL_LOG_INFO("%s: Updated default config to generation %lu\n", kTag,
               static_cast<unsigned long>(generation));
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
