// What every zelctl command shares: the global options, the host they
// select, and the exit codes (0 success, 1 the service refused with its
// message on stderr, 2 usage error).
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

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
// parsing and before a command runs.
void SelectHostFor(const GlobalOptions& options);
void SelectServiceHostFor(const GlobalOptions& options);

// Runs `command`, turning the service's exceptions into its message on
// stderr and exit code 1.
int RunReportingFailure(const std::function<int()>& command);

// Each command family adds its subcommands to the application; the action
// they install stores the exit code in `exitCode`.
void AddConfCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);
void AddServiceCommands(CLI::App& app, const GlobalOptions& options, int& exitCode);

}  // namespace zelctl
