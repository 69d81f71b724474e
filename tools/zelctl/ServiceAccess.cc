#include <iostream>

#include "Cli.h"
#include "zel/OrvaPlugin.h"

namespace zelctl {

std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> Service() {
  std::unique_ptr<HostCtl::Orva::OrvaAsyncPlugin> plugin(
      HostCtl::Orva::OrvaAsyncPluginFactory::GetAsyncOrvaPlugin());
  return std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget>(
      plugin->GetOrvaIscsiTarget());
}

std::string SecretArgument(const std::string& value) {
  if (value != "-") return value;
  std::string line;
  std::getline(std::cin, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

const CLI::Validator& NonEmpty() {
  static const CLI::Validator validator(
      [](const std::string& value) { return value.empty() ? "must not be empty" : ""; }, "",
      "NonEmpty");
  return validator;
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
