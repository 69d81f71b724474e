// zelctl commands that change the service on this host: the namespace,
// enablement, restore and the cluster-wide defaults.
#include <filesystem>
#include <iostream>
#include <memory>
#include <vector>

#include "Cli.h"
#include "DaemonState.h"
#include "Output.h"
#include "Records.h"
#include "conf/ConfHandle.h"
#include "directory/NicPublication.h"
#include "edit/ParserQueries.h"
#include "platform/Host.h"
#include "service/Doctor.h"
#include "storage/DatastoreLayout.h"

namespace zelctl {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::NamespaceCreateParam;
using nlohmann::ordered_json;

// The defaults an operator gives. Only what is given changes: the rest
// stays as the configuration holds it, so that changing the interface never
// drops the CHAP credentials and opens every target that uses the defaults.
// A new --auth-type replaces the whole authentication.
struct DefaultsOptions {
  DefaultInfo given;
  std::string secret;
  std::string mutualSecret;
  std::vector<CLI::Option*> network;
  std::vector<CLI::Option*> credentials;
  CLI::Option* authType = nullptr;

  DefaultsOptions() {
    given.port = 3260;
    given.authType = "No-Authentication";
  }

  // `current` with the given options laid over it.
  DefaultInfo Over(DefaultInfo current) const {
    if (network[0]->count() > 0) current.networkInterface = given.networkInterface;
    if (network[1]->count() > 0) current.port = given.port;
    const bool newAuth = authType->count() > 0;
    if (newAuth) current.authType = given.authType;
    std::string* fields[] = {&current.userid, &current.secret, &current.mutualUserid,
                             &current.mutualSecret};
    const std::string values[] = {given.userid, SecretArgument(secret), given.mutualUserid,
                                  SecretArgument(mutualSecret)};
    for (size_t i = 0; i < credentials.size(); ++i) {
      if (newAuth || credentials[i]->count() > 0) *fields[i] = values[i];
    }
    return current;
  }
};

void AddDefaultsOptions(CLI::App* command, DefaultsOptions& defaults) {
  defaults.network = {
      command->add_option("--interface", defaults.given.networkInterface,
                          "Default network interface"),
      command->add_option("--port", defaults.given.port, "Default TCP port")
          ->capture_default_str()};
  defaults.authType = command->add_option("--auth-type", defaults.given.authType,
                                          "No-Authentication, CHAP or CHAP-Mutual")
                          ->capture_default_str();
  defaults.credentials = {
      command->add_option("--userid", defaults.given.userid, "CHAP user name"),
      command->add_option("--secret", defaults.secret, "CHAP secret ('-' reads it from stdin)"),
      command->add_option("--mutual-userid", defaults.given.mutualUserid,
                          "Mutual CHAP user name"),
      command->add_option("--mutual-secret", defaults.mutualSecret,
                          "Mutual CHAP secret ('-' reads it from stdin)")};
}

// The defaults zel.conf holds now, secrets included; before the namespace
// has a zel.conf, the built-in ones (port 3260, no authentication) on the
// first interface the host offers, so that its targets are served at once.
DefaultInfo CurrentDefaults() {
  if (!std::filesystem::exists(NokCtl::Orva::IscsiTarget::Util::GetConfFilePath())) {
    DefaultInfo builtIn = DefaultsOptions().given;
    const std::vector<std::string> nics =
        zel::platform::CurrentHost().Nics().GetNokKernelNicNames();
    if (!nics.empty()) builtIn.networkInterface = nics.front();
    return builtIn;
  }
  return NokCtl::Orva::IscsiTarget::Parser::GetDefaultInfo(true);
}

// Deleting the namespace deletes zel.conf with it: every target and LUN is
// lost for the whole cluster, and the targets' namespaces are orphaned.
// Checked before anything is deleted.
void RefuseToDeleteANamespaceInUse() {
  if (Service()->GetIscsiTargetStatus(true)) {
    throw OrvaCtlException(
        "The service is enabled on this host: disable it before deleting the namespace, or "
        "give --force");
  }
  const std::string path = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
  if (!std::filesystem::exists(path)) return;
  NokCtl::Orva::IscsiTarget::ConfHandle handle(NokCtl::Orva::IscsiTarget::ConfHandle::kShareMode,
                                               path);
  int targets = 0;
  const struct target* target;
  TAILQ_FOREACH(target, &handle.conf->conf_targets, t_next) ++targets;
  if (targets > 0) {
    throw OrvaCtlException("zel.conf still holds " + std::to_string(targets) +
                           " target(s): remove them before deleting the namespace, or give "
                           "--force");
  }
}

ordered_json NamespaceRecord() { return ToJson(Service()->GetNamespaceInfo(true)); }

void AddNamespaceCommands(CLI::App& ns, const GlobalOptions& options, int& exitCode) {
  auto param = std::make_shared<NamespaceCreateParam>();
  auto defaults = std::make_shared<DefaultsOptions>();
  CLI::App* create =
      AddServiceCommand(ns, "create", "Create the service's namespace on the datastore", options,
                        exitCode, [&options, param, defaults] {
                          Service()->CreateNamespace(*param, defaults->Over(CurrentDefaults()));
                          ReportDone(options.json, "Created the namespace", NamespaceRecord);
                        });
  create->add_option("--policy", param->policy, "Storage policy of the namespace");
  AddDefaultsOptions(create, *defaults);

  AddServiceCommand(ns, "update", "Change the namespace's storage policy", options, exitCode,
                    [&options, param] {
                      Service()->UpdateNamespaceConfig(*param);
                      ReportDone(options.json, "Changed the namespace's storage policy",
                                 NamespaceRecord);
                    })
      ->add_option("--policy", param->policy, "Storage policy")
      ->required();

  auto force = std::make_shared<bool>(false);
  AddServiceCommand(ns, "delete", "Delete the namespace and zel.conf", options, exitCode,
                    [&options, force] {
                      if (!*force) RefuseToDeleteANamespaceInUse();
                      Service()->DeleteNamespace();
                      ReportDone(options.json, "Deleted the namespace", [] {
                        return ordered_json{{"removed", "namespace"}};
                      });
                    })
      ->add_flag("--force", *force,
                 "Delete even while the service is enabled or targets exist (their "
                 "configuration is lost)");
}

// What `service status` shows; also the record of a change of the state.
ordered_json StatusRecord() {
  const std::string home = zel::platform::CurrentHost().Config().home;
  const bool running = HomeDaemonRunning(home);
  ordered_json status{{"enabled", Service()->GetIscsiTargetStatus(true)},
                      {"daemonRunning", running},
                      {"publishedInterfaces", ordered_json::array()}};
  for (const auto& entry : NokCtl::Orva::IscsiTarget::Util::GetBrixEntriesForNokNics()) {
    status["publishedInterfaces"].push_back(entry.GetName());
  }
  if (running) status.update(DaemonReport(home));
  return status;
}

// Enables or disables, saying whether anything had to be done.
void SetState(const GlobalOptions& options, bool enable, bool failIfSame) {
  const auto service = Service();
  const bool was = service->GetIscsiTargetStatus(true);
  service->SetIscsiTargetStatus(enable, failIfSame);
  const std::string state = enable ? "enabled" : "disabled";
  ReportDone(options.json,
             was == enable
                 ? "The service was already " + state + " on this host"
                 : std::string(enable ? "Enabled" : "Disabled") + " the service on this host",
             StatusRecord);
}

void AddServiceStateCommands(CLI::App& service, const GlobalOptions& options, int& exitCode) {
  auto failIfSame = std::make_shared<bool>(false);
  AddServiceCommand(service, "enable", "Enable the service on this host", options, exitCode,
                    [&options, failIfSame] { SetState(options, true, *failIfSame); })
      ->add_flag("--fail-if-same", *failIfSame, "Fail when already enabled");
  AddServiceCommand(service, "disable", "Disable the service on this host", options, exitCode,
                    [&options, failIfSame] { SetState(options, false, *failIfSame); })
      ->add_flag("--fail-if-same", *failIfSame, "Fail when already disabled");
  AddServiceCommand(service, "restore", "Bring an enabled service back after a restart", options,
                    exitCode, [&options] {
                      // Restoring a disabled service does nothing.
                      const auto target = Service();
                      const bool enabled = target->GetIscsiTargetStatus(true);
                      target->Restore();
                      ReportDone(options.json,
                                 enabled ? "Restored the service on this host"
                                         : "The service is disabled on this host: nothing to "
                                           "restore",
                                 StatusRecord);
                    });
  AddServiceCommand(service, "status", "Whether the service is enabled and its daemon runs",
                    options, exitCode, [&options] {
                      const ordered_json status = StatusRecord();
                      Emit(options.json, status, [&] { PrintKeyValues(std::cout, status); });
                    });
}

}  // namespace

void AddManageCommands(CLI::App& app, const GlobalOptions& options, int& exitCode) {
  CLI::App* ns = app.get_subcommand("namespace");
  AddNamespaceCommands(*ns, options, exitCode);

  CLI::App* service = app.add_subcommand("service", "The service on this host");
  service->require_subcommand(1);
  AddServiceStateCommands(*service, options, exitCode);

  // doctor: exit 0 when all is consistent, 1 with one line per finding
  // otherwise (after --repair, per finding left).
  auto repair = std::make_shared<bool>(false);
  app.add_subcommand("doctor", "Check zel.conf against the datastore and the directory")
      ->callback([&options, &exitCode, repair] {
        exitCode = RunReportingFailure([&] {
          namespace Util = NokCtl::Orva::IscsiTarget::Util;
          SelectServiceHostFor(options);
          if (*repair) {
            for (const auto& done : Util::RepairConsistency()) {
              std::cout << "repaired: " << Printable(done.text) << "\n";
            }
          }
          const auto findings = Util::CheckConsistency();
          for (const auto& finding : findings) {
            std::cout << (finding.repairable ? "repairable: " : "needs an operator: ")
                      << Printable(finding.text) << "\n";
          }
          if (findings.empty()) std::cout << "zel.conf, the datastore and the directory agree\n";
          return findings.empty() ? kExitOk : kExitFailure;
        });
      })
      ->add_flag("--repair", *repair,
                 "Remove what no target names (namespaces, links, temporary files)");

  CLI::App* defaults = app.get_subcommand("defaults");
  auto values = std::make_shared<DefaultsOptions>();
  AddDefaultsOptions(
      AddServiceCommand(*defaults, "set", "Set the cluster-wide defaults", options, exitCode,
                        [&options, values] {
                          Service()->UpdateDefaultConfig(values->Over(CurrentDefaults()));
                          ReportDone(options.json, "Set the cluster-wide defaults",
                                     [] { return ToJson(Service()->GetDefaultInfo()); });
                        }),
      *values);
}

}  // namespace zelctl
