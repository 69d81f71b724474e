// Reactions to cluster events. Each works on the process's singleton and
// swallows its failure after logging it: the platform calls these from its
// own threads, where an exception would have nowhere to go.
#include <boost/thread/locks.hpp>

#include "directory/NicPublication.h"
#include "platform/Log.h"
#include "service/DaemonControl.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "service/ServiceConfig.h"
#include "zel/AgentEntry.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {
const char kTag[] = "OrvaIscsiTargetImpl";
}  // namespace

void OrvaIscsiTargetImpl::ZelOnClusterLeave() {
  ZEL_LOG_INFO("%s: Handling cluster leave event.\n", kTag);
  try {
    std::shared_ptr<OrvaIscsiTargetImpl> impl;
    GetOrvaIscsiTargetImpl(impl);
    if (Util::IsRunningInOrvaMgmtd()) ZelDeinit();
    impl->SetIscsiTargetStatus(false, false);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to disable iSCSI target service (%s)\n", kTag,
                  e.GetMessage().c_str());
  }
  ZEL_LOG_INFO("%s: Handling cluster leave event completed.\n", kTag);
}

void OrvaIscsiTargetImpl::ZelOnNokNicChange() {
  try {
    std::shared_ptr<OrvaIscsiTargetImpl> impl;
    GetOrvaIscsiTargetImpl(impl);
    boost::upgrade_lock<boost::shared_mutex> status(serviceStatusMutex);
    if (!impl->GetIscsiTargetStatus(false)) return;
    ZEL_LOG_INFO("%s: Handling nok nic change event\n", kTag);
    Util::PublishNokNicsToBrix();
    Util::ReloadZeld();
    ZEL_LOG_INFO("%s: Handling nok nic change event completed.\n", kTag);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to update network info for ZEL (%s)\n", kTag,
                  e.GetMessage().c_str());
  }
}

void OrvaIscsiTargetImpl::ZelOnOrvaSystemRefresh() {
  ZEL_LOG_INFO("%s: Calling %s()\n", kTag, __func__);
  try {
    std::shared_ptr<OrvaIscsiTargetImpl> impl;
    GetOrvaIscsiTargetImpl(impl);
    impl->Refresh();
    ZelOrvaInfoRequireRefresh = true;
    boost::shared_lock<boost::shared_mutex> config(configAccessMutex);
    impl->CheckIscsiServiceStatus(true);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to refresh iscsi status (%s)\n", kTag, e.GetMessage().c_str());
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
