// Brings the engine instances of this host to a desired state, touching only
// what differs: adding a LUN restarts nothing, and a target is never left
// open without the CHAP its configuration asks for (a new account is bound
// before the old one goes; a changed secret is swapped while the target
// takes no logins; the ACL is bound after everything else of a new target,
// and an engine target without ACL admits nobody).
//
// Every disk it serves is held under the disk library's exclusive open for
// as long as it serves it: that is how a removal on any host learns that
// this host let go. An offline LUN stays in the engine, refusing I/O, with
// its disk released.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DesiredState.h"
#include "Engine.h"

namespace zeltools {

// What the last application achieved, for the status file.
struct ReconcileReport {
  std::vector<std::string> served;      // aliases
  std::vector<std::string> redirected;  // aliases
  std::vector<std::string> problems;    // what could not be applied, and why
};

class Reconciler {
 public:
  // Starts the engine instance of a portal; throws EngineError.
  using EngineFactory = std::function<std::unique_ptr<Engine>(const std::string& portal)>;

  explicit Reconciler(EngineFactory factory);
  ~Reconciler();
  Reconciler(const Reconciler&) = delete;
  Reconciler& operator=(const Reconciler&) = delete;

  ReconcileReport Apply(const DesiredState& desired);

  // Instances whose engine died are started afresh (and everything is
  // applied to them again by the next Apply). True when one was.
  bool RestartDeadEngines();

  // Compares what each engine holds with what was applied to it; a target
  // that differs is applied again by the next Apply.
  void Verify();

  // Every target offline, every session ended, every disk released, every
  // engine stopped.
  void Stop();

  struct EngineState {
    std::string portal;  // "address:port"
    bool running = false;
    int pid = 0;
  };
  std::vector<EngineState> Engines();

 private:
  struct Instance;
  void ApplyInstance(Instance& instance, const std::vector<const DesiredTarget*>& targets,
                     ReconcileReport* report);

  EngineFactory factory_;
  std::map<std::string, std::unique_ptr<Instance>> instances_;  // by portal
};

}  // namespace zeltools
