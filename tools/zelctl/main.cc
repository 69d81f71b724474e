// zelctl: the administrator's command line of the iSCSI target service.
// One operation per call.
#include <iostream>

#include "Cli.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace zelctl {

void SelectHostFor(const GlobalOptions& options) {
  using zel::platform::LogLevel;
  zel::platform::SelectHost(zel::platform::NewLocalHost(
      zel::platform::EmbeddedHostConfig(zel::platform::ResolveHome(options.home)),
      options.verbose ? LogLevel::Debug2 : LogLevel::Warning));
}

void SelectServiceHostFor(const GlobalOptions& options) {
  using zel::platform::LogLevel;
  zel::platform::SelectHost(zel::platform::NewLocalServiceHost(
      zel::platform::LoadHostConfig(zel::platform::ResolveHome(options.home)),
      options.verbose ? LogLevel::Debug2 : LogLevel::Warning));
}

int RunReportingFailure(const std::function<int()>& command) {
  try {
    return command();
  } catch (const HostCtl::Lib::HostCtlException& e) {
    std::cerr << e.GetMessage() << '\n';
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
  }
  return kExitFailure;
}

}  // namespace zelctl

int main(int argc, char** argv) {
  CLI::App app{"zelctl: manage the cluster's iSCSI target service"};
  app.require_subcommand(1);
  zelctl::GlobalOptions options;
  app.add_option("--home", options.home, "State root of this host")->envname("ZEL_HOME");
  app.add_flag("-v,--verbose", options.verbose, "Show info and debug lines too");
  app.add_flag("--json", options.json, "Print records as JSON");

  int exitCode = zelctl::kExitOk;
  zelctl::AddConfCommands(app, options, exitCode);
  zelctl::AddServiceCommands(app, options, exitCode);
  zelctl::AddManageCommands(app, options, exitCode);
  zelctl::AddEditCommands(app, options, exitCode);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return zelctl::kExitUsage;
  }
  return exitCode;
}
