// zelctl placement: what load balancing would do on this host now, computed
// by the very planning the control thread runs, with every transfer only
// pretended; and the placement hash, to compare hosts' rings by hand.
#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

#include "Cli.h"
#include "Output.h"
#include "placement/ConsistHash.h"
#include "placement/LoadBalance.h"
#include "platform/FeatureGates.h"

namespace zelctl {
namespace {

namespace Util = NokCtl::Orva::IscsiTarget::Util;
using nlohmann::ordered_json;

const char* MethodName(int method) {
  switch (method) {
    case Util::kLoadBalanceOff:
      return "off";
    case Util::kLoadBalanceGreedy:
      return "greedy";
    case Util::kLoadBalanceConsistHash:
      return "consistent-hash";
    default:
      return "none";
  }
}

ordered_json SortedCounts(const Util::TargetCounts& counts) {
  ordered_json sorted = ordered_json::object();
  for (const auto& [host, count] : std::map<std::string, int>(counts.begin(), counts.end())) {
    sorted[host] = count;
  }
  return sorted;
}

// Why a plan that moves nothing moves nothing.
std::string WhyNothingMoves(const Util::ZelLoadBalance& job, int owned) {
  if (job.Method() == Util::kLoadBalanceOff) {
    return "load balancing is off (zelLoadBalanceMethod 0)";
  }
  if (job.Method() != Util::kLoadBalanceGreedy && job.Method() != Util::kLoadBalanceConsistHash) {
    return "zelLoadBalanceMethod " + std::to_string(job.Method()) + " names no method";
  }
  if (job.Passes().empty()) {
    return "this host owns " + std::to_string(owned) + " targets, not above the average " +
           std::to_string(job.Average());
  }
  return "no target above the average can move: none has an online LUN, or its affinity keeps "
         "it, or no host is below the average";
}

ordered_json PlanRecord(int methodOverride) {
  // Pretends every transfer succeeds, as the control thread's counts would
  // then follow; nothing is asked of the object manager.
  Util::ZelLoadBalance job([](const std::string&, const std::string&) { return NOK_OK; });
  job.InitLoadBalance();
  if (methodOverride >= 0) {
    job.Load({job.LocalHost(), job.Stretched(), job.ClusterCounts(), job.SiteCounts(),
              job.LocalTargets()},
             methodOverride);
  }
  const Util::TargetCounts before = job.ClusterCounts();
  const int owned = static_cast<int>(job.LocalTargets().size());
  job.Balance();

  ordered_json record{{"host", job.LocalHost()},
                      {"method", MethodName(job.Method())},
                      {"stretched", job.Stretched()},
                      {"owned", owned},
                      {"counts", SortedCounts(before)}};
  if (!job.SiteCounts().empty()) record["siteCounts"] = SortedCounts(job.SiteCounts());
  ordered_json passes = ordered_json::array();
  ordered_json moves = ordered_json::array();
  for (const Util::BalancePass& pass : job.Passes()) {
    const char* mode = pass.mode == Util::kSiteBalance ? "site" : "cluster";
    passes.push_back({{"mode", mode},
                      {"average", pass.average},
                      {"owned", pass.owned},
                      {"moves", static_cast<int>(pass.moves.size())}});
    for (const Util::BalanceMove& move : pass.moves) {
      moves.push_back({{"mode", mode},
                       {"target", move.alias},
                       {"uuid", move.target},
                       {"destination", move.destination}});
    }
  }
  record["average"] = job.Passes().empty() ? job.Average() : job.Passes().front().average;
  record["passes"] = passes;
  record["moves"] = moves;
  if (moves.empty()) record["reason"] = WhyNothingMoves(job, owned);
  return record;
}

}  // namespace

void AddPlacementCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* placement = app.add_subcommand("placement", "Target placement across hosts");
  placement->require_subcommand(1);

  auto method = std::make_shared<int>(-1);
  CLI::App* plan = AddServiceCommand(
      *placement, "plan", "Show what load balancing on this host would move now (a dry run)",
      options, exitCode, [&options, method] {
        const ordered_json record = PlanRecord(*method);
        Emit(options.json, record, [&] {
          ordered_json summary = record;
          summary.erase("moves");
          summary.erase("passes");
          PrintKeyValues(std::cout, summary);
          if (!record["moves"].empty()) {
            std::cout << '\n';
            PrintTable(std::cout, record["moves"], {"mode", "target", "uuid", "destination"});
          }
        });
      });
  plan->add_option("--method", *method,
                   "Plan with this method (1 greedy, 2 consistent hash) instead of the host's")
      ->check(CLI::Range(0, 2));

  auto texts = std::make_shared<std::vector<std::string>>();
  CLI::App* hash = placement->add_subcommand(
      "hash", "Print the placement hash of each TEXT in decimal, one a line");
  hash->add_option("TEXT", *texts, "Texts to hash")->required();
  hash->callback([&exitCode, texts] {
    exitCode = RunReportingFailure([&] {
      for (const std::string& text : *texts) std::cout << Util::GetHashKey(text) << '\n';
      return kExitOk;
    });
  });
}

}  // namespace zelctl
