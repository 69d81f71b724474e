#include "zel/AgentEntry.h"

#include <algorithm>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Events.h"
#include "platform/FeatureGates.h"
#include "platform/Host.h"
#include "platform/Log.h"
#include "platform/local/LocalClusterFacts.h"
#include "service/MembershipLease.h"
#include "service/OrvaIscsiTargetImpl.h"
#include "service/ServiceConfig.h"
#include "zel/OrvaCtlException.h"

namespace {

using zel::platform::Directory;
using zel::platform::DirectoryEntry;

const char kTag[] = "AgentEntry";
const char kFacadeTag[] = "OrvaIscsiTargetImpl";

// Runs `body`, logging instead of letting an exception cross the C entry.
template <typename Body>
bool Guarded(const char* entry, Body body) {
  try {
    body();
    return true;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    ZEL_LOG_ERROR("%s: %s failed: %s\n", kTag, entry, e.GetMessage().c_str());
  } catch (const std::exception& e) {
    ZEL_LOG_ERROR("%s: %s failed: %s\n", kTag, entry, e.what());
  }
  return false;
}

// This host's member entry as the agent follows it: its removal (the host
// left the cluster) and its maintenance flag turning on. The membership is
// the set of member entries under one key, read again on every notice,
// because a notice may coalesce several changes or, for a subscriber that
// fell behind, carry only the entries still present. Each watch serves one
// of the two callbacks; the other is null.
class LocalMemberWatch {
 public:
  LocalMemberWatch(zel::platform::Host& host, ZelMembershipLeftCallback onLeft,
                   ZelMaintenanceEnteredCallback onEntered, void* context)
      : host_(host), onLeft_(onLeft), onEntered_(onEntered), context_(context) {}

  // Subscribes before the first look, so that no change after it is missed.
  void Start() {
    handle_ = host_.GetDirectory().Subscribe(
        zel::platform::kClusterMemberEntryType, zel::platform::kClusterMembersKey,
        [this](NOK_ReturnStatus, const DirectoryEntry*) { Check(); });
    Check();
  }

  void Stop() { host_.GetDirectory().Unsubscribe(handle_); }

 private:
  // Under the lock, read included: a stale answer must not overwrite a
  // fresher one.
  void Check() {
    std::lock_guard<std::mutex> guard(mutex_);
    zel::platform::ClusterInfo cluster;
    const NOK_ReturnStatus status = host_.Cluster().GetClusterInfo(&cluster);
    if (status != NOK_OK) {
      // Unknown is not absent: the next notice looks again.
      ZEL_LOG_WARNING("%s: Failed to read the cluster membership: %s\n", kTag,
                      NOK_ReturnStatusToString(status));
      return;
    }
    const std::string local = host_.Config().hostUuid;
    const auto self = std::find_if(
        cluster.members.begin(), cluster.members.end(),
        [&local](const zel::platform::ClusterMember& member) { return member.hostUuid == local; });
    const bool present = self != cluster.members.end();
    const bool maintenance = present && self->maintenance;
    if (onLeft_ != nullptr && present_ && !present) {
      ZEL_LOG_INFO("%s: Host %s is no longer a cluster member\n", kTag, local.c_str());
      onLeft_(context_);
    }
    if (onEntered_ != nullptr && maintenance && !maintenance_) {
      ZEL_LOG_INFO("%s: Host %s is in maintenance\n", kTag, local.c_str());
      onEntered_(context_, static_cast<unsigned>(cluster.members.size()));
    }
    present_ = present;
    maintenance_ = maintenance;
  }

  zel::platform::Host& host_;
  const ZelMembershipLeftCallback onLeft_;
  const ZelMaintenanceEnteredCallback onEntered_;
  void* const context_;
  std::mutex mutex_;  // serialises the first look and the notices
  bool present_ = false;
  bool maintenance_ = false;
  Directory::SubscriptionHandle handle_ = 0;
};

std::mutex watchesMutex;
std::map<uint64_t, std::unique_ptr<LocalMemberWatch>> watches;
uint64_t lastWatch = 0;

uint64_t StartWatch(const char* entry, ZelMembershipLeftCallback onLeft,
                    ZelMaintenanceEnteredCallback onEntered, void* context) {
  uint64_t id = 0;
  Guarded(entry, [&] {
    auto watch = std::make_unique<LocalMemberWatch>(zel::platform::CurrentHost(), onLeft,
                                                    onEntered, context);
    watch->Start();
    std::lock_guard<std::mutex> guard(watchesMutex);
    id = ++lastWatch;
    watches.emplace(id, std::move(watch));
  });
  return id;
}

void StopWatch(uint64_t id) {
  std::unique_ptr<LocalMemberWatch> stopping;
  {
    std::lock_guard<std::mutex> guard(watchesMutex);
    const auto found = watches.find(id);
    if (found == watches.end()) return;
    stopping = std::move(found->second);
    watches.erase(found);
  }
  // Outside the registry's lock: Stop waits for a running notice to end.
  stopping->Stop();
}

std::mutex holdMutex;
std::unique_ptr<NokCtl::Orva::IscsiTarget::MembershipLease> hold;
uint64_t lastHold = 0;

}  // namespace

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

int ZelGetNokNicCtlFlag() { return Util::ZelGetNsiIntOpt("ORVA-iSCSI", "zelNokNicCtlEnable"); }

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl

extern "C" {

int ZelSelectHostForHome(const char* home, int verbose) {
  using namespace zel::platform;
  const std::string named = home != nullptr ? home : "";
  const bool selected = Guarded(__func__, [&] {
    SelectHost(NewLocalServiceHost(LoadHostConfig(ResolveHome(named)),
                                   verbose != 0 ? LogLevel::Debug2 : LogLevel::Info));
  });
  return selected ? 0 : -1;
}

void ZelFireNokNicChange(void) {
  Guarded(__func__, [] { zel::platform::Events().FireNokNicChange(); });
}

void ZelFireClusterLeave(void) {
  Guarded(__func__, [] { zel::platform::Events().FireClusterLeave(); });
}

void ZelFireOrvaSystemRefresh(void) {
  Guarded(__func__, [] { zel::platform::Events().FireOrvaSystemRefresh(); });
}

uint64_t ZelWatchLocalMembership(ZelMembershipLeftCallback onLeft, void* context) {
  return StartWatch(__func__, onLeft, nullptr, context);
}

void ZelUnwatchLocalMembership(uint64_t watch) { StopWatch(watch); }

uint64_t ZelHoldLocalMembership(ZelMembershipLeftCallback onLost, void* context) {
  uint64_t id = 0;
  Guarded(__func__, [&] {
    zel::platform::Host& host = zel::platform::CurrentHost();
    if (!host.Config().clusterMember) return;
    std::lock_guard<std::mutex> guard(holdMutex);
    if (hold) throw std::logic_error("the membership is held already");
    hold = std::make_unique<NokCtl::Orva::IscsiTarget::MembershipLease>(
        host.Cluster(), host.GetClock(), host.Config().memberLeaseSeconds,
        [onLost, context] { onLost(context); });
    hold->Start();
    id = ++lastHold;
  });
  return id;
}

void ZelReleaseLocalMembership(uint64_t id) {
  std::unique_ptr<NokCtl::Orva::IscsiTarget::MembershipLease> stopping;
  {
    std::lock_guard<std::mutex> guard(holdMutex);
    if (id == 0 || id != lastHold) return;
    stopping = std::move(hold);
  }
  if (stopping) stopping->Stop();
}

uint64_t ZelWatchLocalMaintenance(ZelMaintenanceEnteredCallback onEntered, void* context) {
  return StartWatch(__func__, nullptr, onEntered, context);
}

void ZelUnwatchLocalMaintenance(uint64_t watch) { StopWatch(watch); }

int ZelReloadDeclaredNics(void) {
  bool changed = false;
  const bool read =
      Guarded(__func__, [&changed] { changed = zel::platform::CurrentHost().ReloadDeclaredNics(); });
  return read ? (changed ? 1 : 0) : -1;
}

void ZelInit(void) {
  Guarded(__func__, [] { NokCtl::Orva::IscsiTarget::OrvaIscsiTargetImpl::ZelInit(); });
}

void ZelDeinit(void) {
  Guarded(__func__, [] { NokCtl::Orva::IscsiTarget::OrvaIscsiTargetImpl::ZelDeinit(); });
}

void ZelFireHostEnterMaintenanceMode(unsigned nodeCount) {
  Guarded(__func__,
          [nodeCount] { zel::platform::Events().FireHostEnterMaintenanceMode(nodeCount); });
}

}  // extern "C"
