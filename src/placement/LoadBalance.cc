#include "placement/LoadBalance.h"

#include <algorithm>
#include <map>
#include <set>

#include "cache/ConfigCache.h"
#include "directory/HostLookup.h"
#include "placement/ConsistHash.h"
#include "placement/ObjectTransfer.h"
#include "placement/Sites.h"
#include "platform/FeatureGates.h"
#include "platform/HostServices.h"
#include "platform/Log.h"
#include "zel/OrvaCtlException.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;

namespace {

const char kTag[] = "Util";
const char kOptionGroup[] = "ORVA-iSCSI";
const char kMethodOption[] = "zelLoadBalanceMethod";
const char kPeriodOption[] = "zelLoadBalancePeriod";
// The owner recorded for an object that nobody serves.
const char kNoOwner[] = "00000000-0000-0000-0000-000000000000";
constexpr int kMinimumMembers = 3;
constexpr int kSecondsPerTick = 15;

// Ceiling of the sum over the count of entries: the quota no host may
// exceed. 0 for no entries.
int CeilingAverage(const TargetCounts& counts) {
  const int n = static_cast<int>(counts.size());
  if (n == 0) return 0;
  int sum = 0;
  for (const auto& entry : counts) sum += entry.second;
  return (sum + n - 1) / n;
}

}  // namespace

ZelLoadBalance::ZelLoadBalance(TransferFunction transfer)
    : transfer_(transfer ? std::move(transfer) : TransferFunction(TransferObjectByUuid)) {
  clusterCounts_.max_load_factor(1.0);
  siteCounts_.max_load_factor(1.0);
}

void ZelLoadBalance::PerformLoadBalance() {
  InitLoadBalance();
  Balance();
}

void ZelLoadBalance::InitLoadBalance() {
  BalanceInput input;
  input.localHost = OrvaUtil::GetNodeUuid();
  std::string localFaultDomain;
  const std::string localSite = GetNodeSiteDomain(input.localHost, &localFaultDomain);

  const zel::platform::ClusterInfo cluster = OrvaInfoImpl::GetClusterInfo();
  // A host in maintenance is being emptied: it takes no target, and its
  // own (which its maintenance moves away) count for no host.
  std::vector<zel::platform::ClusterMember> serving;
  std::set<std::string> inMaintenance;
  for (const zel::platform::ClusterMember& member : cluster.members) {
    if (member.maintenance) {
      inMaintenance.insert(member.hostUuid);
    } else {
      serving.push_back(member);
    }
  }
  if (serving.size() < kMinimumMembers) {
    throw OrvaCtlException(
        "Not enough nodes in the cluster for load balance. The minimal 3 nodes are needed, now "
        "only " +
        std::to_string(serving.size()));
  }
  // Hosts owning nothing count too: they are where the surplus goes.
  for (const zel::platform::ClusterMember& member : serving) {
    input.clusterCounts[member.hostUuid] = 0;
    if (!localSite.empty() && member.faultDomain == localFaultDomain) {
      input.siteCounts[member.hostUuid] = 0;
    }
  }
  for (const TargetInfo& target : ConfigCache::GetTargetsInfos()) {
    const std::string owner = GetTargetOwnerHostUuid(target.uuid);
    if (owner.empty() || owner == kNoOwner || inMaintenance.count(owner) != 0) continue;
    ++input.clusterCounts[owner];
    if (owner == input.localHost) input.localTargets.push_back(target);
    if (!target.faultDomain.empty() && target.faultDomain == localSite) {
      auto sited = input.siteCounts.find(owner);
      if (sited != input.siteCounts.end()) ++sited->second;
    }
  }
  input.stretched = IsInStretchedCluster();
  Load(std::move(input), ZelGetNsiIntOpt(kOptionGroup, kMethodOption));
}

void ZelLoadBalance::Load(BalanceInput input, int method) {
  localHost_ = std::move(input.localHost);
  stretched_ = input.stretched;
  clusterCounts_ = std::move(input.clusterCounts);
  siteCounts_ = std::move(input.siteCounts);
  localTargets_ = std::move(input.localTargets);
  method_ = method;
  average_ = 0;
  mode_ = kClusterBalance;
  passes_.clear();
}

void ZelLoadBalance::Balance() {
  if (stretched_ && IsTargImbalancedInSite()) RebalanceTargets();
  if (IsTargImbalancedInCluster()) RebalanceTargets();
}

bool ZelLoadBalance::IsTargImbalancedInCluster() {
  average_ = CeilingAverage(clusterCounts_);
  if (static_cast<int>(localTargets_.size()) <= average_) return false;
  mode_ = kClusterBalance;
  return true;
}

bool ZelLoadBalance::IsTargImbalancedInSite() {
  if (siteCounts_.size() < 2) return false;
  average_ = CeilingAverage(siteCounts_);
  const auto affine = std::count_if(localTargets_.begin(), localTargets_.end(),
                                    [](const TargetInfo& t) { return !t.faultDomain.empty(); });
  if (affine <= average_) return false;
  mode_ = kSiteBalance;
  return true;
}

bool ZelLoadBalance::SkipBalanceForTarget(const TargetInfo& target) const {
  const bool affine = !target.faultDomain.empty();
  if (affine != (mode_ == kSiteBalance)) return true;
  // A target that serves nothing gains nothing from moving, and its new
  // owner could not check that it can open the disks.
  return std::none_of(target.luns.begin(), target.luns.end(),
                      [](const LunInfo& lun) { return lun.status == "online"; });
}

void ZelLoadBalance::RebalanceTargets() {
  RebalanceMap plan;
  GenerateRebalanceMap(plan);
  BalancePass pass;
  pass.mode = mode_;
  pass.average = average_;
  pass.counts = mode_ == kSiteBalance ? siteCounts_ : clusterCounts_;
  pass.owned = mode_ == kSiteBalance
                   ? static_cast<int>(
                         std::count_if(localTargets_.begin(), localTargets_.end(),
                                       [](const TargetInfo& t) { return !t.faultDomain.empty(); }))
                   : static_cast<int>(localTargets_.size());
  // Asked for in configuration order rather than the plan's own, so that a
  // run can be repeated and read; the set of transfers is the plan's.
  std::vector<BalanceMove> moves;
  for (const TargetInfo& target : localTargets_) {
    auto planned = plan.find(target.uuid);
    if (planned != plan.end()) moves.push_back({target.uuid, target.alias, planned->second});
  }
  ZEL_LOG_INFO("%s: Load balance (%s) with average %d gives %d of %d targets away\n", kTag,
               mode_ == kSiteBalance ? "site" : "cluster", average_, static_cast<int>(moves.size()),
               pass.owned);
  for (BalanceMove& move : moves) {
    move.status = transfer_(move.target, move.destination);
    if (move.status != NOK_OK) continue;
    // Only the cluster counts follow the move: the site pass is over by
    // then, and the cluster pass after it must see where targets went.
    --clusterCounts_[localHost_];
    ++clusterCounts_[move.destination];
    localTargets_.erase(std::remove_if(localTargets_.begin(), localTargets_.end(),
                                       [&](const TargetInfo& t) { return t.uuid == move.target; }),
                        localTargets_.end());
  }
  pass.moves = std::move(moves);
  passes_.push_back(std::move(pass));
}

void ZelLoadBalance::GenerateRebalanceMap(RebalanceMap& plan) const {
  const TargetCounts counts = mode_ == kSiteBalance ? siteCounts_ : clusterCounts_;
  if (method_ == kLoadBalanceGreedy) {
    GreedyLoadBalance(counts, plan);
  } else if (method_ == kLoadBalanceConsistHash) {
    ConsistHashBalance(counts, plan);
  }
}

void ZelLoadBalance::GreedyLoadBalance(const TargetCounts& counts, RebalanceMap& plan) const {
  if (counts.empty()) return;
  std::vector<std::pair<std::string, int>> ranked(counts.begin(), counts.end());
  // Equal counts are ordered by host identity, the same rule on every host:
  // the hosts above the average then agree on which of them fills which
  // under-loaded host, and none is filled twice while another stays empty.
  std::sort(ranked.begin(), ranked.end(), [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  });
  const int average = average_;
  // `above`: the surplus of the hosts ranked before this one, which they
  // give to the least loaded hosts first; this host fills what is left.
  int above = 0;
  int excess = 0;
  for (const auto& [host, count] : ranked) {
    if (host == localHost_) {
      excess = count - average;
      break;
    }
    above += count - average;
  }
  std::vector<std::pair<std::string, int>> grants;
  while (!ranked.empty()) {
    const auto& [host, count] = ranked.back();
    const int deficit = average - count;
    if (deficit > 0 && deficit <= above) {
      above -= deficit;
      ranked.pop_back();
      continue;
    }
    if (excess < 1 || deficit <= 0) break;
    const int share = deficit - above;
    if (share >= excess) {
      grants.emplace_back(host, excess);
      break;
    }
    grants.emplace_back(host, share);
    excess -= share;
    above = 0;
    ranked.pop_back();
  }
  // One cursor over the local targets: a target is given at most once.
  size_t cursor = 0;
  for (const auto& [host, number] : grants) {
    for (int given = 0; given < number && cursor < localTargets_.size(); ++cursor) {
      const TargetInfo& target = localTargets_[cursor];
      if (SkipBalanceForTarget(target)) continue;
      plan.emplace(target.uuid, host);
      ++given;
    }
  }
}

void ZelLoadBalance::ConsistHashBalance(const TargetCounts& counts, RebalanceMap& plan) const {
  const int average = average_;
  std::map<std::string, int> deficits;
  for (const auto& [host, count] : counts) {
    if (count < average) deficits[host] = average - count;
  }
  if (deficits.empty()) return;
  ConsistHash ring(deficits);
  // A host this close to the average is full: the rest of the surplus
  // goes elsewhere rather than overshoot it through the ring's unevenness.
  const int full = average / 8;
  const int quota = static_cast<int>(localTargets_.size()) - average;
  int moved = 0;
  for (size_t cursor = 0; moved < quota && cursor < localTargets_.size(); ++cursor) {
    const TargetInfo& target = localTargets_[cursor];
    if (SkipBalanceForTarget(target)) continue;
    std::string destination;
    if (deficits.size() == 1) {
      destination = deficits.begin()->first;
    } else {
      destination = ring.FindHashNode(target.uuid);
      auto left = deficits.find(destination);
      if (left == deficits.end() || left->second <= full) {
        ring.RemoveHashNode(destination);
        if (left != deficits.end()) deficits.erase(left);
        destination = ring.FindHashNode(target.uuid);
        // Every under-loaded host is full: nowhere left to send anything.
        if (destination.empty()) break;
      }
    }
    --deficits[destination];
    ++moved;
    plan.emplace(target.uuid, destination);
  }
}

ZelLoadBalanceWorker::ZelLoadBalanceWorker() : balanceJob_(std::make_unique<ZelLoadBalance>()) {}

ZelLoadBalanceWorker::~ZelLoadBalanceWorker() = default;

bool ZelLoadBalanceWorker::ValidateLoadBalance(int tick) {
  if (ZelGetNsiIntOpt(kOptionGroup, kMethodOption) == kLoadBalanceOff) return false;
  const long long period = ZelGetNsiIntOpt(kOptionGroup, kPeriodOption) * 60LL;
  if (period <= 0 || (static_cast<long long>(tick) * kSecondsPerTick) % period != 0) {
    return false;
  }
  if (!ZelCheckDiskFormatVersion(kDiskFormatPlacement)) {
    throw OrvaCtlException(
        "Some hosts didn't finish Disk Format upgrade of Orva 7.0u1, reject load balance until "
        "upgrade completed.");
  }
  return true;
}

void ZelLoadBalanceWorker::StartLoadBalance() {
  if (!balanceJob_) {
    ZEL_LOG_ERROR("%s: Abort loadbalance as balanceJob is empty\n", kTag);
    return;
  }
  balanceJob_->PerformLoadBalance();
}

void PerformTargetLoadBlance(int tick) {
  try {
    ZelLoadBalanceWorker worker;
    if (worker.ValidateLoadBalance(tick)) worker.StartLoadBalance();
  } catch (const OrvaCtlException& e) {
    ZEL_LOG_WARNING("%s: Abort load balance due to: %s\n", kTag, e.GetMessage().c_str());
  } catch (const std::exception& e) {
    ZEL_LOG_WARNING("%s: Abort load balance, hit std err: %s\n", kTag, e.what());
  }
}

std::string TargetInfoVectorToPrint(const std::vector<TargetInfo>& targets,
                                    const std::string& separator) {
  std::string joined;
  for (size_t i = 0; i < targets.size(); ++i) {
    if (i > 0) joined += separator;
    joined += targets[i].alias;
  }
  return joined;
}

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
