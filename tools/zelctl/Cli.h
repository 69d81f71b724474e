// What every zelctl command shares: the global options, the host they
// select, and the exit codes (0 success, 1 the service refused with its
// message on stderr, 2 usage error).
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "zel/OrvaIscsiTarget.h"

namespace zelctl {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct GlobalOptions {
  std::string home;
  bool verbose = false;
  bool json = false;
};

// Selects the local host for the given options: file access only, or with
// every local service (directory, cluster, store). Called once, after
// parsing and before a command runs. Log lines go to stderr, escaped as
// Printable does: with -v all of them; without it the file access host
// shows the reader's warnings and errors (what `conf check` is for), the
// service host none, since a refusal is reported by its message alone.
void SelectHostFor(const GlobalOptions& options);
void SelectServiceHostFor(const GlobalOptions& options);

// Runs `command`, turning the service's exceptions into its message on
// stderr (one line, escaped as Printable does) and exit code 1. A
// CLI::Error goes on to the parser's report: it is a usage error.
int RunReportingFailure(const std::function<int()>& command);

// The service as the management process reaches it: through the plug-in.
std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> Service();

// A secret given as "-" is read from standard input, one line per secret in
// the order the calls are made, so that it never shows in the process list;
// the line end ("\n" or "\r\n") is not part of it. Any other value is the
// secret itself.
std::string SecretArgument(const std::string& value);

// Refuses an empty value as a usage error. Names and aliases carry it: the
// service looks some of them up by prefix, so an empty one would match the
// first entry instead of none.
const CLI::Validator& NonEmpty();

// Adds a subcommand whose action runs against the local service host and
// reports the service's refusal as exit code 1.
CLI::App* AddServiceCommand(CLI::App& parent, const std::string& name,
                            const std::string& description, const GlobalOptions& options,
                            int& exitCode, std::function<void()> action);

// While set, `watcher` sees every log line of the service (whether -v
// shows it or not); nullptr removes it.
void WatchLog(std::function<void(const std::string&)> watcher);

// Each command family adds its subcommands to the application; the action
// they install stores the exit code in `exitCode`.
void AddConfCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
void AddServiceCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
// REQUIRES: AddServiceCommands ran (it adds the "namespace" and "defaults"
// families that these extend).
void AddManageCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
// REQUIRES: AddServiceCommands ran (it adds the "target" and
// "initiator-group" families that these extend).
void AddEditCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
// REQUIRES: AddServiceCommands ran (it adds the "host" family).
void AddClusterCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
// REQUIRES: AddServiceCommands ran (it adds the "lun" family).
void AddLunEditCommands(CLI::App& lun, const GlobalOptions& options, int& exitCode);
// The "placement" family: the balancing plan and the placement hash.
void AddPlacementCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
// The "cluster" family: the preferred site of a stretched cluster.
void AddSiteCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);

}  // namespace zelctl
