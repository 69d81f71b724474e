// zelctl commands that change the service on this host: the namespace,
// enablement, restore and the cluster-wide defaults.
#include <iostream>
#include <memory>

#include "Cli.h"
#include "DaemonState.h"
#include "Output.h"
#include "Records.h"
#include "directory/NicPublication.h"
#include "platform/Host.h"

namespace zelctl {
namespace {

using HostCtl::Orva::IscsiTarget::DefaultInfo;
using HostCtl::Orva::IscsiTarget::NamespaceCreateParam;
using nlohmann::ordered_json;

struct DefaultsOptions {
  std::string networkInterface;
  int port = 3260;
  std::string authType = "No-Authentication";
  std::string userid;
  std::string secret;
  std::string mutualUserid;
  std::string mutualSecret;

  DefaultInfo ToRecord() const {
    DefaultInfo info;
    info.networkInterface = networkInterface;
    info.port = port;
    info.authType = authType;
    info.userid = userid;
    info.secret = SecretArgument(secret);
    info.mutualUserid = mutualUserid;
    info.mutualSecret = SecretArgument(mutualSecret);
    return info;
  }
};

void AddDefaultsOptions(CLI::App* command, DefaultsOptions& defaults) {
  command->add_option("--interface", defaults.networkInterface, "Default network interface");
  command->add_option("--port", defaults.port, "Default TCP port")->capture_default_str();
  command->add_option("--auth-type", defaults.authType,
                      "No-Authentication, CHAP or CHAP-Mutual")
      ->capture_default_str();
  command->add_option("--userid", defaults.userid, "CHAP user name");
  command->add_option("--secret", defaults.secret, "CHAP secret ('-' reads it from stdin)");
  command->add_option("--mutual-userid", defaults.mutualUserid, "Mutual CHAP user name");
  command->add_option("--mutual-secret", defaults.mutualSecret,
                      "Mutual CHAP secret ('-' reads it from stdin)");
}

ordered_json NamespaceRecord() { return ToJson(Service()->GetNamespaceInfo(true)); }

void AddNamespaceCommands(CLI::App& ns, const GlobalOptions& options, int& exitCode) {
  auto param = std::make_shared<NamespaceCreateParam>();
  auto defaults = std::make_shared<DefaultsOptions>();
  CLI::App* create =
      AddServiceCommand(ns, "create", "Create the service's namespace on the datastore", options,
                        exitCode, [&options, param, defaults] {
                          Service()->CreateNamespace(*param, defaults->ToRecord());
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

  AddServiceCommand(ns, "delete", "Delete the namespace and zel.conf", options, exitCode,
                    [&options] {
                      Service()->DeleteNamespace();
                      ReportDone(options.json, "Deleted the namespace", [] {
                        return ordered_json{{"removed", "namespace"}};
                      });
                    });
}

// What `service status` shows; also the record of a change of the state.
ordered_json StatusRecord() {
  ordered_json status{
      {"enabled", Service()->GetIscsiTargetStatus(true)},
      {"daemonRunning", HomeDaemonRunning(zel::platform::CurrentHost().Config().home)},
      {"publishedInterfaces", ordered_json::array()}};
  for (const auto& entry : NokCtl::Orva::IscsiTarget::Util::GetBrixEntriesForNokNics()) {
    status["publishedInterfaces"].push_back(entry.GetName());
  }
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

  CLI::App* defaults = app.get_subcommand("defaults");
  auto values = std::make_shared<DefaultsOptions>();
  AddDefaultsOptions(
      AddServiceCommand(*defaults, "set", "Set the cluster-wide defaults", options, exitCode,
                        [&options, values] {
                          Service()->UpdateDefaultConfig(values->ToRecord());
                          ReportDone(options.json, "Set the cluster-wide defaults",
                                     [] { return ToJson(Service()->GetDefaultInfo()); });
                        }),
      *values);
}

}  // namespace zelctl
