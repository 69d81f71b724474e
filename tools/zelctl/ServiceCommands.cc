// zelctl commands that ask the service on this host: host facts, the
// namespace, targets, LUNs, defaults and initiator groups.
#include <iostream>
#include <memory>

#include "Cli.h"
#include "Output.h"
#include "Records.h"
#include "platform/Host.h"
#include "storage/DatastoreLayout.h"

namespace zelctl {
namespace {

using nlohmann::ordered_json;

const std::vector<std::string> kTargetColumns = {"alias", "iqn", "networkInterface", "port",
                                                 "authType", "ownerHostUuid", "faultDomain"};
// A LUN list shows every field of the records, as its JSON does; a
// target's block ends with the few that tell its LUNs apart.
const std::vector<std::string> kLunColumns = {
    "id",          "scsiLun", "alias",  "size",   "sizeMiB",         "sizeSectors", "status",
    "target",      "policy",  "policyCompliant", "naa", "uuid", "path"};
const std::vector<std::string> kTargetLunColumns = {"id", "alias", "size", "status", "uuid"};

void AddHostCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* host = app.add_subcommand("host", "This host and the cluster's hosts");
  host->require_subcommand(1);
  AddServiceCommand(*host, "info", "This host's identity and where its state lives", options,
                    exitCode, [&options] {
                      const auto& config = zel::platform::CurrentHost().Config();
                      const ordered_json info{
                          {"hostUuid", config.hostUuid},
                          {"hostName", config.hostName},
                          {"home", config.home},
                          {"datastorePath", config.datastoreRoot},
                          {"confPath", NokCtl::Orva::IscsiTarget::Util::GetConfFilePath()},
                          {"directory", config.directoryBackend + ":" + config.directoryPath}};
                      Emit(options.json, info, [&] { PrintKeyValues(std::cout, info); });
                    });
}

void AddTargetCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* target = app.add_subcommand("target", "Targets of the cluster");
  target->require_subcommand(1);
  auto local = std::make_shared<bool>(false);
  AddServiceCommand(*target, "list", "List targets", options, exitCode, [&options, local] {
    const ordered_json targets = ToJson(Service()->GetTargets(false, *local));
    Emit(options.json, targets, [&] { PrintTable(std::cout, targets, kTargetColumns); });
  })->add_flag("--local", *local, "Only the targets this host serves");

  auto alias = std::make_shared<std::string>();
  AddServiceCommand(*target, "get", "Show one target", options, exitCode, [&options, alias] {
    const HostCtl::Orva::IscsiTarget::TargetInfo info = Service()->GetTargetInfo(*alias);
    ordered_json record = WithComplianceReason(ToJson(info), info.ownerId);
    Emit(options.json, record, [&] {
      ordered_json luns = record["luns"];
      record.erase("luns");
      PrintKeyValues(std::cout, record);
      if (!luns.empty()) {
        std::cout << '\n';
        PrintTable(std::cout, luns, kTargetLunColumns);
      }
    });
  })->add_option("ALIAS", *alias, "Target alias")->required()->check(NonEmpty());
}

void AddLunCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* lun = app.add_subcommand("lun", "LUNs of a target");
  lun->require_subcommand(1);
  auto target = std::make_shared<std::string>();
  auto id = std::make_shared<int>(0);
  CLI::App* list = AddServiceCommand(*lun, "list", "List a target's LUNs", options, exitCode,
                                     [&options, target] {
                                       std::vector<HostCtl::Orva::IscsiTarget::LunInfo> luns;
                                       Service()->GetLuns(*target, luns, true);
                                       const ordered_json rows = ToJson(luns);
                                       Emit(options.json, rows,
                                            [&] { PrintTable(std::cout, rows, kLunColumns); });
                                     });
  list->add_option("--target", *target, "Target alias")->required()->check(NonEmpty());
  CLI::App* get = AddServiceCommand(*lun, "get", "Show one LUN", options, exitCode,
                                    [&options, target, id] {
                                      const HostCtl::Orva::IscsiTarget::LunInfo info =
                                          Service()->GetLunInfo(*target, *id);
                                      const ordered_json record =
                                          WithComplianceReason(ToJson(info), info.uuid);
                                      Emit(options.json, record,
                                           [&] { PrintKeyValues(std::cout, record); });
                                    });
  get->add_option("--target", *target, "Target alias")->required()->check(NonEmpty());
  get->add_option("--id", *id, "LUN number")->required();
}

void AddGroupCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* group = app.add_subcommand("initiator-group", "Initiator groups of the cluster");
  group->require_subcommand(1);
  AddServiceCommand(*group, "list", "List initiator groups", options, exitCode, [&options] {
    const ordered_json groups = ToJson(Service()->GetInitiatorgroups());
    Emit(options.json, groups,
         [&] { PrintTable(std::cout, groups, {"name", "initiators", "targets"}); });
  });
  auto name = std::make_shared<std::string>();
  AddServiceCommand(*group, "get", "Show one initiator group", options, exitCode,
                    [&options, name] {
                      const ordered_json record = ToJson(Service()->GetInitiatorgroupInfo(*name));
                      Emit(options.json, record, [&] { PrintKeyValues(std::cout, record); });
                    })
      ->add_option("NAME", *name, "Group name")
      ->required()
      ->check(NonEmpty());
}

}  // namespace

void AddServiceCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  AddHostCommands(app, options, exitCode);

  CLI::App* ns = app.add_subcommand("namespace", "The service's configuration namespace");
  ns->require_subcommand(1);
  AddServiceCommand(*ns, "info", "Show the namespace", options, exitCode, [&options] {
    const HostCtl::Orva::IscsiTarget::NamespaceInfo namespaceInfo = Service()->GetNamespaceInfo(true);
    const ordered_json info = WithComplianceReason(ToJson(namespaceInfo), namespaceInfo.uuid);
    Emit(options.json, info, [&] { PrintKeyValues(std::cout, info); });
  });

  AddTargetCommands(app, options, exitCode);
  AddLunCommands(app, options, exitCode);

  CLI::App* defaults = app.add_subcommand("defaults", "Cluster-wide defaults");
  defaults->require_subcommand(1);
  AddServiceCommand(*defaults, "get", "Show the defaults (secrets are never shown)", options,
                    exitCode, [&options] {
                      const ordered_json record = ToJson(Service()->GetDefaultInfo());
                      Emit(options.json, record, [&] { PrintKeyValues(std::cout, record); });
                    });

  AddGroupCommands(app, options, exitCode);
}

}  // namespace zelctl
