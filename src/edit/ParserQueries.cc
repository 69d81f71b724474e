#include "edit/ParserQueries.h"

#include "cache/ConfigCache.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Parser {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::InitiatorgroupInfo;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;

namespace {

void LogTargetLoadFailure(const OrvaCtlException& e) {
  ZEL_LOG_WARNING("%s: Failed to load targets from config file, error %s\n", "Parser",
                  e.GetMessage().c_str());
}

}  // namespace

std::vector<TargetInfo> GetTargets() {
  try {
    return ConfigCache::GetTargetsInfos();
  } catch (const OrvaCtlException& e) {
    LogTargetLoadFailure(e);
    throw;
  }
}

DefaultInfo GetDefaultInfo(bool withSecrets) {
  try {
    return ConfigCache::GetConfigInfo(withSecrets);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Failed to retrieve default config info with error %s\n", "Parser",
                    e.GetMessage().c_str());
    throw;
  }
}

void GetLunsForTarget(const std::string& alias, std::vector<LunInfo>& luns) {
  bool found;
  try {
    found = ConfigCache::GetLunInfos(alias, luns);
  } catch (const OrvaCtlException& e) {
    LogTargetLoadFailure(e);
    throw;
  }
  if (!found) throw OrvaCtlException("Target " + alias + " not found");
}

std::vector<InitiatorgroupInfo> GetInitiatorgroupsFromConfFile(const std::string& name) {
  std::vector<InitiatorgroupInfo> groups = ConfigCache::GetInitiatorGroupInfos();
  if (name.empty()) return groups;
  std::vector<InitiatorgroupInfo> named;
  for (InitiatorgroupInfo& group : groups) {
    if (group.name == name) named.push_back(std::move(group));
  }
  return named;
}

}  // namespace Parser
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
