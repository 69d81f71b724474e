#include "platform/local/LocalCommandRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/Log.h"
#include "platform/local/LocalHostControl.h"
#include "zel/OrvaCtlException.h"

#ifndef ZEL_TOOLS_DIR
#error "ZEL_TOOLS_DIR must name the build's tools directory"
#endif

extern char** environ;

namespace zel {
namespace platform {
namespace {

const char kTag[] = "HostControl";
const char kInitScript[] = "/etc/init.d/zeld";
const char kChkconfig[] = "/sbin/chkconfig";
const int kNotStarted = 127;
const int kUsage = 2;

std::string CommandLine(const std::vector<std::string>& argv) {
  return boost::algorithm::join(argv, " ");
}

// The absolute path of `name` in PATH, or empty. Resolved before the fork:
// the child may only make async-signal-safe calls.
std::string SearchPath(const std::string& name) {
  const char* fromEnvironment = std::getenv("PATH");
  const std::string path = fromEnvironment != nullptr && *fromEnvironment != '\0'
                               ? fromEnvironment
                               : "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
  std::vector<std::string> directories;
  boost::split(directories, path, boost::is_any_of(":"));
  for (const std::string& directory : directories) {
    const std::string candidate = (directory.empty() ? "." : directory) + "/" + name;
    struct stat file;
    if (::stat(candidate.c_str(), &file) == 0 && S_ISREG(file.st_mode) &&
        ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return "";
}

// This process's environment with ZEL_HOME set to `home`, so the child
// (the init script, the daemon it starts) works on the same host state.
std::vector<std::string> ChildEnvironment(const std::string& home) {
  std::vector<std::string> environment;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    if (std::strncmp(*entry, "ZEL_HOME=", 9) != 0) environment.emplace_back(*entry);
  }
  environment.push_back("ZEL_HOME=" + home);
  return environment;
}

std::vector<char*> Pointers(const std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (const std::string& text : strings) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// In the child: closes every descriptor from 3 on except `keep`.
// Async-signal-safe.
void CloseInheritedDescriptors(int keep, int limit) {
#ifdef SYS_close_range
  const bool below = keep == 3 || ::syscall(SYS_close_range, 3u, keep - 1u, 0u) == 0;
  if (below && ::syscall(SYS_close_range, keep + 1u, ~0u, 0u) == 0) return;
#endif
  for (int fd = 3; fd < limit; ++fd) {
    if (fd != keep) ::close(fd);
  }
}

int DescriptorLimit() {
  struct rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      limit.rlim_cur < 1048576) {
    return static_cast<int>(limit.rlim_cur);
  }
  return 1048576;
}

class LocalCommandRunner final : public CommandRunner {
 public:
  explicit LocalCommandRunner(const HostConfig& config)
      : profile_(config.profile), home_(config.home), commands_(config.commands) {}

  int Exec(const std::vector<std::string>& argv) override {
    if (argv.empty() || argv[0].empty()) {
      ZEL_LOG_WARNING("%s: Refusing to run an empty command\n", kTag);
      return kNotStarted;
    }
    const auto replacement = commands_.find(argv[0]);
    if (replacement != commands_.end()) return Replaced(replacement->second, argv);
    if (argv[0] == kInitScript && profile_ == Profile::Embedded) {
      std::vector<std::string> mapped = argv;
      mapped[0] = ZEL_TOOLS_DIR "/zeld-init";
      return Spawn(mapped);
    }
    if (argv[0] == kChkconfig) {
      if (profile_ == Profile::Embedded) return SetBootSwitch(argv);
      if (argv.size() == 3 && argv[1] == "zel_loader" && (argv[2] == "on" || argv[2] == "off")) {
        return Exec({"systemctl", argv[2] == "on" ? "enable" : "disable", "zeld.service"});
      }
    }
    return Spawn(argv);
  }

 private:
  int Replaced(const std::string& replacement, const std::vector<std::string>& argv) {
    std::vector<std::string> words;
    boost::split(words, replacement, boost::is_any_of(" \t"), boost::token_compress_on);
    std::vector<std::string> replaced;
    for (const std::string& word : words) {
      if (!word.empty()) replaced.push_back(word);
    }
    if (replaced.empty()) {
      ZEL_LOG_WARNING("%s: The host configuration replaces %s with an empty command\n", kTag,
                      argv[0].c_str());
      return kNotStarted;
    }
    replaced.insert(replaced.end(), argv.begin() + 1, argv.end());
    return Spawn(replaced);
  }

  // The embedded boot-time switch: "NAME on|off" is recorded in
  // home/state/boot/NAME. Answers like a program: 0 done, 1 not recorded,
  // 2 a usage error.
  int SetBootSwitch(const std::vector<std::string>& argv) {
    if (argv.size() != 3 || !IsStateName(argv[1]) || (argv[2] != "on" && argv[2] != "off")) {
      ZEL_LOG_WARNING("%s: Boot switch: \"%s\" is not of the form \"%s NAME on|off\"\n", kTag,
                      CommandLine(argv).c_str(), kChkconfig);
      return kUsage;
    }
    const std::string path = StatePath(home_, "boot", argv[1]);
    try {
      WriteStateFile(path, argv[2]);
    } catch (const HostCtl::Lib::Orva::OrvaCtlException& e) {
      ZEL_LOG_WARNING("%s: Boot switch: failed to record \"%s %s\": %s\n", kTag, argv[1].c_str(),
                      argv[2].c_str(), e.GetMessage().c_str());
      return 1;
    }
    ZEL_LOG_INFO("%s: Boot switch: recorded \"%s %s\" in %s\n", kTag, argv[1].c_str(),
                 argv[2].c_str(), path.c_str());
    return 0;
  }

  int Spawn(const std::vector<std::string>& argv) {
    const std::string line = CommandLine(argv);
    const std::string program =
        argv[0].find('/') == std::string::npos ? SearchPath(argv[0]) : argv[0];
    if (program.empty()) {
      ZEL_LOG_WARNING("%s: Failed to start \"%s\": %s not found in PATH\n", kTag, line.c_str(),
                      argv[0].c_str());
      return kNotStarted;
    }
    ZEL_LOG_DEBUG("%s: Running \"%s\"\n", kTag, line.c_str());

    // Everything the child needs is built before the fork.
    const std::vector<std::string> environment = ChildEnvironment(home_);
    std::vector<char*> args = Pointers(argv);
    std::vector<char*> envp = Pointers(environment);
    const int limit = DescriptorLimit();
    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    // The child writes execve's errno here; the pipe closes unread when
    // execve succeeds.
    int report[2];
    if (::pipe2(report, O_CLOEXEC) != 0) {
      const int error = errno;
      if (devNull >= 0) ::close(devNull);
      ZEL_LOG_WARNING("%s: Failed to start \"%s\": %s\n", kTag, line.c_str(),
                      std::strerror(error));
      return kNotStarted;
    }

    const pid_t pid = ::fork();
    if (pid == 0) {
      // Another thread may have held a lock at the fork: from here on only
      // async-signal-safe calls.
      if (devNull >= 0) ::dup2(devNull, STDIN_FILENO);
      CloseInheritedDescriptors(report[1], limit);
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      struct sigaction defaults;
      std::memset(&defaults, 0, sizeof defaults);
      defaults.sa_handler = SIG_DFL;
      for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &defaults, nullptr);
      ::execve(program.c_str(), args.data(), envp.data());
      const int error = errno;
      (void)!::write(report[1], &error, sizeof error);
      ::_exit(kNotStarted);
    }
    const int forkError = errno;
    ::close(report[1]);
    if (devNull >= 0) ::close(devNull);
    if (pid < 0) {
      ::close(report[0]);
      ZEL_LOG_WARNING("%s: Failed to start \"%s\": %s\n", kTag, line.c_str(),
                      std::strerror(forkError));
      return kNotStarted;
    }

    int execError = 0;
    ssize_t reported;
    do {
      reported = ::read(report[0], &execError, sizeof execError);
    } while (reported < 0 && errno == EINTR);
    ::close(report[0]);

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) {
        ZEL_LOG_WARNING("%s: Failed to wait for \"%s\": %s\n", kTag, line.c_str(),
                        std::strerror(errno));
        return kNotStarted;
      }
    }
    if (reported == static_cast<ssize_t>(sizeof execError)) {
      ZEL_LOG_WARNING("%s: Failed to start \"%s\": %s\n", kTag, line.c_str(),
                      std::strerror(execError));
      return kNotStarted;
    }
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    ZEL_LOG_DEBUG("%s: \"%s\" exited with %d\n", kTag, line.c_str(), code);
    return code;
  }

  const Profile profile_;
  const std::string home_;
  const std::map<std::string, std::string> commands_;
};

}  // namespace

std::unique_ptr<CommandRunner> NewLocalCommandRunner(const HostConfig& config) {
  return std::make_unique<LocalCommandRunner>(config);
}

}  // namespace platform
}  // namespace zel
