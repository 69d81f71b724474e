// zeld's work between signals: read the desired state, apply it, and say in
// run/zeld-status.json how that went (what `zelctl service status` shows).
#pragma once

#include <string>

#include "Reconciler.h"

namespace zeltools {

class Serving {
 public:
  // `statusPath`: the status file, replaced whole after every pass.
  Serving(std::string hostUuid, std::string statusPath, Reconciler::EngineFactory factory);

  // One pass: the desired state read afresh and applied. `full` first
  // checks every engine against what was applied to it (a reload).
  // Failures are logged and reported in the status file; never throws.
  void Reconcile(bool full);

  // Restarts engines that died; true when one was (a pass should follow).
  bool RestartDeadEngines() { return reconciler_.RestartDeadEngines(); }

  // io_stop: every target offline, sessions ended, disks released, engines
  // stopped; the status file says so.
  void Stop();

 private:
  void WriteStatus(const std::string& result, const ReconcileReport& report);

  const std::string hostUuid_;
  const std::string statusPath_;
  Reconciler reconciler_;
  uint64_t generation_ = 0;
};

}  // namespace zeltools
