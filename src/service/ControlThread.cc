// The control thread: what keeps a host's service in step with the cluster
// without a caller asking. Started and stopped under ZelControlThreadMutex;
// the worker never takes it. A stop interrupts the worker in its pause.
#include <new>

#include <boost/chrono.hpp>

#include "cache/ConfigCache.h"
#include "cache/ConfigSave.h"
#include "conf/ConfHandle.h"
#include "edit/ParserQueries.h"
#include "placement/Affinity.h"
#include "placement/LoadBalance.h"
#include "platform/ExecApi.h"
#include "platform/FeatureGates.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "service/ConfigBackup.h"
#include "service/Doctor.h"
#include "service/DownNics.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "service/ServiceConfig.h"
#include "storage/DatastoreLayout.h"
#include "zel/AgentEntry.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "OrvaIscsiTargetImpl";
const char kWorker[] = "ZelControlThreadWorker";
constexpr unsigned kBackupPasses = 40;
constexpr unsigned kAffinityPasses = 12;

unsigned long ThreadId() { return static_cast<unsigned long>(::pthread_self()); }

// The pause between passes, through the host's clock (a test clock records
// it instead of sleeping) in tenths of a second, with an interruption point
// between them, so that a stop ends it within a tenth.
void Pause(unsigned seconds) {
  zel::platform::Clock& clock = zel::platform::CurrentHost().GetClock();
  for (unsigned tenth = 0; tenth < seconds * 10; ++tenth) {
    boost::this_thread::interruption_point();
    clock.SleepMicros(100000);
  }
  boost::this_thread::interruption_point();
}

// Inconsistencies between zel.conf, the datastore and the directory are
// reported, never repaired, by the thread: a repair is an operator's call.
void LogInconsistencies() {
  for (const Util::ConsistencyFinding& finding : Util::CheckConsistency()) {
    ZEL_LOG_WARNING("%s: Consistency check: %s (%s)\n", kTag, finding.text.c_str(),
                    finding.repairable ? "zelctl doctor --repair mends it" : "needs an operator");
  }
}

bool ListensOn(const Api::TargetInfo& target, const std::vector<std::string>& nics) {
  for (const std::string& nic : nics) {
    if (target.networkInterface == nic) return true;
  }
  return false;
}

}  // namespace

boost::thread OrvaIscsiTargetImpl::ZelControlThread;
boost::shared_mutex OrvaIscsiTargetImpl::ZelControlThreadMutex;
bool OrvaIscsiTargetImpl::IsZelControlThreadEnabled = false;
std::atomic<bool> OrvaIscsiTargetImpl::ZelOrvaInfoRequireRefresh{false};

void OrvaIscsiTargetImpl::ZelInit() {
  if (ZelGetNokNicCtlFlag() != 0) ZelStartControlThread();
}

void OrvaIscsiTargetImpl::ZelDeinit() {
  if (ZelGetNokNicCtlFlag() != 0) ZelStopControlThread();
}

void OrvaIscsiTargetImpl::ZelStartControlThread() {
  boost::unique_lock<boost::shared_mutex> guard(ZelControlThreadMutex);
  if (IsZelControlThreadEnabled) {
    ZEL_LOG_INFO("%s: Already exists a ZelControlThread\n", kTag);
    return;
  }
  try {
    ZelControlThread = boost::thread(&OrvaIscsiTargetImpl::ZelControlThreadWorker);
  } catch (const boost::thread_resource_error& e) {
    ZEL_LOG_ERROR("%s: %s start thread failed with: %s\n", kTag, "ZelStartControlThread",
                  e.what());
    throw OrvaCtlException("ZelStartControlThread start thread failed");
  }
  IsZelControlThreadEnabled = true;
  ZEL_LOG_INFO("%s: Started ZelControlThread\n", kTag);
}

void OrvaIscsiTargetImpl::ZelStopControlThread() {
  boost::unique_lock<boost::shared_mutex> guard(ZelControlThreadMutex);
  if (!IsZelControlThreadEnabled) return;
  ZelControlThread.interrupt();
  try {
    ZelControlThread.join();
    ZEL_LOG_INFO("%s: Terminate ZelControlThread successfully\n", kTag);
  } catch (const boost::thread_interrupted&) {
    ZEL_LOG_WARNING("%s: join ZelControlThread interrupted\n", kTag);
  }
  IsZelControlThreadEnabled = false;
}

void OrvaIscsiTargetImpl::ZelCheckConfigBrixEntry() {
  if (ConfigCache::GetZelConfBrixEntryExists(true)) return;
  try {
    uint64_t generation;
    {
      ConfHandle handle(ConfHandle::kShareMode, Util::GetConfFilePath());
      generation = handle.GetCurrentGenerationNum();
    }
    Util::DoActionForConfigChange(generation);
    ConfigCache::SetZelConfBrixEntryExists(true, true);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Failed to re-publish zel config brix entry: %s\n", kTag,
                    e.GetMessage().c_str());
  }
}

void OrvaIscsiTargetImpl::ZelControlThreadWorker() {
  std::shared_ptr<OrvaIscsiTargetImpl> impl;
  unsigned counter = 0;
  uint64_t known = 0;
  try {
    GetOrvaIscsiTargetImpl(impl);
    const unsigned tick =
        static_cast<unsigned>(zel::platform::CurrentHost().Config().controlTickSeconds);
    for (;;) {
      Pause(tick);
      try {
        ZelCheckConfigBrixEntry();
        if (ZelOrvaInfoRequireRefresh.exchange(false)) {
          // The cluster facts are read afresh on every use; the next reads
          // see the refreshed cluster.
          ZEL_LOG_INFO("%s: thread[%lx]: reload orva configs\n", kTag, ThreadId());
        }
        const unsigned next = counter + 1;
        if (counter % kBackupPasses == 0) {
          Util::BackupConfigFile();
          LogInconsistencies();
        }
        if (Util::IsRefreshConfNeeded(known) || next % kAffinityPasses == 0) {
          Util::CheckLocalTargetAffinity();
        }
        Util::PerformTargetLoadBlance(static_cast<int>(next));
        if (OrvaUtil::IsOrvaConfigStoreFeatureEnabled()) {
          Util::UpdateDefaultConfigToConfigStore(Parser::GetDefaultInfo(true));
        }
        const std::vector<std::string> nics =
            zel::platform::CurrentHost().Nics().GetNokKernelNicNames();
        const bool nothingToMove =
            nics.empty() ||
            (nics.size() == 1 && ZelFindLocalTargetsNotBindOnNokNics(nics, impl.get()).empty());
        const std::vector<std::string> down =
            nothingToMove ? std::vector<std::string>() : Util::GetZelDownNokNics();
        if (!down.empty()) {
          std::vector<Api::TargetInfo> targets = ZelFindLocalTargetsByNokNics(down, impl.get());
          if (!targets.empty()) {
            ZEL_LOG_INFO("%s: thread[%lx]: %s nok NIC is broken, transferring targets: %s\n",
                         kTag, ThreadId(), kWorker,
                         Util::TargetInfoVectorToPrint(targets, ",").c_str());
            impl->TransferTargetsOwner(targets, 2);
          }
        }
        counter = next;
      } catch (const boost::thread_interrupted&) {
        throw;
      } catch (const OrvaCtlException& e) {
        ZEL_LOG_WARNING("%s: thread[%lx]: %s failed with OrvaCtlException %s\n", kTag, ThreadId(),
                        kWorker, e.GetMessage().c_str());
      } catch (const HostCtl::Lib::HostCtlException& e) {
        ZEL_LOG_WARNING("%s: thread[%lx]: %s failed with HostCtlException %s\n", kTag, ThreadId(),
                        kWorker, e.GetMessage().c_str());
      } catch (const std::bad_alloc&) {
        ZEL_LOG_WARNING("%s: thread[%lx]: %s failed with bad_alloc\n", kTag, ThreadId(), kWorker);
      } catch (const std::exception& e) {
        ZEL_LOG_WARNING("%s: thread[%lx]: %s failed with %s\n", kTag, ThreadId(), kWorker,
                        e.what());
      }
    }
  } catch (const boost::thread_interrupted&) {
    ZEL_LOG_INFO("%s: thread[%lx]: %s receive interrupt, quit\n", kTag, ThreadId(), kWorker);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: thread[%lx]: %s cannot start: %s\n", kTag, ThreadId(), kWorker,
                  e.GetMessage().c_str());
  }
}

std::vector<Api::TargetInfo> OrvaIscsiTargetImpl::ZelFindLocalTargetsByNokNics(
    const std::vector<std::string>& nics, Api::OrvaIscsiTarget* target) {
  std::vector<Api::TargetInfo> found;
  for (Api::TargetInfo& local : target->GetTargets(false, true)) {
    if (ListensOn(local, nics)) found.push_back(std::move(local));
  }
  return found;
}

std::vector<Api::TargetInfo> OrvaIscsiTargetImpl::ZelFindLocalTargetsNotBindOnNokNics(
    const std::vector<std::string>& nics, Api::OrvaIscsiTarget* target) {
  std::vector<Api::TargetInfo> found;
  for (Api::TargetInfo& local : target->GetTargets(false, true)) {
    if (!ListensOn(local, nics)) found.push_back(std::move(local));
  }
  return found;
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
