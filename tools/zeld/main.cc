// zeld: the iSCSI target daemon of one host. One instance per home (pid
// file), started, reloaded and stopped through its init script. It drives
// the iSCSI engine so that the targets this host owns are served and every
// other target answers logins with a redirection to its owner, and follows
// every change: a new configuration generation or owner in the directory
// starts a pass at once, a second-by-second check restarts an engine that
// died, and a pass runs every few seconds anyway. SIGHUP (reload) checks
// each engine against what was applied before its pass; SIGTERM (io_stop)
// takes every target offline, releases every disk and stops the engines.
//
// Usage: zeld [--home DIR] [--foreground] [-v]
//   Without --foreground it detaches and exits 0 once the daemon has
//   applied the configuration for the first time, 1 when it could not start.
// Files under the home: run/zeld.pid, run/zeld.loads, run/zeld-status.json,
// log/zeld.log, log/engine-*.log.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "FileLogSink.h"
#include "Serving.h"
#include "TgtEngine.h"
#include "common/Daemon.h"
#include "directory/DirectoryEntries.h"
#include "platform/Host.h"
#include "zel/OrvaCtlException.h"

namespace {

using zel::platform::LogLevel;

const char kTag[] = "zeld";
const int kExitUsage = 2;
// A pass runs at least this often, whatever the directory said; every
// second while the last one left something unapplied (a disk its previous
// owner has not let go yet).
const int kPassSeconds = 5;

// run/zeld.loads holds "STARTED COMPLETED": how many configuration reads
// the daemon has begun and finished. The init script's reload reads
// STARTED, signals, and waits until COMPLETED exceeds it: a read that began
// after the caller's change has then finished.
class LoadCounter {
 public:
  explicit LoadCounter(std::string path) : path_(std::move(path)) {}

  void Load(const std::function<void()>& read) {
    ++started_;
    Record();
    read();
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
  // Raised by the directory's notices, which run on its own thread.
  sigaddset(&set, SIGUSR1);
  return set;
}

void AskForAPass() { ::kill(::getpid(), SIGUSR1); }

void OnConfigNotice(const void*, uint32_t) { AskForAPass(); }

// Passes on SIGUSR1 and every kPassSeconds, a full one on SIGHUP, until
// SIGTERM or SIGINT.
int Serve(const sigset_t& signals, LoadCounter& loads, zeltools::Serving& serving) {
  const struct timespec second = {1, 0};
  int quietSeconds = 0;
  for (;;) {
    const int signal = ::sigtimedwait(&signals, nullptr, &second);
    if (signal < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
        ZEL_LOG_ERROR("%s: Failed to wait for signals: %s\n", kTag, std::strerror(errno));
        serving.Stop();
        return 1;
      }
      const int due = serving.Incomplete() ? 1 : kPassSeconds;
      if (serving.RestartDeadEngines() || ++quietSeconds >= due) {
        quietSeconds = 0;
        serving.Reconcile(false);
      }
      continue;
    }
    quietSeconds = 0;
    if (signal == SIGUSR1) {
      serving.Reconcile(false);
    } else if (signal == SIGHUP) {
      ZEL_LOG_INFO("%s: Reloading on SIGHUP\n", kTag);
      loads.Load([&serving] { serving.Reconcile(true); });
    } else {
      ZEL_LOG_INFO("%s: Stopping on SIG%s\n", kTag, ::sigabbrev_np(signal));
      serving.Stop();
      return 0;
    }
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
  const std::string hostUuid = config.hostUuid;
  zel::platform::SelectHost(zel::platform::NewLocalServiceHost(
      std::move(config), std::make_unique<zeltools::FileLogSink>(
                             logFd, foreground, verbose ? LogLevel::Debug2 : LogLevel::Info)));
  // The configuration layer's own log_* messages stay off (no log_init):
  // on a parse error the reader shows the whole file, credentials included,
  // and zeld never logs a credential. The failure itself is still logged.
  ZEL_LOG_INFO("%s: Started (pid %d, home %s)\n", kTag, static_cast<int>(::getpid()), home.c_str());

  zeltools::Serving serving(hostUuid, home + "/run/zeld-status.json",
                            zeltools::TgtEngineFactory(home), AskForAPass);
  zel::platform::Directory::SubscriptionHandle notices = 0;
  if (ZeldBrixSubscribeToConfigEntry(OnConfigNotice, &notices) != NOK_OK) {
    ZEL_LOG_WARNING("%s: No notices of new configurations; a pass every %d s follows them\n",
                    kTag, kPassSeconds);
  }
  LoadCounter loads(home + "/run/zeld.loads");
  loads.Load([&serving] { serving.Reconcile(false); });
  report.Started();
  const int status = Serve(signals, loads, serving);
  ZeldBrixUnsubscribeToConfigEntry(notices);
  return status;
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
