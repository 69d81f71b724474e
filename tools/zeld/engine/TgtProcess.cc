#include "zeld/engine/TgtProcess.h"

#include <fcntl.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Log.h"
#include "zel/OrvaCtlException.h"
#include "zeld/engine/TgtShow.h"

namespace zeltools {
namespace engine {
namespace {

using HostCtl::Lib::Orva::OrvaCtlException;

const char kTag[] = "Engine";
// These pauses wait for a real daemon, never for a retry policy: a test
// clock would not make tgtd start sooner, so they use the real clock.
constexpr std::chrono::milliseconds kPoll(10);

std::string LockPath(int controlPort) { return TgtControl::SocketPath(controlPort) + ".lock"; }

// The pid holding tgtd's lock of `controlPort`, 0 when none does.
pid_t LockHolder(int controlPort) {
  int fd = ::open(LockPath(controlPort).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 1;
  pid_t holder = 0;
  if (::fcntl(fd, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) holder = lock.l_pid;
  ::close(fd);
  return holder;
}

// Whether ADDR:PORT ("[ADDR]:PORT" for IPv6) can be bound now. tgtd does not
// fail on a portal it cannot bind: it serves every address on port 3260
// instead, so a portal in use is refused before tgtd starts.
bool PortalFree(const std::string& portal) {
  size_t colon = portal.rfind(':');
  if (colon == std::string::npos) return false;
  std::string host = portal.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), portal.substr(colon + 1).c_str(), &hints, &found) != 0) {
    return false;
  }
  int fd = ::socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  bool free = fd >= 0 && ::bind(fd, found->ai_addr, found->ai_addrlen) == 0;
  if (fd >= 0) ::close(fd);
  ::freeaddrinfo(found);
  return free;
}

// The portals of "Portal: ADDR:PORT,TPGT" lines.
std::vector<std::string> ParsePortals(const std::string& text) {
  std::vector<std::string> portals;
  std::istringstream lines(text);
  std::string line;
  const std::string prefix = "Portal: ";
  while (std::getline(lines, line)) {
    if (line.compare(0, prefix.size(), prefix) != 0) continue;
    portals.push_back(line.substr(prefix.size(), line.rfind(',') - prefix.size()));
  }
  return portals;
}

}  // namespace

TgtProcess::TgtProcess(TgtProcessOptions options) : options_(std::move(options)) {}

TgtProcess::~TgtProcess() { Stop(); }

void TgtProcess::Start() {
  if (pid_ > 0) throw OrvaCtlException("The engine of portal " + options_.portal + " runs already");
  if (!PortalFree(options_.portal)) {
    throw OrvaCtlException("Failed to start the engine: portal " + options_.portal +
                           " is not free");
  }
  int last = options_.firstControlPort + options_.controlPortCount;
  for (int port = options_.firstControlPort; port < last; ++port) {
    if (LockHolder(port) != 0) continue;
    if (Launch(port)) {
      ServeOnlyOwnPortal();
      ZEL_LOG_INFO("%s: tgtd %d serves portal %s on control port %d", kTag, static_cast<int>(pid_),
                   options_.portal.c_str(), port);
      return;
    }
  }
  throw OrvaCtlException("Failed to start the engine for portal " + options_.portal + ": see " +
                         options_.logPath);
}

bool TgtProcess::Launch(int controlPort) {
  int log = ::open(options_.logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (log < 0) {
    throw OrvaCtlException("Failed to open the engine log " + options_.logPath + ": " +
                           std::strerror(errno));
  }
  std::vector<std::string> args = {options_.tgtdPath,
                                   "-f",
                                   "-C",
                                   std::to_string(controlPort),
                                   "-t",
                                   std::to_string(options_.threadsPerLun),
                                   "--iscsi",
                                   "portal=" + options_.portal};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  pid_t child = ::fork();
  if (child < 0) {
    int error = errno;
    ::close(log);
    throw OrvaCtlException(std::string("Failed to start the engine: ") + std::strerror(error));
  }
  if (child == 0) {
    // Only async-signal-safe calls until exec. Its own process group keeps
    // a terminal's signals to zeld away from it.
    int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, 0);
    ::dup2(log, 1);
    ::dup2(log, 2);
    ::setpgid(0, 0);
    ::closefrom(3);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  ::close(log);
  pid_ = child;
  controlPort_ = controlPort;
  control_ = std::make_unique<TgtControl>(controlPort);

  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options_.readySeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (!Alive()) {
      // Another instance took the port between the probe and the lock.
      if (LockHolder(controlPort) != 0) return false;
      RemoveSocketFiles();
      controlPort_ = -1;
      throw OrvaCtlException("The engine for portal " + options_.portal +
                             " ended at its start: see " + options_.logPath);
    }
    if (LockHolder(controlPort) == child && control_->ShowSystem().ok()) return true;
    std::this_thread::sleep_for(kPoll);
  }
  ZEL_LOG_ERROR("%s: tgtd %d did not answer on control port %d in %d s", kTag,
                static_cast<int>(child), controlPort, options_.readySeconds);
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  pid_ = -1;
  RemoveSocketFiles();
  controlPort_ = -1;
  throw OrvaCtlException("The engine for portal " + options_.portal + " did not become ready");
}

void TgtProcess::ServeOnlyOwnPortal() {
  std::vector<std::string> portals = ParsePortals(control_->ShowPortals().output);
  bool own = false;
  for (const std::string& portal : portals) {
    if (portal == options_.portal) own = true;
  }
  if (!own) {
    // Taken between the probe and tgtd's bind: tgtd fell back to every
    // address, which must not stay open.
    Stop();
    throw OrvaCtlException("Failed to start the engine: portal " + options_.portal +
                           " is not free");
  }
  for (const std::string& portal : portals) {
    if (portal != options_.portal) control_->DeletePortal(portal);
  }
}

bool TgtProcess::Alive() {
  if (pid_ <= 0) return false;
  int status;
  pid_t done;
  do {
    done = ::waitpid(pid_, &status, WNOHANG);
  } while (done < 0 && errno == EINTR);
  if (done == 0) return true;
  pid_ = -1;
  return false;
}

bool TgtProcess::WaitForExit(int seconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (Alive()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPoll);
  }
  return true;
}

void TgtProcess::Stop() {
  if (controlPort_ < 0) return;
  if (Alive()) {
    // tgtd ignores SIGTERM and SIGINT: this sequence is its clean stop.
    control_->SetSystemState(TgtState::kOffline);
    TgtResult shown = control_->ShowTargets();
    if (shown.ok()) {
      try {
        for (const TgtTargetView& target : ParseTargetShow(shown.output)) {
          control_->DeleteTarget(target.tid, true);
        }
      } catch (const OrvaCtlException& error) {
        ZEL_LOG_WARNING("%s: %s", kTag, error.what());
      }
    }
    control_->DeleteSystem();
    if (!WaitForExit(options_.stopSeconds)) {
      ZEL_LOG_WARNING("%s: tgtd %d did not stop in %d s, killing it", kTag, static_cast<int>(pid_),
                      options_.stopSeconds);
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }
  RemoveSocketFiles();
  controlPort_ = -1;
}

void TgtProcess::RemoveSocketFiles() {
  // A later instance may have taken the port since: its files stay.
  if (LockHolder(controlPort_) != 0) return;
  ::unlink(TgtControl::SocketPath(controlPort_).c_str());
  ::unlink(LockPath(controlPort_).c_str());
}

}  // namespace engine
}  // namespace zeltools
