// The service's configuration namespace and its cluster-wide defaults.
#include <boost/thread/locks.hpp>

#include "edit/DefaultsEditor.h"
#include "edit/HostState.h"
#include "edit/NetworkValidation.h"
#include "edit/Parser.h"
#include "edit/Validation.h"
#include "platform/Log.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "service/ServiceConfig.h"
#include "storage/Namespace.h"
#include "storage/NamespaceDirs.h"
#include "storage/Policy.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";
}  // namespace

// The namespace is created before the service is enabled, so there is no
// service check, and nothing is rolled back: every step tolerates having
// run before, and running the creation again completes it.
void OrvaIscsiTargetImpl::CreateNamespace(const Api::NamespaceCreateParam& param,
                                          const Api::DefaultInfo& defaults) {
  ZEL_LOG_INFO("%s: Creating ZEL namespace\n", kTag);
  boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
  {
    boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
    initVolLib();
    initComplianceLib();
  }
  Util::VerifyEnvForNamespaceCreate();
  Util::VerifyNetworkConfig(defaults.networkInterface, defaults.port);
  Util::VerifyDefaultAuthParams(defaults);
  if (!param.policy.empty()) Util::VerifyPolicy(param.policy);
  Util::CreateNamespaceDir(param.policy);
  Util::CreateConfigDirs();
  Parser::InitConf();
  Parser::UpdateDefaultConfig(defaults);
  Util::UpdateDefaultConfigToConfigStore(defaults);
}

void OrvaIscsiTargetImpl::DeleteNamespace() {
  Util::DeleteConfigDirs();
  Util::DeleteNamespaceDir();
}

void OrvaIscsiTargetImpl::UpdateNamespaceConfig(const Api::NamespaceCreateParam& param) {
  if (param.policy.empty()) return;
  try {
    Util::VerifyPolicy(param.policy);
    Util::UpdateNamespacePolicy(param.policy);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to update ZEL namespace configuration: %s\n", kTag,
                  e.GetMessage().c_str());
    throw;
  }
}

void OrvaIscsiTargetImpl::UpdateDefaultConfig(const Api::DefaultInfo& defaults) {
  CheckIscsiServiceStatus(false);
  Util::VerifyNetworkConfig(defaults.networkInterface, defaults.port);
  Util::VerifyDefaultAuthParams(defaults);
  Parser::UpdateDefaultConfig(defaults);
  Util::UpdateDefaultConfigToConfigStore(defaults);
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
