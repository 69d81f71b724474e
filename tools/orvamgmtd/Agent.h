// The agent's life with the library loaded: restore the service, start the
// control thread, turn the platform's events into the library's cluster
// events until asked to stop, then stop the library's side cleanly.
//
// Events, all handled on the agent's main thread one at a time:
//   SIGHUP                         -> system refresh
//   link or address change         -> network change, once per burst: the
//                                     notifications of 500 ms after the
//                                     first are one change
//   this host's member entry gone  -> cluster leave
//   or its membership lease lost
//   this host's maintenance flag on -> host enter maintenance mode
//   host.json declares other "nics" -> network change, coalesced with the
//                                     link and address changes
//   SIGTERM, SIGINT                -> stop
#pragma once

#include <signal.h>

#include <memory>
#include <string>

#include "ZelLibrary.h"
#include "common/Daemon.h"

namespace orvamgmtd {

class Agent {
 public:
  // REQUIRES: `signals` (SIGHUP, SIGTERM, SIGINT) are blocked in every
  // thread, and the library has selected its host.
  Agent(ZelLibrary& library, const sigset_t& signals);
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Starts, reports the start once it handles events, and returns the exit
  // code after the stop: 0 after SIGTERM or SIGINT.
  int Run(zeltools::StartReport& report);

  // Follows edits of `home`/host.json. Editors replace the file by rename,
  // so the home directory is watched, not the file. Logs and goes on
  // without when the watch cannot be set up.
  void WatchHostConfig(const std::string& home);

 private:
  void Start();
  void Stop();
  // Until a stop signal; false when waiting itself failed.
  bool HandleEvents();
  // Handles one queued signal; false for a stop signal.
  bool HandleSignal();
  void HandleMemberLeft();
  static void OnMemberLeft(void* context);
  // Reads the queued host.json events; the count of those that changed the
  // declared interfaces (0 or 1).
  int HandleHostConfigEvents();
  void HandleMaintenanceEntered();
  static void OnMaintenanceEntered(void* context, unsigned nodeCount);

  ZelLibrary& library_;
  const sigset_t signals_;
  std::unique_ptr<HostCtl::Orva::OrvaAsyncPlugin> plugin_;
  std::unique_ptr<HostCtl::Orva::IscsiTarget::OrvaIscsiTarget> service_;
  uint64_t membershipWatch_ = 0;
  uint64_t membershipHold_ = 0;
  int signalFd_ = -1;
  int netlinkFd_ = -1;
  // The membership watch runs on the directory's thread; it only wakes the
  // main thread through this pipe.
  int memberLeftFds_[2] = {-1, -1};
  uint64_t maintenanceWatch_ = 0;
  // Carries the member count from the directory's thread, as memberLeftFds_.
  int maintenanceFds_[2] = {-1, -1};
  int homeWatchFd_ = -1;  // inotify on the home
};

}  // namespace orvamgmtd
