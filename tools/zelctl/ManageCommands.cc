// zelctl commands that change the service on this host: the namespace,
// enablement, restore and the cluster-wide defaults.
#include <signal.h>

#include <fstream>
#include <iostream>
#include <memory>

#include "Cli.h"
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

// The daemon's pid file under the home; a live pid means it runs.
bool DaemonRunning() {
  std::ifstream pidFile(zel::platform::CurrentHost().Config().home + "/run/zeld.pid");
  long pid = 0;
  return (pidFile >> pid) && pid > 0 && kill(static_cast<pid_t>(pid), 0) == 0;
}

void AddNamespaceCommands(CLI::App& ns, const GlobalOptions& options, int& exitCode) {
  auto param = std::make_shared<NamespaceCreateParam>();
  auto defaults = std::make_shared<DefaultsOptions>();
  CLI::App* create = AddServiceCommand(
      ns, "create", "Create the service's namespace on the datastore", options, exitCode,
      [param, defaults] { Service()->CreateNamespace(*param, defaults->ToRecord()); });
  create->add_option("--policy", param->policy, "Storage policy of the namespace");
  AddDefaultsOptions(create, *defaults);

  AddServiceCommand(ns, "update", "Change the namespace's storage policy", options, exitCode,
             [param] { Service()->UpdateNamespaceConfig(*param); })
      ->add_option("--policy", param->policy, "Storage policy")
      ->required();

  AddServiceCommand(ns, "delete", "Delete the namespace and zel.conf", options, exitCode,
             [] { Service()->DeleteNamespace(); });
}

void AddServiceStateCommands(CLI::App& service, const GlobalOptions& options, int& exitCode) {
  auto failIfSame = std::make_shared<bool>(false);
  AddServiceCommand(service, "enable", "Enable the service on this host", options, exitCode,
             [failIfSame] { Service()->SetIscsiTargetStatus(true, *failIfSame); })
      ->add_flag("--fail-if-same", *failIfSame, "Fail when already enabled");
  AddServiceCommand(service, "disable", "Disable the service on this host", options, exitCode,
             [failIfSame] { Service()->SetIscsiTargetStatus(false, *failIfSame); })
      ->add_flag("--fail-if-same", *failIfSame, "Fail when already disabled");
  AddServiceCommand(service, "restore", "Bring an enabled service back after a restart", options,
             exitCode, [] { Service()->Restore(); });
  AddServiceCommand(service, "status", "Whether the service is enabled and its daemon runs", options,
             exitCode, [&options] {
               ordered_json status{{"enabled", Service()->GetIscsiTargetStatus(true)},
                                   {"daemonRunning", DaemonRunning()},
                                   {"publishedInterfaces", ordered_json::array()}};
               for (const auto& entry :
                    NokCtl::Orva::IscsiTarget::Util::GetBrixEntriesForNokNics()) {
                 status["publishedInterfaces"].push_back(entry.GetName());
               }
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
  AddDefaultsOptions(AddServiceCommand(*defaults, "set", "Set the cluster-wide defaults", options,
                                exitCode,
                                [values] { Service()->UpdateDefaultConfig(values->ToRecord()); }),
                     *values);
}

}  // namespace zelctl
