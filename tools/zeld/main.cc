// zeld: the iSCSI target daemon of one host. Until the data path exists it
// is the daemon's control shell: one instance per home (pid file), started,
// reloaded and stopped through its init script, reading zel.conf on start
// and on every SIGHUP and logging the targets it would serve.
//
// Usage: zeld [--home DIR] [--foreground] [-v]
//   Without --foreground it detaches and exits 0 once the daemon has read
//   the configuration for the first time, 1 when it could not start.
// Files under the home: run/zeld.pid, run/zeld.loads, log/zeld.log.
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

#include "FileLogSink.h"
#include "ServedTargets.h"
#include "common/Daemon.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace {

using zel::platform::LogLevel;

const char kTag[] = "zeld";
const int kExitUsage = 2;

// run/zeld.loads holds "STARTED COMPLETED": how many configuration reads
// the daemon has begun and finished. The init script's reload reads
// STARTED, signals, and waits until COMPLETED exceeds it: a read that began
// after the caller's change has then finished.
class LoadCounter {
 public:
  explicit LoadCounter(std::string path) : path_(std::move(path)) {}

  void Load() {
    ++started_;
    Record();
    zeltools::LogServedTargets();
    ++completed_;
    Record();
  }

 private:
  // Replaced whole, so that a reader never sees half a line.
  void Record() {
    const std::string temp = path_ + ".tmp";
    FILE* out = std::fopen(temp.c_str(), "w");
    const bool written = out != nullptr &&
                         std::fprintf(out, "%lu %lu\n", started_, completed_) > 0 &&
                         std::fclose(out) == 0;
    if (!written || std::rename(temp.c_str(), path_.c_str()) != 0) {
      ZEL_LOG_WARNING("%s: Failed to record the configuration reads in %s: %s\n", kTag,
                      path_.c_str(), std::strerror(errno));
    }
  }

  const std::string path_;
  unsigned long started_ = 0;
  unsigned long completed_ = 0;
};

sigset_t HandledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}

// Waits for SIGHUP (read again) until SIGTERM or SIGINT.
int Serve(const sigset_t& signals, LoadCounter& loads) {
  for (;;) {
    const int signal = ::sigwaitinfo(&signals, nullptr);
    if (signal < 0) {
      if (errno == EINTR) continue;
      ZEL_LOG_ERROR("%s: Failed to wait for signals: %s\n", kTag, std::strerror(errno));
      return 1;
    }
    if (signal != SIGHUP) {
      ZEL_LOG_INFO("%s: Stopping on SIG%s\n", kTag, ::sigabbrev_np(signal));
      return 0;
    }
    ZEL_LOG_INFO("%s: Reloading on SIGHUP\n", kTag);
    loads.Load();
  }
}

int Run(const std::string& explicitHome, bool foreground, bool verbose) {
  const sigset_t signals = HandledSignals();
  // Blocked before anything else, so that a signal is never lost between
  // the start and the first wait; sigwaitinfo takes them.
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  // Absolute: the daemon leaves its working directory.
  const std::string home =
      std::filesystem::absolute(zel::platform::ResolveHome(explicitHome)).lexically_normal();
  zel::platform::HostConfig config = zel::platform::LoadHostConfig(home);
  zeltools::MakeDirectories(home + "/run", 0700);
  zeltools::MakeDirectories(home + "/log", 0700);
  zeltools::PidFile pidFile(home + "/run/zeld.pid");
  const std::string logPath = home + "/log/zeld.log";
  const int logFd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (logFd < 0) {
    throw std::runtime_error("Failed to open " + logPath + ": " + std::strerror(errno));
  }

  zeltools::StartReport report = foreground ? zeltools::StartReport() : zeltools::Detach(logFd);
  pidFile.Write();
  zel::platform::SelectHost(std::make_unique<zel::platform::Host>(
      std::move(config), zel::platform::NewSystemClock(),
      std::make_unique<zeltools::FileLogSink>(logFd, foreground,
                                              verbose ? LogLevel::Debug2 : LogLevel::Info),
      zel::platform::NewPosixFileSystem()));
  // The configuration layer's own log_* messages stay off (no log_init):
  // on a parse error the reader shows the whole file, credentials included,
  // and zeld never logs a credential. The failure itself is still logged.
  ZEL_LOG_INFO("%s: Started (pid %d, home %s)\n", kTag, static_cast<int>(::getpid()), home.c_str());

  LoadCounter loads(home + "/run/zeld.loads");
  loads.Load();
  report.Started();
  return Serve(signals, loads);
}

}  // namespace

int main(int argc, char** argv) {
  // Everything the daemon leaves under the home is owner-only, whatever
  // umask it was started with: its logs name targets and its state files
  // sit beside the secrets.
  ::umask(077);
  CLI::App app{"zeld: the iSCSI target daemon"};
  std::string home;
  bool foreground = false;
  bool verbose = false;
  app.add_option("--home", home, "State root of this host")->envname("ZEL_HOME");
  app.add_flag("--foreground", foreground, "Stay attached; log to standard error as well");
  app.add_flag("-v,--verbose", verbose, "Log debug lines too");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);
    return kExitUsage;
  }

  try {
    return Run(home, foreground, verbose);
  } catch (const HostCtl::Lib::HostCtlException& e) {
    std::fprintf(stderr, "zeld: %s\n", e.GetMessage().c_str());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeld: %s\n", e.what());
  }
  return 1;
}
