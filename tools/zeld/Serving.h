// zeld's work between signals: read the desired state, apply it, and say in
// run/zeld-status.json how that went (what `zelctl service status` shows).
#pragma once

#include <functional>
#include <map>
#include <string>

#include "Reconciler.h"
#include "platform/Directory.h"

namespace zeltools {

class Serving {
 public:
  // `statusPath`: the status file, replaced whole after every pass.
  // `changed` is called (on the directory's thread) when the owner of a
  // target changes: a pass should follow.
  Serving(std::string hostUuid, std::string statusPath, Reconciler::EngineFactory factory,
          std::function<void()> changed);
  ~Serving();

  // One pass: the desired state read afresh and applied. `full` first
  // checks every engine against what was applied to it (a reload).
  // Failures are logged and reported in the status file; never throws.
  void Reconcile(bool full);

  // Whether the last pass left something unapplied (a disk that its
  // previous owner still holds, say): the next pass should come soon.
  bool Incomplete() const { return incomplete_; }

  // Restarts engines that died; true when one was (a pass should follow).
  bool RestartDeadEngines() { return reconciler_.RestartDeadEngines(); }

  // io_stop: every target offline, sessions ended, disks released, engines
  // stopped; the status file says so.
  void Stop();

 private:
  void WriteStatus(const std::string& result, const ReconcileReport& report);
  // Watches the owner of every target of `desired`, and only those.
  void WatchOwners(const DesiredState& desired);

  const std::string hostUuid_;
  const std::string statusPath_;
  Reconciler reconciler_;
  const std::function<void()> changed_;
  uint64_t generation_ = 0;
  bool incomplete_ = false;
  std::map<std::string, zel::platform::Directory::SubscriptionHandle> ownerWatches_;
};

}  // namespace zeltools
