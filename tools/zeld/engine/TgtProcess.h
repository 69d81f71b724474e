// One tgtd, a child of zeld, serving one portal (ADDR:PORT): every target
// of an instance is visible on all its portals, so a target that must be
// reachable only at its own address and port needs an instance of its own.
//
// Control port: tgtd takes a write lock on byte 0 of
// /var/run/tgtd/socket.N.lock for as long as it runs and exits when another
// holds it. Start probes N from `firstControlPort` upwards, skipping ports
// whose lock is held (F_GETLK, which takes nothing), starts tgtd on the first
// free one and moves to the next when the child exits before it is ready (a
// concurrent start took the same port). Ready means: the lock is held by
// this child's pid and the control socket answers, so a socket of another
// instance is never mistaken for this one.
//
// The child is waited for by pid only: a process that reaps every child
// (waitpid(-1)) would steal its status. Not thread-safe; one owner.
//
// tgtd does not fail on a portal it cannot bind: it listens on every address
// at port 3260 instead. Start refuses a portal that cannot be bound before
// it starts tgtd, and after the start keeps only its own portal.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "zeld/engine/TgtControl.h"

namespace zeltools {
namespace engine {

struct TgtProcessOptions {
  std::string tgtdPath = "/usr/sbin/tgtd";
  std::string portal;     // "ADDR:PORT"
  std::string logPath;    // tgtd's stdout and stderr, appended
  int threadsPerLun = 2;  // tgtd's default 16 per LUN is thousands of threads
  int firstControlPort = 7400;
  int controlPortCount = 1000;
  int readySeconds = 10;
  int stopSeconds = 5;
};

class TgtProcess {
 public:
  explicit TgtProcess(TgtProcessOptions options);
  ~TgtProcess();  // Stop()
  TgtProcess(const TgtProcess&) = delete;
  TgtProcess& operator=(const TgtProcess&) = delete;

  // Throws OrvaCtlException when no instance could be made ready; nothing
  // is left running then.
  void Start();
  // Whether the child still runs (reaps it when it has ended).
  bool Alive();
  // Offline, every target deleted with force, system delete, then waits for
  // the pid; SIGKILL by pid when it does not exit in time. Removes the
  // socket and lock files. Does nothing when not started.
  void Stop();

  pid_t pid() const { return pid_; }
  int controlPort() const { return controlPort_; }
  // Valid after Start.
  const TgtControl& control() const { return *control_; }

 private:
  bool Launch(int controlPort);  // false: the child ended before ready
  void ServeOnlyOwnPortal();     // stops and throws when tgtd lost its portal
  bool WaitForExit(int seconds);
  void RemoveSocketFiles();

  const TgtProcessOptions options_;
  pid_t pid_ = -1;
  int controlPort_ = -1;
  std::unique_ptr<TgtControl> control_;
};

}  // namespace engine
}  // namespace zeltools
