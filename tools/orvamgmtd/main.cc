// orvamgmtd: the host management agent of the iSCSI target service. It
// loads libzel through the plug-in entry, restores the service at start,
// runs the control thread, and turns the platform's events (network
// changes, host.json's declared interfaces, SIGHUP, this host leaving the
// cluster or entering maintenance) into the library's
// cluster events; SIGTERM stops it cleanly. The library recognises the
// agent by its process name, so the program must be called orvamgmtd.
//
// Usage: orvamgmtd [--home DIR] [--foreground] [--library PATH] [-v]
//   Without --foreground it detaches and exits 0 once the agent handles
//   events, 1 when it could not start.
// Files under the home: run/orvamgmtd.pid, log/orvamgmtd.log (every line
// of the agent and the library; in the foreground on standard error too).
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "Agent.h"
#include "LogTee.h"
#include "ZelLibrary.h"
#include "common/Daemon.h"

#ifndef ZEL_AGENT_LIBRARY_PATH
#error "ZEL_AGENT_LIBRARY_PATH must name the library the agent loads by default"
#endif

namespace {

const int kExitUsage = 2;
// The library's own default home, for an agent started without --home and
// ZEL_HOME.
const char kDefaultHome[] = "/var/lib/zel";

struct Options {
  std::string home;
  std::string library = ZEL_AGENT_LIBRARY_PATH;
  bool foreground = false;
  bool verbose = false;
};

int Run(const Options& options) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGHUP);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  // Blocked before the library starts any thread, so that every thread
  // inherits the mask and the signals reach the agent's signalfd only.
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  // Absolute: the daemon leaves its working directory.
  const std::string home =
      std::filesystem::absolute(options.home.empty() ? kDefaultHome : options.home)
          .lexically_normal();
  zeltools::MakeDirectories(home + "/run", 0700);
  zeltools::MakeDirectories(home + "/log", 0700);
  zeltools::PidFile pidFile(home + "/run/orvamgmtd.pid");
  const std::string logPath = home + "/log/orvamgmtd.log";
  const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (logFd < 0) {
    throw std::runtime_error("Failed to open " + logPath + ": " + std::strerror(errno));
  }

  zeltools::StartReport report =
      options.foreground ? zeltools::StartReport() : zeltools::Detach(logFd);
  pidFile.Write();
  orvamgmtd::LogTee tee(logFd, options.foreground);
  orvamgmtd::Log("Starting (pid %d, home %s, library %s)", static_cast<int>(::getpid()),
                 home.c_str(), options.library.c_str());

  int code;
  try {
    orvamgmtd::ZelLibrary library(options.library);
    if (library.selectHostForHome(home.c_str(), options.verbose ? 1 : 0) != 0) {
      orvamgmtd::Log("Cannot use the home %s", home.c_str());
      return 1;
    }
    orvamgmtd::Agent agent(library, signals);
    agent.WatchHostConfig(home);
    code = agent.Run(report);
  } catch (const std::exception& e) {
    orvamgmtd::Log("%s", e.what());
    return 1;
  }
  // The library is unloaded now (or, if it cannot be, at the process's end,
  // which the log file still records).
  orvamgmtd::Log("Stopped");
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  // Everything the agent and the library it loads leave under the home is
  // owner-only, whatever umask the agent was started with.
  ::umask(077);
  CLI::App app{"orvamgmtd: the host agent of the iSCSI target service"};
  Options options;
  app.add_option("--home", options.home, "State root of this host")->envname("ZEL_HOME");
  app.add_option("--library", options.library, "The service library to load")
      ->capture_default_str();
  app.add_flag("--foreground", options.foreground,
               "Stay attached; log to standard error as well as to the log file");
  app.add_flag("-v,--verbose", options.verbose, "Log the library's debug lines too");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }

  try {
    return Run(options);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "orvamgmtd: %s\n", e.what());
  }
  return 1;
}
