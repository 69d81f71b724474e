// zelctl commands about the cluster's hosts: who they are and what they own,
// handing targets to another host, and the events an operator raises on
// this host (maintenance, leaving the
// cluster, a system refresh). An event is raised in this process, where the
// library handles it as the host agent would; a refresh goes to the host
// agent when one runs, since what it refreshes is the agent's.
#include <signal.h>

#include <fstream>
#include <iostream>
#include <map>
#include <memory>

#include "Cli.h"
#include "Output.h"
#include "directory/HostLookup.h"
#include "edit/ParserQueries.h"
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
                    exitCode, [&options] {
                      SetMaintenance(true);
                      const unsigned members =
                          static_cast<unsigned>(OrvaInfoImpl::GetClusterInfo().members.size());
                      zel::platform::Events().FireHostEnterMaintenanceMode(members);
                      ReportDone(options.json, "This host is in maintenance", [] {
                        return ordered_json{{"maintenance", true}};
                      });
                    });
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
