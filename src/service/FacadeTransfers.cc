// Handing targets to other hosts: on request, off a broken interface, and
// all of a host's targets when it enters maintenance.
#include <algorithm>
#include <random>

#include "directory/HostLookup.h"
#include "placement/ObjectTransfer.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "service/OrvaIscsiTargetImpl.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {

using HostCtl::Lib::Orva::OrvaCtlException;

namespace {

const char kTag[] = "OrvaIscsiTargetImpl";
constexpr int kDecommissionChecks = 10;

// The members that may take targets: every other host not in maintenance.
std::vector<std::string> OtherHosts(const std::string& local) {
  const zel::platform::ClusterInfo cluster = OrvaInfoImpl::GetClusterInfo();
  std::vector<std::string> hosts;
  for (const zel::platform::ClusterMember& member : cluster.members) {
    if (member.hostUuid != local && !member.maintenance) hosts.push_back(member.hostUuid);
  }
  return hosts;
}

bool Decommissioned(const std::string& local) {
  zel::platform::ClusterInfo cluster;
  const NOK_ReturnStatus status = OrvaInfoImpl::GetClusterInfo(&cluster);
  if (status != NOK_OK) {
    ZEL_LOG_WARNING("%s: Failed to Get NSI node /nokModules/orva/kob/nodeDecommissioned %s\n",
                    "Util", NOK_ReturnStatusToString(status));
    return false;
  }
  for (const zel::platform::ClusterMember& member : cluster.members) {
    if (member.hostUuid == local) return member.maintenance;
  }
  return false;
}

}  // namespace

namespace Util {

// Waits, at most 10 checks a second apart, until this host is marked
// decommissioned; throws when it never is.
void WaitForNodeDecomComplete() {
  const std::string local = OrvaUtil::GetNodeUuid();
  for (int remaining = kDecommissionChecks - 1; remaining >= 0; --remaining) {
    if (Decommissioned(local)) {
      ZEL_LOG_INFO("%s: Node decommission is completed.\n", "Util");
      return;
    }
    ZEL_LOG_INFO("%s: Node is not in decommission state, remaining retry: %d\n", "Util",
                 remaining);
    if (remaining > 0) Util_Sleep(1);
  }
  throw OrvaCtlException("The node is not successfully in decommission");
}

}  // namespace Util

// Each target goes to the next host of a shuffled list of the others, so
// that many targets spread over the cluster; a target that stayed is
// tried again, `retries` more rounds at most.
void OrvaIscsiTargetImpl::TransferTargetsOwner(std::vector<Api::TargetInfo>& targets,
                                               int retries) {
  const std::string local = OrvaUtil::GetNodeUuid();
  std::vector<std::string> hosts = OtherHosts(local);
  if (hosts.empty()) {
    ZEL_LOG_INFO("%s: Skip target transfer since there is only one node.\n", kTag);
    return;
  }
  std::shuffle(hosts.begin(), hosts.end(), std::mt19937(std::random_device()()));
  size_t next = 0;
  std::vector<Api::TargetInfo> remaining = targets;
  for (;;) {
    std::vector<Api::TargetInfo> stayed;
    for (const Api::TargetInfo& target : remaining) {
      const std::string& destination = hosts[next++ % hosts.size()];
      ZEL_LOG_INFO("%s: Transfering target %s (%s) to %s\n", kTag, target.alias.c_str(),
                   target.ownerId.c_str(), destination.c_str());
      Util::TransferObjectByUuid(target.ownerId, destination);
      Util_Sleep(1);
      const std::string owner = Util::GetTargetOwnerHostUuid(target.ownerId);
      if (owner != local) {
        ZEL_LOG_INFO("%s: Succeed transfering target %s (%s) from host %s to host %s\n", kTag,
                     target.alias.c_str(), target.ownerId.c_str(), local.c_str(), owner.c_str());
      } else {
        ZEL_LOG_INFO("%s: target %s (%s) still remain on host %s\n", kTag, target.alias.c_str(),
                     target.ownerId.c_str(), local.c_str());
        stayed.push_back(target);
      }
    }
    if (stayed.empty()) {
      ZEL_LOG_INFO("%s: Succeed transfering all targets\n", kTag);
      return;
    }
    if (retries <= 0) break;
    ZEL_LOG_INFO("%s: Retry transfer target, remain retry %d\n", kTag, retries);
    --retries;
    remaining = std::move(stayed);
  }
  ZEL_LOG_WARNING("%s: Not all targets successfully transfered\n", kTag);
}

void OrvaIscsiTargetImpl::TransferLocalTargets(int mode) {
  std::vector<Api::TargetInfo> local = GetTargets(false, true);
  TransferTargetsOwner(local, mode);
}

void OrvaIscsiTargetImpl::TransferAllLocalTargets(void* nodeCount, Api::OrvaIscsiTarget* target) {
  try {
    if (*static_cast<unsigned*>(nodeCount) < 2) {
      ZEL_LOG_INFO("%s: Skip target transfer since there is only one node.\n", kTag);
      return;
    }
    Util::WaitForNodeDecomComplete();
    target->TransferLocalTargets(2);
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: Failed to transfer all targets (%s)\n", kTag, e.GetMessage().c_str());
  }
}

void OrvaIscsiTargetImpl::ZelOnLocalHostEnterMaintenanceMode(unsigned nodeCount) {
  ZEL_LOG_INFO("%s: Calling %s()\n", kTag, __func__);
  try {
    std::shared_ptr<OrvaIscsiTargetImpl> impl;
    GetOrvaIscsiTargetImpl(impl);
    if (impl->GetIscsiTargetStatus(true)) TransferAllLocalTargets(&nodeCount, impl.get());
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_ERROR("%s: %s failed with: %s\n", kTag, __func__, e.GetMessage().c_str());
  }
}

}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
