#include "ServedTargets.h"

#include <sys/stat.h>

#include <string>

#include "conf/ConfHandle.h"
#include "platform/Log.h"
#include "storage/DatastoreLayout.h"
#include "zel/OrvaCtlException.h"

namespace zeltools {
namespace {

using NokCtl::Orva::IscsiTarget::ConfHandle;

const char kTag[] = "zeld";

// "default listen nok0:3260,nok1:3260" for each portal group of the target,
// joined by "; ".
std::string PortalGroups(const struct target* target) {
  std::string text;
  const struct port* port;
  TAILQ_FOREACH(port, &target->t_ports, p_ts) {
    const struct portal_group* group = port->p_portal_group;
    if (group == nullptr) continue;
    if (!text.empty()) text += "; ";
    text += group->pg_name;
    text += " listen ";
    std::string listen;
    const struct portal* portal;
    TAILQ_FOREACH(portal, &group->pg_portals, p_next) {
      if (!listen.empty()) listen += ",";
      listen += portal->p_listen;
    }
    text += listen.empty() ? "nothing" : listen;
  }
  return text.empty() ? "none" : text;
}

void LogTarget(const struct target* target) {
  int luns = 0;
  int offline = 0;
  for (const struct lun* lun : target->t_luns) {
    if (lun == nullptr) continue;
    ++luns;
    if (lun_is_offline(lun)) ++offline;
  }
  ZEL_LOG_INFO(
      "%s: Would serve target %s alias \"%s\" on portal group %s with %d LUNs (%d "
      "offline)\n",
      kTag, target->t_name, target->t_alias != nullptr ? target->t_alias : "",
      PortalGroups(target).c_str(), luns, offline);
}

}  // namespace

void LogServedTargets() {
  std::string path;
  try {
    path = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
    // Checked first: the file handle waits for a missing file to appear,
    // which suits an editor, not a daemon that is asked what it serves.
    struct stat file;
    if (::stat(path.c_str(), &file) != 0) {
      ZEL_LOG_WARNING("%s: %s not found; serving nothing\n", kTag, path.c_str());
      return;
    }
    ConfHandle handle(ConfHandle::kShareMode, path);
    int targets = 0;
    const struct target* target;
    TAILQ_FOREACH(target, &handle.conf->conf_targets, t_next) { ++targets; }
    ZEL_LOG_INFO("%s: Read %s generation %llu with %d targets\n", kTag, path.c_str(),
                 static_cast<unsigned long long>(handle.GetCurrentGenerationNum()), targets);
    TAILQ_FOREACH(target, &handle.conf->conf_targets, t_next) LogTarget(target);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to read %s: %s\n", kTag, path.c_str(), e.GetMessage().c_str());
  } catch (const std::exception& e) {
    ZEL_LOG_ERROR("%s: Failed to read %s: %s\n", kTag, path.c_str(), e.what());
  }
}

}  // namespace zeltools
