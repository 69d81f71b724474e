#include "Cli.h"
#include "zel/OrvaPlugin.h"

namespace zelctl {

std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> Service() {
  std::unique_ptr<HostCtl::Orva::OrvaAsyncPlugin> plugin(
      HostCtl::Orva::OrvaAsyncPluginFactory::GetAsyncOrvaPlugin());
  return std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget>(
      plugin->GetOrvaIscsiTarget());
}

CLI::App* AddServiceCommand(CLI::App& parent, const std::string& name,
                            const std::string& description, const GlobalOptions& options,
                            int& exitCode, std::function<void()> action) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->callback([&options, &exitCode, action] {
    exitCode = RunReportingFailure([&] {
      SelectServiceHostFor(options);
      action();
      return kExitOk;
    });
  });
  return command;
}

}  // namespace zelctl
