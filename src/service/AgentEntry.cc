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

// The membership is the set of member entries under one key; whether this
// host's entry is among them is decided by querying the key again on every
// notice, because a notice may coalesce several changes or, for a subscriber
// that fell behind, carry only the entries still present.
class MembershipWatch {
 public:
  MembershipWatch(Directory& directory, std::string hostUuid, ZelMembershipLeftCallback onLeft,
                  void* context)
      : directory_(directory), hostUuid_(std::move(hostUuid)), onLeft_(onLeft), context_(context) {}

  // Subscribes before the first look, so that no removal after it is missed.
  void Start() {
    handle_ = directory_.Subscribe(zel::platform::kClusterMemberEntryType,
                                   zel::platform::kClusterMembersKey,
                                   [this](NOK_ReturnStatus, const DirectoryEntry*) { Check(); });
    Check();
  }

  void Stop() { directory_.Unsubscribe(handle_); }

 private:
  // Under the lock, query included: a stale answer must not overwrite a
  // fresher one.
  void Check() {
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<DirectoryEntry> entries;
    const NOK_ReturnStatus status = directory_.Query(zel::platform::kClusterMemberEntryType,
                                                     zel::platform::kClusterMembersKey, &entries);
    if (status != NOK_OK && status != NOK_NOT_FOUND) {
      // Unknown is not absent: the next notice looks again.
      ZEL_LOG_WARNING("%s: Failed to read the cluster membership: %s\n", kTag,
                      NOK_ReturnStatusToString(status));
      return;
    }
    const bool present =
        std::any_of(entries.begin(), entries.end(),
                    [this](const DirectoryEntry& entry) { return entry.entryId == hostUuid_; });
    if (present_ && !present) {
      ZEL_LOG_INFO("%s: Host %s is no longer a cluster member\n", kTag, hostUuid_.c_str());
      onLeft_(context_);
    }
    present_ = present;
  }

  Directory& directory_;
  const std::string hostUuid_;
  const ZelMembershipLeftCallback onLeft_;
  void* const context_;
  std::mutex mutex_;  // serialises the first look and the notices
  bool present_ = false;
  Directory::SubscriptionHandle handle_ = 0;
};

std::mutex watchesMutex;
std::map<uint64_t, std::unique_ptr<MembershipWatch>> watches;
uint64_t lastWatch = 0;

std::mutex holdMutex;
std::unique_ptr<NokCtl::Orva::IscsiTarget::MembershipLease> hold;
uint64_t lastHold = 0;

// This host's maintenance flag, read from the same membership key: every
// notice reads the members again, for the reasons MembershipWatch gives.
class MaintenanceWatch {
 public:
  MaintenanceWatch(zel::platform::Host& host, ZelMaintenanceEnteredCallback onEntered,
                   void* context)
      : host_(host), onEntered_(onEntered), context_(context) {}

  void Start() {
    handle_ = host_.GetDirectory().Subscribe(
        zel::platform::kClusterMemberEntryType, zel::platform::kClusterMembersKey,
        [this](NOK_ReturnStatus, const DirectoryEntry*) { Check(); });
    Check();
  }

  void Stop() { host_.GetDirectory().Unsubscribe(handle_); }

 private:
  void Check() {
    std::lock_guard<std::mutex> guard(mutex_);
    zel::platform::ClusterInfo cluster;
    const NOK_ReturnStatus status = host_.Cluster().GetClusterInfo(&cluster);
    if (status != NOK_OK) {
      ZEL_LOG_WARNING("%s: Failed to read the cluster membership: %s\n", kTag,
                      NOK_ReturnStatusToString(status));
      return;
    }
    const std::string local = host_.Config().hostUuid;
    const bool maintenance =
        std::any_of(cluster.members.begin(), cluster.members.end(),
                    [&local](const zel::platform::ClusterMember& member) {
                      return member.hostUuid == local && member.maintenance;
                    });
    if (maintenance && !maintenance_) {
      ZEL_LOG_INFO("%s: Host %s is in maintenance\n", kTag, local.c_str());
      onEntered_(context_, static_cast<unsigned>(cluster.members.size()));
    }
    maintenance_ = maintenance;
  }

  zel::platform::Host& host_;
  const ZelMaintenanceEnteredCallback onEntered_;
  void* const context_;
  std::mutex mutex_;  // serialises the first look and the notices
  bool maintenance_ = false;
  Directory::SubscriptionHandle handle_ = 0;
};

std::map<uint64_t, std::unique_ptr<MaintenanceWatch>> maintenanceWatches;  // watchesMutex

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
  uint64_t id = 0;
  Guarded(__func__, [&] {
    zel::platform::Host& host = zel::platform::CurrentHost();
    auto watch = std::make_unique<MembershipWatch>(host.GetDirectory(), host.Config().hostUuid,
                                                   onLeft, context);
    watch->Start();
    std::lock_guard<std::mutex> guard(watchesMutex);
    id = ++lastWatch;
    watches.emplace(id, std::move(watch));
  });
  return id;
}

void ZelUnwatchLocalMembership(uint64_t watch) {
  std::unique_ptr<MembershipWatch> stopping;
  {
    std::lock_guard<std::mutex> guard(watchesMutex);
    const auto found = watches.find(watch);
    if (found == watches.end()) return;
    stopping = std::move(found->second);
    watches.erase(found);
  }
  // Outside the registry's lock: Stop waits for a running notice to end.
  stopping->Stop();
}

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

int ZelReloadDeclaredNics(void) {
  bool changed = false;
  const bool read =
      Guarded(__func__, [&changed] { changed = zel::platform::CurrentHost().ReloadDeclaredNics(); });
  return read ? (changed ? 1 : 0) : -1;
}

uint64_t ZelWatchLocalMaintenance(ZelMaintenanceEnteredCallback onEntered, void* context) {
  uint64_t id = 0;
  Guarded(__func__, [&] {
    auto watch =
        std::make_unique<MaintenanceWatch>(zel::platform::CurrentHost(), onEntered, context);
    watch->Start();
    std::lock_guard<std::mutex> guard(watchesMutex);
    id = ++lastWatch;
    maintenanceWatches.emplace(id, std::move(watch));
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

void ZelUnwatchLocalMaintenance(uint64_t watch) {
  std::unique_ptr<MaintenanceWatch> stopping;
  {
    std::lock_guard<std::mutex> guard(watchesMutex);
    const auto found = maintenanceWatches.find(watch);
    if (found == maintenanceWatches.end()) return;
    stopping = std::move(found->second);
    maintenanceWatches.erase(found);
  }
  stopping->Stop();
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
