#include "Agent.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "LogTee.h"
#include "RouteNotifications.h"

namespace orvamgmtd {
namespace {

const int kNicChangeCoalesceMs = 500;

int64_t NowMs() {
  struct timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

std::runtime_error SystemError(const char* what) {
  return std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace

Agent::Agent(ZelLibrary& library, const sigset_t& signals) : library_(library), signals_(signals) {
  signalFd_ = ::signalfd(-1, &signals_, SFD_CLOEXEC);
  if (signalFd_ < 0) throw SystemError("Failed to create a signalfd");
  if (::pipe2(memberLeftFds_, O_CLOEXEC | O_NONBLOCK) != 0 ||
      ::pipe2(maintenanceFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
    throw SystemError("Failed to create a pipe");
  }
}

Agent::~Agent() {
  for (int fd : {signalFd_, netlinkFd_, memberLeftFds_[0], memberLeftFds_[1], maintenanceFds_[0],
                 maintenanceFds_[1], homeWatchFd_}) {
    if (fd >= 0) ::close(fd);
  }
}

int Agent::Run(zeltools::StartReport& report) {
  Start();
  Log("Ready");
  report.Started();
  const bool stopped = HandleEvents();
  Stop();
  return stopped ? 0 : 1;
}

void Agent::Start() {
  plugin_.reset(library_.getAsyncOrvaPlugin());
  service_.reset(plugin_->GetOrvaIscsiTarget());

  Log("Restoring the iSCSI target service");
  try {
    service_->Restore();
    Log("Restore done");
  } catch (const HostCtl::Lib::HostCtlException& e) {
    // The agent still serves the cluster's events: a later refresh or
    // enable can bring the service back.
    Log("Restore failed: %s", e.GetMessage().c_str());
  } catch (const std::exception& e) {
    Log("Restore failed: %s", e.what());
  }

  library_.zelInit();

  membershipWatch_ = library_.watchLocalMembership(&Agent::OnMemberLeft, this);
  if (membershipWatch_ == 0) Log("Not watching the cluster membership: cluster leave is not seen");
  // A lease that runs out takes this host out of the membership as if it had
  // left, so both wake the main thread alike.
  membershipHold_ = library_.holdLocalMembership(&Agent::OnMemberLeft, this);
  maintenanceWatch_ = library_.watchLocalMaintenance(&Agent::OnMaintenanceEntered, this);
  if (maintenanceWatch_ == 0) Log("Not watching this host's maintenance: entering it is not seen");

  netlinkFd_ = OpenRouteNotifications();
  if (netlinkFd_ < 0) {
    Log("Not watching network changes: %s", std::strerror(errno));
  }
}

void Agent::Stop() {
  if (membershipHold_ != 0) library_.releaseLocalMembership(membershipHold_);
  if (membershipWatch_ != 0) library_.unwatchLocalMembership(membershipWatch_);
  if (maintenanceWatch_ != 0) library_.unwatchLocalMaintenance(maintenanceWatch_);
  library_.zelDeinit();
  service_.reset();
  plugin_.reset();
}

bool Agent::HandleEvents() {
  bool nicChangePending = false;
  int64_t nicChangeDue = 0;
  int nicNotifications = 0;
  for (;;) {
    int timeoutMs = -1;
    if (nicChangePending) {
      const int64_t left = nicChangeDue - NowMs();
      timeoutMs = left > 0 ? static_cast<int>(left) : 0;
    }
    // A negative descriptor (no netlink socket) is skipped by poll.
    struct pollfd fds[5] = {{signalFd_, POLLIN, 0},
                            {netlinkFd_, POLLIN, 0},
                            {memberLeftFds_[0], POLLIN, 0},
                            {maintenanceFds_[0], POLLIN, 0},
                            {homeWatchFd_, POLLIN, 0}};
    if (::poll(fds, 5, timeoutMs) < 0) {
      if (errno == EINTR) continue;
      Log("Failed to wait for events: %s", std::strerror(errno));
      return false;
    }
    if (fds[0].revents != 0 && !HandleSignal()) return true;
    if (fds[2].revents != 0) HandleMemberLeft();
    if (fds[3].revents != 0) HandleMaintenanceEntered();
    if (fds[1].revents != 0 || fds[4].revents != 0) {
      int notifications = 0;
      if (fds[1].revents != 0) notifications += DrainRouteNotifications(netlinkFd_);
      if (fds[4].revents != 0) notifications += HandleHostConfigEvents();
      if (notifications > 0 && !nicChangePending) {
        nicChangePending = true;
        nicChangeDue = NowMs() + kNicChangeCoalesceMs;
      }
      nicNotifications += notifications;
    }
    if (nicChangePending && NowMs() >= nicChangeDue) {
      Log("Network change (%d notifications): firing the network change event", nicNotifications);
      nicChangePending = false;
      nicNotifications = 0;
      library_.fireNokNicChange();
    }
  }
}

bool Agent::HandleSignal() {
  struct signalfd_siginfo info;
  const ssize_t n = ::read(signalFd_, &info, sizeof info);
  if (n != static_cast<ssize_t>(sizeof info)) return true;  // EAGAIN or EINTR: nothing queued
  const int signal = static_cast<int>(info.ssi_signo);
  if (signal == SIGHUP) {
    Log("SIGHUP received: firing the system refresh event");
    library_.fireOrvaSystemRefresh();
    return true;
  }
  Log("SIG%s received: stopping", ::sigabbrev_np(signal));
  return false;
}

void Agent::HandleMemberLeft() {
  char drained[16];
  while (::read(memberLeftFds_[0], drained, sizeof drained) > 0) {
  }
  Log("This host left the cluster membership: firing the cluster leave event");
  library_.fireClusterLeave();
}

void Agent::OnMemberLeft(void* context) {
  auto* agent = static_cast<Agent*>(context);
  const char wake = 'l';
  // A full pipe already holds a wake-up that is not handled yet.
  [[maybe_unused]] const ssize_t written = ::write(agent->memberLeftFds_[1], &wake, 1);
}

void Agent::WatchHostConfig(const std::string& home) {
  homeWatchFd_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (homeWatchFd_ < 0 ||
      ::inotify_add_watch(homeWatchFd_, home.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO) < 0) {
    Log("Not watching %s/host.json: declared interface changes are not seen: %s", home.c_str(),
        std::strerror(errno));
    if (homeWatchFd_ >= 0) ::close(homeWatchFd_);
    homeWatchFd_ = -1;
  }
}

int Agent::HandleHostConfigEvents() {
  // Several events of one edit (a write, then the rename) are one reading.
  bool touched = false;
  alignas(struct inotify_event) char buffer[4096];
  ssize_t n;
  while ((n = ::read(homeWatchFd_, buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(buffer + at);
      if (event->len > 0 && std::strcmp(event->name, "host.json") == 0) touched = true;
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
    }
  }
  if (!touched) return 0;
  switch (library_.reloadDeclaredNics()) {
    case 1:
      Log("host.json declares other interfaces");
      return 1;
    case 0:
      Log("host.json changed, its declared interfaces did not");
      return 0;
    default:
      Log("host.json could not be read: the declared interfaces stay as they were");
      return 0;
  }
}

void Agent::HandleMaintenanceEntered() {
  unsigned nodeCount = 0;
  unsigned read = 0;
  // Wake-ups not handled yet are one entry into maintenance; the newest
  // member count counts.
  while (::read(maintenanceFds_[0], &read, sizeof read) == static_cast<ssize_t>(sizeof read)) {
    nodeCount = read;
  }
  Log("This host entered maintenance (%u members): firing the maintenance mode event", nodeCount);
  library_.fireHostEnterMaintenanceMode(nodeCount);
}

void Agent::OnMaintenanceEntered(void* context, unsigned nodeCount) {
  auto* agent = static_cast<Agent*>(context);
  // A full pipe already holds a wake-up that is not handled yet.
  [[maybe_unused]] const ssize_t written =
      ::write(agent->maintenanceFds_[1], &nodeCount, sizeof nodeCount);
}

}  // namespace orvamgmtd
