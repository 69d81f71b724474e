// Balancing of target ownership across the hosts of the cluster (and of a
// site, for targets that have a site affinity). There is no coordinator:
// every host computes from the same cluster-wide counts the same average,
// decides which of its own targets to give away and to whom, and hands them
// over through the object manager's ownership transfer. A host at or below
// the average plans nothing; a transfer that fails, or one another host
// made meanwhile, is seen in the counts of the next period.
//
// The planning is pure: ZelLoadBalance::Load takes the counts instead of
// reading them from the host, and the transfer is a function given to the
// job, so a dry run or a simulation runs the very code the control thread
// runs without moving anything.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/NokStatus.h"
#include "zel/TargetInfo.h"

namespace NokCtl {
namespace Orva {
namespace IscsiTarget {
namespace Util {

// Values of the option "zelLoadBalanceMethod"; any other value plans nothing.
constexpr int kLoadBalanceOff = 0;
constexpr int kLoadBalanceGreedy = 1;
constexpr int kLoadBalanceConsistHash = 2;

// The job's modes: balancing over the whole cluster, or over the hosts of
// this host's site for the targets whose affinity is that site.
constexpr int kClusterBalance = 0;
constexpr int kSiteBalance = 1;

// Host UUID text -> number of targets it owns.
using TargetCounts = std::unordered_map<std::string, int>;
// Target object UUID -> destination host UUID. A target is planned once:
// a later insertion never overwrites it.
using RebalanceMap = std::unordered_map<std::string, std::string>;
// Hands target `objectUuid` to `destHost`: NOK_OK or the failure's status.
using TransferFunction =
    std::function<NOK_ReturnStatus(const std::string& objectUuid, const std::string& destHost)>;

// What a job plans from. All hosts hold the same counts; only the local
// host and its targets differ.
struct BalanceInput {
  std::string localHost;
  bool stretched = false;
  // Every member, those owning nothing included (and owners that are not
  // members, as found).
  TargetCounts clusterCounts;
  // The members of the local site, counting only the targets whose
  // affinity is that site; empty outside a stretched cluster.
  TargetCounts siteCounts;
  // The targets the local host owns, in configuration order.
  std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> localTargets;
};

// One transfer asked for by a pass, with its result.
struct BalanceMove {
  std::string target;  // object UUID
  std::string alias;
  std::string destination;
  NOK_ReturnStatus status = NOK_OK;
};

// A pass that found the local host above the average.
struct BalancePass {
  int mode = kClusterBalance;
  int average = 0;
  int owned = 0;                   // the local targets counted against the average
  TargetCounts counts;             // as the plan saw them
  std::vector<BalanceMove> moves;  // in the order they were asked for
};

// One balancing job: made fresh for each attempt, thrown away after it.
// Not thread-safe.
class ZelLoadBalance {
 public:
  // Transfers through TransferObjectByUuid unless given another function.
  explicit ZelLoadBalance(TransferFunction transfer = nullptr);

  // InitLoadBalance, then Balance.
  void PerformLoadBalance();

  // Reads the counts from this host: its identity and site, the members
  // (throws OrvaCtlException "Not enough nodes in the cluster for load
  // balance. The minimal 3 nodes are needed, now only <n>" below three),
  // the configuration's targets and their owners, and the method option.
  void InitLoadBalance();
  // Takes the counts as given, instead of InitLoadBalance.
  void Load(BalanceInput input, int method);

  // A site pass when the cluster is stretched and this host is above its
  // site's average, then a cluster pass (on the counts the site pass
  // left) when it is above the cluster's.
  void Balance();

  // Each stores the ceiling average of its counts and, when this host owns
  // more than that, sets the mode and returns true.
  bool IsTargImbalancedInCluster();
  bool IsTargImbalancedInSite();

  // True for a target that this mode must not move: a site pass moves only
  // targets with an affinity, a cluster pass only those without; and a
  // target none of whose LUNs is online (none at all included) stays.
  bool SkipBalanceForTarget(const HostCtl::Orva::IscsiTarget::TargetInfo& target) const;

  // Plans, then transfers each planned target; a success moves one count
  // from this host to the destination and drops the target from the local
  // ones, a failure changes nothing and the others still go.
  void RebalanceTargets();
  // The plan of the method for the current mode's counts.
  void GenerateRebalanceMap(RebalanceMap& plan) const;
  void GreedyLoadBalance(const TargetCounts& counts, RebalanceMap& plan) const;
  void ConsistHashBalance(const TargetCounts& counts, RebalanceMap& plan) const;

  int Average() const { return average_; }
  int Mode() const { return mode_; }
  int Method() const { return method_; }
  bool Stretched() const { return stretched_; }
  const std::string& LocalHost() const { return localHost_; }
  const TargetCounts& ClusterCounts() const { return clusterCounts_; }
  const TargetCounts& SiteCounts() const { return siteCounts_; }
  const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>& LocalTargets() const {
    return localTargets_;
  }
  const std::vector<BalancePass>& Passes() const { return passes_; }

 private:
  int average_ = 0;
  std::string localHost_;
  int mode_ = kClusterBalance;
  TargetCounts clusterCounts_;
  TargetCounts siteCounts_;
  std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> localTargets_;

  int method_ = kLoadBalanceOff;
  bool stretched_ = false;
  TransferFunction transfer_;
  std::vector<BalancePass> passes_;
};

// Owns one job for one call of PerformTargetLoadBlance.
class ZelLoadBalanceWorker {
 public:
  ZelLoadBalanceWorker();
  ~ZelLoadBalanceWorker();

  // Whether balancing is due at control-thread pass `tick` (one pass every
  // 15 seconds, counted from 1) and allowed: the method option is not off,
  // the period option (minutes, 0 never) has come round, and every host
  // has the disk format placement needs, otherwise OrvaCtlException "Some
  // hosts didn't finish Disk Format upgrade of Orva 7.0u1, reject load
  // balance until upgrade completed.".
  bool ValidateLoadBalance(int tick);
  void StartLoadBalance();

 private:
  std::unique_ptr<ZelLoadBalance> balanceJob_;
};

// The control thread's entry, once per pass. Balancing never ends the
// thread: every failure is logged here and swallowed.
void PerformTargetLoadBlance(int tick);

// The aliases of `targets` joined by `separator`.
std::string TargetInfoVectorToPrint(
    const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo>& targets,
    const std::string& separator);

}  // namespace Util
}  // namespace IscsiTarget
}  // namespace Orva
}  // namespace NokCtl
