// Load balancing over simulated clusters: every host plans from the same
// counts with the real planning code, as hosts do at the same period, and
// the planned transfers are then applied. For each cluster size, starting
// skew and method it prints the moves made next to the fewest that could
// even the cluster (the sum over hosts of their count above the average),
// the periods until no host is above the average, and the largest count
// above the average that a destination reached.
#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "placement/LoadBalance.h"

namespace {

namespace Util = NokCtl::Orva::IscsiTarget::Util;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::TargetInfo;

constexpr int kTargets = 128;  // the configuration's limit
constexpr int kMaxPeriods = 40;

std::string RandomUuid(std::mt19937_64& random) {
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) text += '-';
    text += kHex[random() % 16];
  }
  return text;
}

struct Cluster {
  std::vector<std::string> hosts;
  std::vector<TargetInfo> targets;  // configuration order
  std::vector<int> owner;           // index into hosts, per target
};

enum class Skew { AllOnOne, Random, OneEmpty };

Cluster MakeCluster(int hosts, Skew skew, unsigned seed) {
  std::mt19937_64 random(seed);
  Cluster cluster;
  for (int h = 0; h < hosts; ++h) cluster.hosts.push_back(RandomUuid(random));
  for (int t = 0; t < kTargets; ++t) {
    const std::string uuid = RandomUuid(random);
    TargetInfo target("t" + std::to_string(t), "iqn.2026-11.local.zel:t" + std::to_string(t), uuid,
                      "", 3260, "None", "", "", uuid, "", "", "", "", true);
    LunInfo lun;
    lun.status = "online";
    target.luns.push_back(lun);
    cluster.targets.push_back(target);
    switch (skew) {
      case Skew::AllOnOne:
        cluster.owner.push_back(0);
        break;
      case Skew::Random:
        cluster.owner.push_back(static_cast<int>(random() % hosts));
        break;
      case Skew::OneEmpty:
        cluster.owner.push_back(1 + t % (hosts - 1));
        break;
    }
  }
  return cluster;
}

struct Outcome {
  int moves = 0;
  int minimum = 0;
  int periods = -1;  // -1: still imbalanced after kMaxPeriods
  int overshoot = 0;
};

Util::TargetCounts Counts(const Cluster& cluster) {
  Util::TargetCounts counts;
  for (const std::string& host : cluster.hosts) counts[host] = 0;
  for (int owner : cluster.owner) ++counts[cluster.hosts[owner]];
  return counts;
}

int CeilingAverage(const Cluster& cluster) {
  const int n = static_cast<int>(cluster.hosts.size());
  return (kTargets + n - 1) / n;
}

int AboveAverage(const Util::TargetCounts& counts, int average) {
  int above = 0;
  for (const auto& entry : counts) above += std::max(0, entry.second - average);
  return above;
}

Outcome Simulate(Cluster cluster, int method) {
  const int average = CeilingAverage(cluster);
  Outcome outcome;
  outcome.minimum = AboveAverage(Counts(cluster), average);
  std::map<std::string, int> index;
  for (size_t h = 0; h < cluster.hosts.size(); ++h) index[cluster.hosts[h]] = static_cast<int>(h);
  std::map<std::string, int> targetIndex;
  for (size_t t = 0; t < cluster.targets.size(); ++t) {
    targetIndex[cluster.targets[t].uuid] = static_cast<int>(t);
  }
  for (int period = 0; period < kMaxPeriods; ++period) {
    const Util::TargetCounts counts = Counts(cluster);
    if (AboveAverage(counts, average) == 0) {
      outcome.periods = period;
      return outcome;
    }
    // Every host plans from the counts of the period's start; the moves
    // land after all of them planned, as transfers made meanwhile by other
    // hosts are only seen next period.
    std::vector<std::pair<int, int>> moves;  // (target, destination host)
    for (size_t h = 0; h < cluster.hosts.size(); ++h) {
      Util::BalanceInput input;
      input.localHost = cluster.hosts[h];
      input.clusterCounts = counts;
      for (size_t t = 0; t < cluster.targets.size(); ++t) {
        if (cluster.owner[t] == static_cast<int>(h))
          input.localTargets.push_back(cluster.targets[t]);
      }
      Util::ZelLoadBalance job([&](const std::string& target, const std::string& destination) {
        moves.emplace_back(targetIndex.at(target), index.at(destination));
        return NOK_OK;
      });
      job.Load(std::move(input), method);
      job.Balance();
    }
    if (moves.empty()) return outcome;  // stuck: nobody plans anything
    for (const auto& [target, destination] : moves) cluster.owner[target] = destination;
    outcome.moves += static_cast<int>(moves.size());
    const Util::TargetCounts after = Counts(cluster);
    for (const auto& [target, destination] : moves) {
      outcome.overshoot =
          std::max(outcome.overshoot, after.at(cluster.hosts[destination]) - average);
    }
  }
  if (AboveAverage(Counts(cluster), average) == 0) outcome.periods = kMaxPeriods;
  return outcome;
}

}  // namespace

int main() {
  const int sizes[] = {3, 4, 5, 8, 16, 32, 64};
  const std::pair<Skew, const char*> skews[] = {
      {Skew::AllOnOne, "all-on-one"}, {Skew::Random, "random"}, {Skew::OneEmpty, "one-empty"}};
  const std::pair<int, const char*> methods[] = {{Util::kLoadBalanceGreedy, "greedy"},
                                                 {Util::kLoadBalanceConsistHash, "consist-hash"}};
  std::printf(
      "%d targets; moves made / minimum moves (sum of counts above the ceiling average),\n"
      "periods until no host is above the average (never: still above after %d),\n"
      "largest count above the average a destination reached\n\n",
      kTargets, kMaxPeriods);
  std::printf("%-6s %-11s %-13s %7s %7s %6s %8s %9s\n", "hosts", "skew", "method", "average",
              "moves", "min", "periods", "overshoot");
  for (int hosts : sizes) {
    for (const auto& [skew, skewName] : skews) {
      for (const auto& [method, methodName] : methods) {
        const Cluster cluster = MakeCluster(hosts, skew, 20261124u + static_cast<unsigned>(hosts));
        const Outcome outcome = Simulate(cluster, method);
        const std::string periods = outcome.periods < 0 ? "never" : std::to_string(outcome.periods);
        std::printf("%-6d %-11s %-13s %7d %7d %6d %8s %9d\n", hosts, skewName, methodName,
                    CeilingAverage(cluster), outcome.moves, outcome.minimum, periods.c_str(),
                    outcome.overshoot);
      }
    }
  }
  return 0;
}
