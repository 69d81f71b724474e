#include "service/OrvaIscsiTargetImpl.h"

#include <boost/thread/locks.hpp>

#include "cache/ConfigCache.h"
#include "edit/Parser.h"
#include "platform/Log.h"
#include "platform/FeatureGates.h"
#include "platform/VolLib.h"
#include "service/ServiceConfig.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";
}  // namespace

boost::shared_mutex OrvaIscsiTargetImpl::configAccessMutex;
boost::shared_mutex OrvaIscsiTargetImpl::serviceStatusMutex;
std::shared_ptr<OrvaIscsiTargetImpl> OrvaIscsiTargetImpl::_singleton;
boost::shared_mutex OrvaIscsiTargetImpl::_singletonMutex;

OrvaIscsiTargetImpl::OrvaIscsiTargetImpl() {
  // A missing option reads 0: NAA identifiers stay off unless asked for.
  _lunNaaEnabled = Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelLunNaaEnable") != 0;
  ZEL_LOG_INFO("%s: Constructing OrvaIscsiTargetImpl() 0x%p, lunNaa: %s\n", kTag,
               static_cast<void*>(this), _lunNaaEnabled ? "Enabled" : "Disabled");
  Parser::InitZelParserLib();
  try {
    const zel::platform::ClusterInfo info = OrvaInfoImpl::GetClusterInfo();
    if (!info.isMember) {
      ZEL_LOG_INFO("%s: The host is not in a Orva cluster.\n", kTag);
      return;
    }
    LoadConfig();
    ConfigCache::CleanupCachedConfig();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_INFO("%s: Failed to get Orva status: %s\n", kTag, e.GetMessage().c_str());
  }
}

OrvaIscsiTargetImpl::~OrvaIscsiTargetImpl() {
  ZEL_LOG_INFO("%s: Destructing OrvaIscsiTargetImpl() 0x%p\n", kTag, static_cast<void*>(this));
  boost::unique_lock<boost::shared_mutex> config(configAccessMutex);
  boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
  deinitLibs();
}

void OrvaIscsiTargetImpl::GetOrvaIscsiTargetImpl(std::shared_ptr<OrvaIscsiTargetImpl>& impl) {
  boost::unique_lock<boost::shared_mutex> guard(_singletonMutex);
  if (!_singleton) _singleton = std::make_shared<OrvaIscsiTargetImpl>();
  impl = _singleton;
}

void OrvaIscsiTargetImpl::DropSingleton() {
  std::shared_ptr<OrvaIscsiTargetImpl> dropped;
  {
    boost::unique_lock<boost::shared_mutex> guard(_singletonMutex);
    dropped.swap(_singleton);
  }
  // Destroyed outside the mutex: the destructor takes the facade's locks.
}

void OrvaIscsiTargetImpl::initVolLib() {
  if (_volLibInitialized) return;
  ZEL_LOG_INFO("%s: Initializing disk lib.\n", kTag);
  if (!VolLib_Init()) throw OrvaCtlException("Failed to initialize VolLib");
  _volLibInitialized = true;
  ZEL_LOG_INFO("%s: Initialized disk lib.\n", kTag);
}

void OrvaIscsiTargetImpl::initComplianceLib() {
  if (_complianceHandle != nullptr) return;
  ZEL_LOG_INFO("%s: Initializing compliance lib.\n", kTag);
  const NOK_ReturnStatus status = OrvaCompliance_Init(&_complianceHandle);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to init Orva compliance lib:") +
                           NOK_ReturnStatusToString(status));
  }
  ZEL_LOG_INFO("%s: Initialized compliance lib.\n", kTag);
}

void OrvaIscsiTargetImpl::deinitVolLib() {
  if (!_volLibInitialized) return;
  ZEL_LOG_INFO("%s: De-initializing disk lib.\n", kTag);
  VolLib_Exit();
  _volLibInitialized = false;
  ZEL_LOG_INFO("%s: De-initialized disk lib.\n", kTag);
}

void OrvaIscsiTargetImpl::deinitComplianceLib() {
  if (_complianceHandle == nullptr) return;
  ZEL_LOG_INFO("%s: De-initializing compliance lib.\n", kTag);
  OrvaCompliance_Deinit(_complianceHandle);
  _complianceHandle = nullptr;
  ZEL_LOG_INFO("%s: De-initialized compliance lib.\n", kTag);
}

void OrvaIscsiTargetImpl::deinitLibs() {
  deinitVolLib();
  deinitComplianceLib();
}

void OrvaIscsiTargetImpl::_CheckZelConfigSubscription() {
  if (ConfigCache::IsBrixSubscribed()) return;
  try {
    ConfigCache::SubscribeBrix();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to subscribe BRIX : %s\n", kTag, e.GetMessage().c_str());
  }
}

void OrvaIscsiTargetImpl::CheckIscsiServiceStatus(bool quiet) {
  boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
  if (_isEnabled) {
    initVolLib();
    initComplianceLib();
    _CheckZelConfigSubscription();
    return;
  }
  if (quiet) return;
  throw OrvaCtlException(std::string("Orva iSCSI Target Service is not enabled or ") +
                         "the enable task is in progress.");
}

bool OrvaIscsiTargetImpl::GetIscsiTargetStatus(bool takeLock) {
  boost::shared_lock<boost::shared_mutex> status(serviceStatusMutex, boost::defer_lock);
  if (takeLock) status.lock();
  LoadConfig();
  return _isEnabled;
}

void OrvaIscsiTargetImpl::LoadConfig() {
  bool enabled = false;
  Util::LoadConfig(enabled);
  _isEnabled = enabled;
}

void OrvaIscsiTargetImpl::Refresh() {
  LoadConfig();
  ConfigCache::CleanupCachedConfig();
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
