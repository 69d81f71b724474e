// The facade's target operations: validation first, then the datastore and
// zel.conf, with the target's namespace removed again when the file could
// not take the new target.
#include <boost/thread/locks.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "edit/DefaultIqn.h"
#include "edit/NetworkValidation.h"
#include "edit/ParserQueries.h"
#include "edit/TargetEditor.h"
#include "edit/Validation.h"
#include "placement/Affinity.h"
#include "platform/Log.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "storage/DatastoreLayout.h"
#include "storage/Policy.h"
#include "storage/TargetNamespace.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";
}  // namespace

void OrvaIscsiTargetImpl::AddTarget(Api::TargetCreateParam& param) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  if (param.iqn.empty()) param.iqn = Util::GetDefautltIQN(param.alias);
  Util::VerifyTargetParams(param);
  Util::VerifyNetworkConfig(param.networkInterface, param.port);
  Util::VerifyTargetAuthParams(param);
  if (!param.policy.empty()) Util::VerifyPolicy(param.policy);
  Util::ValidateSiteAffinityFor(param.faultDomain);
  Util::VerifyNewTargetAffinity(param);

  const std::string targetUuid = boost::uuids::to_string(boost::uuids::random_generator()());
  Util::CreateTargetNamespace(targetUuid, param.policy, param.uuid);
  bool rollback = true;
  try {
    Parser::AddNewTargetToConfFile(param, rollback);
  } catch (const OrvaCtlException& e) {
    if (!rollback) throw;
    ZEL_LOG_WARNING("%s: Add target %s failed: %s rollback by deleting target namespace\n", kTag,
                    param.alias.c_str(), e.GetMessage().c_str());
    Util::DeleteTargetNamespace(targetUuid);
    throw;
  }
}

void OrvaIscsiTargetImpl::RemoveTarget(const std::string& alias) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  for (const Api::TargetInfo& target : Parser::GetTargets()) {
    if (target.alias != alias) continue;
    if (!target.luns.empty()) throw OrvaCtlException("Target " + alias + " is not empty.");
    Parser::RemoveTargetFromConfFile(alias, target.uuid);
    return;
  }
  throw OrvaCtlException("Target " + alias + " is not found.");
}

void OrvaIscsiTargetImpl::UpdateTargetConfig(Api::TargetCreateParam& param) {
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  CheckIscsiServiceStatus(false);
  Util::VerifyNetworkConfig(param.networkInterface, param.port);
  Util::VerifyTargetAuthParams(param);
  Util::ValidateSiteAffinityFor(param.faultDomain);
  const Api::TargetInfo current = Util::GetTargetInfoFromConfFile(param.alias);
  try {
    ConfHandle handle(ConfHandle::kExclusiveMode, Util::GetConfFilePath());
    Parser::UpdateTargetConf(param, handle);
    Util::VerifyUpdateTargetAffinity(_complianceHandle, param, current);
    if (!param.policy.empty()) {
      Util::VerifyPolicy(param.policy);
      Util::UpdateTargetNamespacePolicy(current.uuid, param.policy);
    }
    Util::SaveAndAnnounceConfig(handle);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to update target '%s' configuration: %s\n", kTag,
                  param.alias.c_str(), e.GetMessage().c_str());
    throw;
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
