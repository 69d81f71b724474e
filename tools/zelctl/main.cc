// zelctl: the administrator's command line of the iSCSI target service.
// One operation per call.
#include <filesystem>
#include <iostream>
#include <mutex>

#include "Cli.h"
#include "Output.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace zelctl {
namespace {

using zel::platform::LogLevel;

const char kRunWithHelp[] = "Run with --help for more information.\n";

std::mutex logMutex;
std::function<void(const std::string&)> logWatcher;  // guarded by logMutex

// Log lines on stderr, escaped: they quote names and file contents.
class TerminalLog final : public zel::platform::LogSink {
 public:
  // `shown` false: nothing is written.
  TerminalLog(bool shown, LogLevel maxLevel) : shown_(shown), maxLevel_(maxLevel) {}
  void Write(LogLevel level, const std::string& line) override {
    std::lock_guard<std::mutex> guard(logMutex);
    if (logWatcher) logWatcher(line);
    if (!shown_ || static_cast<int>(level) > static_cast<int>(maxLevel_)) return;
    std::cerr << Printable(line) << '\n';
  }

 private:
  const bool shown_;
  const LogLevel maxLevel_;
};

// Absolute, as zeld records it, so that the daemon this host starts can be
// told apart from another home's whatever the working directory was.
std::string Home(const GlobalOptions& options) {
  return std::filesystem::absolute(zel::platform::ResolveHome(options.home)).lexically_normal();
}

// The deepest command given, and the word after it when that word names no
// command of it: "zelctl target nosuch" is an unknown command, not a missing
// one.
std::string UnknownCommand(const CLI::App& app) {
  const CLI::App* deepest = &app;
  std::string path;
  while (!deepest->get_subcommands().empty()) {
    deepest = deepest->get_subcommands().front();
    path += deepest->get_name() + " ";
  }
  const std::vector<std::string> extra = app.remaining();
  if (deepest->get_require_subcommand_min() == 0 || extra.empty() ||
      extra.front().rfind('-', 0) == 0) {
    return "";
  }
  return path + extra.front();
}

}  // namespace

void SelectHostFor(const GlobalOptions& options) {
  zel::platform::SelectHost(zel::platform::NewLocalHost(
      zel::platform::EmbeddedHostConfig(Home(options)),
      std::make_unique<TerminalLog>(true, options.verbose ? LogLevel::Debug2 : LogLevel::Warning)));
}

void SelectServiceHostFor(const GlobalOptions& options) {
  zel::platform::SelectHost(zel::platform::NewLocalServiceHost(
      zel::platform::LoadHostConfig(Home(options)),
      std::make_unique<TerminalLog>(options.verbose, LogLevel::Debug2)));
}

void WatchLog(std::function<void(const std::string&)> watcher) {
  std::lock_guard<std::mutex> guard(logMutex);
  logWatcher = std::move(watcher);
}

int RunReportingFailure(const std::function<int()>& command) {
  try {
    return command();
  } catch (const CLI::Error&) {
    throw;
  } catch (const HostCtl::Lib::HostCtlException& e) {
    std::cerr << Printable(e.GetMessage()) << '\n';
  } catch (const std::exception& e) {
    std::cerr << Printable(e.what()) << '\n';
  }
  return kExitFailure;
}

}  // namespace zelctl

int main(int argc, char** argv) {
  CLI::App app{"zelctl: manage the cluster's iSCSI target service"};
  app.require_subcommand(1);
  // Inherited by every command added below: the global options are taken
  // after a command too ("zelctl target list --json"), and a usage error
  // echoes the arguments escaped.
  app.fallthrough();
  app.failure_message([](const CLI::App*, const CLI::Error& e) {
    return zelctl::Printable(e.what()) + "\n" + zelctl::kRunWithHelp;
  });
  zelctl::GlobalOptions options;
  app.add_option("--home", options.home, "State root of this host")->envname("ZEL_HOME");
  app.add_flag("-v,--verbose", options.verbose, "Show info and debug lines too");
  app.add_flag("--json", options.json, "Print records as JSON");

  int exitCode = zelctl::kExitOk;
  zelctl::AddConfCommands(app, options, exitCode);
  zelctl::AddServiceCommands(app, options, exitCode);
  zelctl::AddManageCommands(app, options, exitCode);
  zelctl::AddEditCommands(app, options, exitCode);
  zelctl::AddPlacementCommands(app, options, exitCode);
  zelctl::AddClusterCommands(app, options, exitCode);
  zelctl::AddSiteCommands(app, options, exitCode);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    const std::string unknown = zelctl::UnknownCommand(app);
    if (unknown.empty()) {
      app.exit(e);
    } else {
      std::cerr << "Unknown command: " << zelctl::Printable(unknown) << '\n'
                << zelctl::kRunWithHelp;
    }
    return zelctl::kExitUsage;
  }
  return exitCode;
}
