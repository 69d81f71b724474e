// zelctl commands about the cluster's hosts: who they are and what they own,
// handing targets to another host, and the events an operator raises on
// this host (maintenance, leaving the cluster, a system refresh). An event
// goes to the host agent when one runs, since what it acts on is the
// agent's (entering maintenance reaches it through the member entry's flag,
// a refresh through SIGHUP); without an agent the library handles it in
// this process, as the agent would.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

#include "Cli.h"
#include "Output.h"
#include "directory/HostLookup.h"
#include "edit/ParserQueries.h"
#include "platform/Clock.h"
#include "platform/Events.h"
#include "platform/Host.h"
#include "platform/HostServices.h"
#include "platform/local/AtomicFile.h"
#include "placement/ObjectTransfer.h"
#include "platform/local/LocalClusterFacts.h"
#include "zel/OrvaCtlException.h"

namespace zelctl {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using nlohmann::ordered_json;

// How many targets each host owns now.
std::map<std::string, int> OwnedTargets() {
  std::map<std::string, int> owned;
  for (const auto& target : NokCtl::Orva::IscsiTarget::Parser::GetTargets()) {
    try {
      ++owned[NokCtl::Orva::IscsiTarget::Util::GetTargetOwnerHostUuid(target.ownerId)];
    } catch (const OrvaCtlException&) {
      // A target without a known owner belongs to no host.
    }
  }
  return owned;
}

// The pid of this home's running host agent, or 0.
pid_t AgentPid() {
  pid_t pid = 0;
  std::ifstream(zel::platform::CurrentHost().Config().home + "/run/orvamgmtd.pid") >> pid;
  return pid > 0 && ::kill(pid, 0) == 0 ? pid : 0;
}

void SetMaintenance(bool on) {
  const NOK_ReturnStatus status = zel::platform::CurrentHost().Cluster().SetMaintenance(on);
  if (status != NOK_OK) {
    throw OrvaCtlException(std::string("Failed to ") + (on ? "enter" : "exit") +
                           " maintenance: " + NOK_ReturnStatusToString(status));
  }
}

// The member named `name`: its identity or its host name.
std::string MemberNamed(const std::string& name) {
  for (const auto& member : OrvaInfoImpl::GetClusterInfo().members) {
    if (member.hostUuid == name || member.hostName == name) return member.hostUuid;
  }
  throw OrvaCtlException("Host " + name + " is not a member of the cluster");
}

// This host's targets: alias -> target identity.
std::map<std::string, std::string> LocalTargets(const std::string& local) {
  std::map<std::string, std::string> targets;
  for (const auto& target : NokCtl::Orva::IscsiTarget::Parser::GetTargets()) {
    try {
      if (NokCtl::Orva::IscsiTarget::Util::GetTargetOwnerHostUuid(target.ownerId) == local) {
        targets[target.alias] = target.ownerId;
      }
    } catch (const OrvaCtlException&) {
      // A target without a known owner is not this host's.
    }
  }
  return targets;
}

std::string Joined(const std::map<std::string, std::string>& targets) {
  std::string list;
  for (const auto& target : targets) list += (list.empty() ? "" : ", ") + target.first;
  return list;
}

// The agent hands over one target a second, each tried three times at
// most, after it has seen the flag.
constexpr int kMaintenanceWaitBaseSeconds = 30;
constexpr int kMaintenanceWaitPerTargetSeconds = 3;

// Waits, a second between looks, until this host owns none of `targets`
// or the bound passes; on a terminal one progress line rewritten in place.
void AwaitHandOver(const std::string& local, const std::map<std::string, std::string>& targets) {
  const bool shown = ::isatty(STDERR_FILENO) == 1;
  const int bound = kMaintenanceWaitBaseSeconds +
                    kMaintenanceWaitPerTargetSeconds * static_cast<int>(targets.size());
  int waited = 0;
  for (size_t left; (left = LocalTargets(local).size()) > 0 && waited < bound; ++waited) {
    if (shown) {
      std::cerr << "\rWaiting for the host agent to hand over the targets: "
                << targets.size() - std::min(left, targets.size()) << " of " << targets.size()
                << " moved, " << waited << " s of " << bound << std::flush;
    }
    Util_Sleep(1);
  }
  if (shown && waited > 0) std::cerr << '\n';
}

// Marks this host in maintenance and sees its targets handed over: by the
// host agent, which watches the flag, or here when no agent runs (what the
// operator asked for must happen either way). The report names the new
// owner of each target that moved; targets that stay make it a failure.
void EnterMaintenance(bool json) {
  const std::string local = zel::platform::CurrentHost().Config().hostUuid;
  const std::map<std::string, std::string> before = LocalTargets(local);
  const bool agent = AgentPid() != 0;
  SetMaintenance(true);
  const zel::platform::ClusterInfo cluster = OrvaInfoImpl::GetClusterInfo();
  const bool takers = std::any_of(
      cluster.members.begin(), cluster.members.end(),
      [&local](const auto& member) { return member.hostUuid != local && !member.maintenance; });
  std::string why;  // why nothing was tried
  if (!takers) {
    why = "no other host in service can take them";
  } else if (!before.empty() && !Service()->GetIscsiTargetStatus(true)) {
    why = "the service is disabled on this host";
  } else if (!before.empty() && agent) {
    AwaitHandOver(local, before);
  } else if (!before.empty()) {
    zel::platform::Events().FireHostEnterMaintenanceMode(
        static_cast<unsigned>(cluster.members.size()));
  }
  const std::map<std::string, std::string> stayed = LocalTargets(local);
  ordered_json moved = ordered_json::object();
  for (const auto& target : before) {
    if (stayed.count(target.first) != 0) continue;
    const std::string owner =
        NokCtl::Orva::IscsiTarget::Util::GetTargetOwnerHostUuid(target.second);
    try {
      moved[target.first] = NokCtl::Orva::IscsiTarget::Util::GetHostNameFromUuid(owner);
    } catch (const OrvaCtlException&) {
      moved[target.first] = owner;  // its owner left the cluster since
    }
  }
  Emit(json, {{"maintenance", true}, {"agent", agent}, {"moved", moved}}, [&] {
    std::cout << "This host is in maintenance"
              << (agent ? "" : " (no host agent runs here: zelctl moved its targets)") << '\n';
    for (const auto& target : moved.items()) {
      std::cout << "Moved target " << Printable(target.key()) << " to "
                << Printable(target.value().get<std::string>()) << '\n';
    }
  });
  if (!stayed.empty()) {
    throw OrvaCtlException("Targets stay on this host: " + Joined(stayed) +
                           (why.empty() ? "" : " (" + why + ")"));
  }
}

struct Transfer {
  std::vector<std::string> aliases;
  std::string to;
};

}  // namespace

void AddClusterCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  auto transfer = std::make_shared<Transfer>();
  CLI::App* move = AddServiceCommand(
      *app.get_subcommand("target"), "transfer",
      "Hand targets this host owns to other hosts (shuffled), or to the host --to names",
      options, exitCode, [&options, transfer] {
        const auto service = Service();
        std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> targets;
        for (const std::string& alias : transfer->aliases) {
          targets.push_back(service->GetTargetInfo(alias));
        }
        if (transfer->to.empty()) {
          service->TransferTargetsOwner(targets, 2);
        } else {
          const std::string destination = MemberNamed(transfer->to);
          for (const auto& target : targets) {
            const NOK_ReturnStatus status =
                NokCtl::Orva::IscsiTarget::Util::TransferObjectByUuid(target.ownerId, destination);
            if (status != NOK_OK) {
              throw OrvaCtlException("Failed to transfer target " + target.alias + " to " +
                                     transfer->to + ": " + NOK_ReturnStatusToString(status));
            }
          }
        }
        ordered_json owners = ordered_json::object();
        for (const auto& target : targets) {
          owners[target.alias] =
              NokCtl::Orva::IscsiTarget::Util::GetTargetOwnerHostUuid(target.ownerId);
        }
        Emit(options.json, owners, [&] { PrintKeyValues(std::cout, owners); });
      });
  move->add_option("ALIAS", transfer->aliases, "Targets to hand over")->required()->check(NonEmpty());
  move->add_option("--to", transfer->to, "Destination host (identity or name)")->check(NonEmpty());

  CLI::App* host = app.get_subcommand("host");
  AddServiceCommand(*host, "list", "Every member of the cluster and the targets it owns", options,
                    exitCode, [&options] {
                      const std::map<std::string, int> owned = OwnedTargets();
                      ordered_json hosts = ordered_json::array();
                      for (const auto& member : OrvaInfoImpl::GetClusterInfo().members) {
                        const auto count = owned.find(member.hostUuid);
                        hosts.push_back({{"hostUuid", member.hostUuid},
                                         {"hostName", member.hostName},
                                         {"faultDomain", member.faultDomain},
                                         {"alive", member.alive},
                                         {"maintenance", member.maintenance},
                                         {"targets", count == owned.end() ? 0 : count->second}});
                      }
                      Emit(options.json, hosts, [&] {
                        PrintTable(std::cout, hosts,
                                   {"hostUuid", "hostName", "faultDomain", "alive", "maintenance",
                                    "targets"});
                      });
                    });

  CLI::App* maintenance = host->add_subcommand("maintenance", "This host's maintenance");
  maintenance->require_subcommand(1);
  AddServiceCommand(*maintenance, "enter",
                    "Decommission this host: every target it owns moves to other hosts", options,
                    exitCode, [&options] { EnterMaintenance(options.json); });
  AddServiceCommand(*maintenance, "exit", "Put this host back in service", options, exitCode,
                    [&options] {
                      SetMaintenance(false);
                      ReportDone(options.json, "This host is back in service", [] {
                        return ordered_json{{"maintenance", false}};
                      });
                    });

  AddServiceCommand(*host, "leave", "This host leaves the cluster", options, exitCode,
                    [&options] {
                      const zel::platform::HostConfig& config =
                          zel::platform::CurrentHost().Config();
                      const std::string path = config.home + "/host.json";
                      nlohmann::json document;
                      zel::platform::ReadJsonFile(path, "Host configuration", &document);
                      document["clusterMember"] = false;
                      zel::platform::WriteJsonFileAtomically(path, document, 0600);
                      zel::platform::Events().FireClusterLeave();
                      // Gone from the membership last: the host agent, which
                      // watches it, then raises the same event.
                      zel::platform::Directory& directory =
                          zel::platform::CurrentHost().GetDirectory();
                      directory.Delete(zel::platform::kClusterMemberEntryType,
                                       zel::platform::kClusterMembersKey, config.hostUuid);
                      ReportDone(options.json, "This host left the cluster", [] {
                        return ordered_json{{"clusterMember", false}};
                      });
                    });

  AddServiceCommand(*host, "refresh", "Raise the cluster system refresh event", options, exitCode,
                    [&options] {
                      const pid_t agent = AgentPid();
                      if (agent != 0) {
                        ::kill(agent, SIGHUP);
                      } else {
                        zel::platform::Events().FireOrvaSystemRefresh();
                      }
                      ReportDone(options.json,
                                 agent != 0 ? "Asked the host agent to refresh"
                                            : "Refreshed the service in this process",
                                 [agent] { return ordered_json{{"agent", agent != 0}}; });
                    });
}

}  // namespace zelctl
