#include "Reconciler.h"

#include <optional>
#include <set>

#include "platform/Log.h"
#include "platform/VolLib.h"

namespace zeltools {
namespace {

const char kTag[] = "zeld";

// The disk library's exclusive open of a served disk, released with the
// object.
class DiskHold {
 public:
  // Null, with the library's reason in `why`, when another holder has it.
  static std::unique_ptr<DiskHold> Take(const std::string& disk, std::string* why) {
    VolLibHandle* handle = nullptr;
    VolLibInfo* info = nullptr;
    const VolLibError opened =
        VolLib_OpenWithInfo(disk, zel::platform::kDiskOpenLocked, 0, &handle, &info);
    if (!opened.Ok()) {
      *why = VolLib_Err2String(opened);
      return nullptr;
    }
    return std::unique_ptr<DiskHold>(new DiskHold(handle, info));
  }
  ~DiskHold() {
    VolLib_Close(handle_);
    VolLib_FreeInfo(info_);
  }

 private:
  DiskHold(VolLibHandle* handle, VolLibInfo* info) : handle_(handle), info_(info) {}
  VolLibHandle* handle_;
  VolLibInfo* info_;
};

struct AppliedLun {
  ServedLun lun;
  std::unique_ptr<DiskHold> hold;  // null while the LUN is offline
};

struct AppliedTarget {
  int tid = 0;
  std::string redirect;
  std::optional<ChapAccount> chap;
  std::optional<ChapAccount> mutualChap;
  std::set<std::string> initiators;
  bool admitAll = false;
  std::map<uint32_t, AppliedLun> luns;  // by engine LUN
};

std::pair<std::string, std::string> SplitPortal(const std::string& portal) {
  const size_t colon = portal.rfind(':');
  std::string address = portal.substr(0, colon);
  if (address.size() > 1 && address.front() == '[') address = address.substr(1, address.size() - 2);
  return {address, portal.substr(colon + 1)};
}

// The target's account in one direction: a new user is bound before the old
// one is dropped, so the target never admits a login without CHAP that its
// configuration protects. The outgoing account is one per target, so there
// the old goes first; a login then fails until the new one is bound.
void ApplyAccount(Engine& engine, int tid, const std::optional<ChapAccount>& desired,
                  std::optional<ChapAccount>* applied, bool outgoing) {
  const std::string want = desired ? desired->user : "";
  const std::string have = *applied ? (*applied)->user : "";
  if (want != have) {
    if (outgoing && !have.empty()) engine.UnbindAccount(tid, have, true);
    if (!want.empty()) engine.BindAccount(tid, want, outgoing);
    if (!outgoing && !have.empty()) engine.UnbindAccount(tid, have, false);
  }
  *applied = desired;
}

void ApplyAcl(Engine& engine, AppliedTarget& applied, const DesiredTarget& desired) {
  if (desired.admitAll && !applied.admitAll) engine.BindAllInitiators(applied.tid);
  const std::set<std::string> wanted(desired.initiators.begin(), desired.initiators.end());
  for (const std::string& name : wanted) {
    if (applied.initiators.count(name) == 0) engine.BindInitiator(applied.tid, name);
    applied.initiators.insert(name);
  }
  for (auto name = applied.initiators.begin(); name != applied.initiators.end();) {
    if (wanted.count(*name) != 0) {
      ++name;
      continue;
    }
    engine.UnbindInitiator(applied.tid, *name);
    name = applied.initiators.erase(name);
  }
  if (!desired.admitAll && applied.admitAll) engine.UnbindAllInitiators(applied.tid);
  applied.admitAll = desired.admitAll;
}

// A disk's LUN is served only while this host holds the disk.
bool HoldWhenOnline(const ServedLun& lun, const std::string& alias,
                    std::unique_ptr<DiskHold>* hold, std::vector<std::string>* problems) {
  if (!lun.online) return true;
  std::string why;
  *hold = DiskHold::Take(lun.disk, &why);
  if (*hold) return true;
  problems->push_back("target " + alias + " LUN " + std::to_string(lun.engineLun) +
                      ": disk not served, " + why);
  return false;
}

void ApplyLuns(Engine& engine, AppliedTarget& applied, const DesiredTarget& desired,
               std::vector<std::string>* problems) {
  std::map<uint32_t, const ServedLun*> wanted;
  for (const ServedLun& lun : desired.luns) wanted[lun.engineLun] = &lun;
  for (auto it = applied.luns.begin(); it != applied.luns.end();) {
    const auto want = wanted.find(it->first);
    // The engine does not pick up a grown or replaced file: the LUN is made
    // again. A change of its status alone is an update.
    ServedLun same = it->second.lun;
    if (want != wanted.end()) same.online = want->second->online;
    if (want != wanted.end() && same == *want->second) {
      ++it;
      continue;
    }
    engine.DeleteLun(applied.tid, it->first);
    ZEL_LOG_INFO("%s: Stopped serving %s as LUN %u of %s\n", kTag, it->second.lun.disk.c_str(),
                 it->first, desired.alias.c_str());
    it = applied.luns.erase(it);  // releases the disk
  }
  for (const ServedLun& lun : desired.luns) {
    auto have = applied.luns.find(lun.engineLun);
    if (have == applied.luns.end()) {
      AppliedLun added{lun, nullptr};
      if (!HoldWhenOnline(lun, desired.alias, &added.hold, problems)) continue;
      engine.NewLun(applied.tid, lun.engineLun, lun.backingStore, lun.serial, lun.scsiId);
      if (!lun.online) engine.SetLunOnline(applied.tid, lun.engineLun, false);
      applied.luns.emplace(lun.engineLun, std::move(added));
      ZEL_LOG_INFO("%s: Serving %s as LUN %u of %s%s\n", kTag, lun.disk.c_str(), lun.engineLun,
                   desired.alias.c_str(), lun.online ? "" : " (offline)");
    } else if (have->second.lun.online != lun.online) {
      if (lun.online) {
        if (!HoldWhenOnline(lun, desired.alias, &have->second.hold, problems)) continue;
        engine.SetLunOnline(applied.tid, lun.engineLun, true);
      } else {
        engine.SetLunOnline(applied.tid, lun.engineLun, false);
        have->second.hold.reset();
      }
      have->second.lun.online = lun.online;
      ZEL_LOG_INFO("%s: LUN %u of %s is %s\n", kTag, lun.engineLun, desired.alias.c_str(),
                   lun.online ? "online" : "offline; its disk is released");
    }
  }
}

}  // namespace

struct Reconciler::Instance {
  std::unique_ptr<Engine> engine;
  std::map<std::string, AppliedTarget> targets;  // by IQN
  std::map<std::string, std::string> accounts;   // user -> secret
  int nextTid = 1;

  void Forget(std::map<std::string, AppliedTarget>::iterator target) {
    try {
      engine->DeleteTarget(target->second.tid);
    } catch (const EngineError& e) {
      ZEL_LOG_WARNING("%s: Failed to delete target %s: %s\n", kTag, target->first.c_str(),
                      e.what());
    }
    targets.erase(target);  // its disks are released after the engine let go
  }

  // Creates the accounts `wanted` (user -> secret) that are new or whose
  // secret changed. A changed one is replaced while the targets bound to it
  // take no logins (deleting an account unbinds it): their tids go into
  // `paused`, for the caller to make ready once everything else is applied.
  void SetAccounts(const std::map<std::string, std::string>& wanted, std::set<int>* paused) {
    for (const auto& [user, secret] : wanted) {
      const auto have = accounts.find(user);
      if (have != accounts.end() && have->second == secret) continue;
      std::vector<std::pair<AppliedTarget*, bool>> bound;  // (target, outgoing)
      if (have != accounts.end()) {
        for (auto& [iqn, applied] : targets) {
          if (applied.chap && applied.chap->user == user) bound.push_back({&applied, false});
          if (applied.mutualChap && applied.mutualChap->user == user) {
            bound.push_back({&applied, true});
          }
        }
        for (const auto& binding : bound) {
          if (paused->insert(binding.first->tid).second) {
            engine->SetTargetReady(binding.first->tid, false);
          }
        }
        engine->DeleteAccount(user);
        accounts.erase(user);
      }
      engine->NewAccount(user, secret);
      accounts[user] = secret;
      for (const auto& [applied, outgoing] : bound) {
        engine->BindAccount(applied->tid, user, outgoing);
        (outgoing ? applied->mutualChap : applied->chap)->secret = secret;
      }
    }
  }

  // Creates or updates one target; a refusal is reported and the target
  // forgotten, to be applied afresh by the next pass.
  void ApplyTarget(const std::string& iqn, const DesiredTarget& target, ReconcileReport* report) {
    auto found = targets.find(iqn);
    try {
      if (found == targets.end()) {
        AppliedTarget applied;
        applied.tid = nextTid++;
        applied.redirect = target.redirect;
        engine->NewTarget(applied.tid, iqn);
        found = targets.emplace(iqn, std::move(applied)).first;
        if (!target.redirect.empty()) {
          const auto [address, port] = SplitPortal(target.redirect);
          engine->SetRedirect(found->second.tid, address, port);
        }
      }
      AppliedTarget& applied = found->second;
      ApplyAccount(*engine, applied.tid, target.chap, &applied.chap, false);
      ApplyAccount(*engine, applied.tid, target.mutualChap, &applied.mutualChap, true);
      ApplyLuns(*engine, applied, target, &report->problems);
      ApplyAcl(*engine, applied, target);
      (target.Served() ? report->served : report->redirected).push_back(target.alias);
    } catch (const EngineError& e) {
      report->problems.push_back("target " + target.alias + ": " + e.what());
      if (found != targets.end()) Forget(found);
    }
  }
};

Reconciler::Reconciler(EngineFactory factory) : factory_(std::move(factory)) {}

Reconciler::~Reconciler() { Stop(); }

ReconcileReport Reconciler::Apply(const DesiredState& desired) {
  ReconcileReport report;
  report.problems = desired.skipped;
  std::map<std::string, std::vector<const DesiredTarget*>> byPortal;
  for (const DesiredTarget& target : desired.targets) byPortal[target.portal].push_back(&target);

  for (auto it = instances_.begin(); it != instances_.end();) {
    if (byPortal.count(it->first) != 0) {
      ++it;
      continue;
    }
    ZEL_LOG_INFO("%s: No target left on %s; stopping its engine\n", kTag, it->first.c_str());
    it->second->engine->Stop();
    it = instances_.erase(it);
  }
  for (const auto& [portal, targets] : byPortal) {
    std::unique_ptr<Instance>& instance = instances_[portal];
    if (!instance) {
      try {
        auto started = std::make_unique<Instance>();
        started->engine = factory_(portal);
        instance = std::move(started);
        ZEL_LOG_INFO("%s: Started the engine for %s\n", kTag, portal.c_str());
      } catch (const EngineError& e) {
        report.problems.push_back("the engine for " + portal + " did not start: " + e.what());
        instances_.erase(portal);
        continue;
      }
    }
    ApplyInstance(*instance, targets, &report);
  }
  return report;
}

void Reconciler::ApplyInstance(Instance& instance, const std::vector<const DesiredTarget*>& targets,
                               ReconcileReport* report) {
  Engine& engine = *instance.engine;
  // The instance's accounts are shared by user name: a user wanted with
  // two secrets cannot be served, and that target is left out.
  std::map<std::string, std::string> accounts;
  std::map<std::string, const DesiredTarget*> wanted;
  for (const DesiredTarget* target : targets) {
    bool clash = false;
    for (const auto* account : {&target->chap, &target->mutualChap}) {
      if (!*account) continue;
      const auto known = accounts.find((*account)->user);
      clash = clash || (known != accounts.end() && known->second != (*account)->secret);
    }
    if (clash) {
      report->problems.push_back("target " + target->alias +
                                 ": its CHAP user has another secret in a target on " +
                                 target->portal);
      continue;
    }
    for (const auto* account : {&target->chap, &target->mutualChap}) {
      if (*account) accounts[(*account)->user] = (*account)->secret;
    }
    wanted[target->iqn] = target;
  }

  for (auto it = instance.targets.begin(); it != instance.targets.end();) {
    const auto want = wanted.find(it->first);
    if (want != wanted.end() && want->second->redirect == it->second.redirect) {
      ++it;
      continue;
    }
    auto gone = it++;
    instance.Forget(gone);
  }

  std::set<int> paused;
  try {
    instance.SetAccounts(accounts, &paused);
    for (const auto& [iqn, target] : wanted) instance.ApplyTarget(iqn, *target, report);

    for (const int tid : paused) {
      for (const auto& [iqn, applied] : instance.targets) {
        if (applied.tid == tid) engine.SetTargetReady(tid, true);
      }
    }
    for (auto it = instance.accounts.begin(); it != instance.accounts.end();) {
      if (accounts.count(it->first) != 0) {
        ++it;
        continue;
      }
      engine.DeleteAccount(it->first);
      it = instance.accounts.erase(it);
    }
  } catch (const EngineError& e) {
    // A target paused for an account swap stays paused: closed, never open.
    report->problems.push_back("engine for " + targets.front()->portal + ": " + e.what());
  }
}

bool Reconciler::RestartDeadEngines() {
  bool restarted = false;
  for (auto it = instances_.begin(); it != instances_.end();) {
    if (it->second->engine->Alive()) {
      ++it;
      continue;
    }
    ZEL_LOG_ERROR("%s: The engine for %s ended; starting it again\n", kTag, it->first.c_str());
    restarted = true;
    it->second->targets.clear();
    it->second->accounts.clear();
    it->second->nextTid = 1;
    try {
      it->second->engine = factory_(it->first);
      ++it;
    } catch (const EngineError& e) {
      ZEL_LOG_ERROR("%s: The engine for %s did not start again: %s\n", kTag, it->first.c_str(),
                    e.what());
      it = instances_.erase(it);
    }
  }
  return restarted;
}

void Reconciler::Verify() {
  for (auto& [portal, instance] : instances_) {
    std::map<int, EngineTarget> held;
    try {
      for (EngineTarget& target : instance->engine->Targets()) held[target.tid] = target;
    } catch (const EngineError& e) {
      ZEL_LOG_WARNING("%s: Cannot list the targets of %s: %s\n", kTag, portal.c_str(), e.what());
      continue;
    }
    for (auto it = instance->targets.begin(); it != instance->targets.end();) {
      const AppliedTarget& applied = it->second;
      const auto engineSide = held.find(applied.tid);
      std::set<uint32_t> luns;
      for (const auto& lun : applied.luns) luns.insert(lun.first);
      const bool same = engineSide != held.end() && engineSide->second.iqn == it->first &&
                        engineSide->second.luns == luns &&
                        engineSide->second.redirect == SplitPortal(applied.redirect).first;
      if (engineSide != held.end()) held.erase(engineSide);
      auto checked = it++;
      if (!same) {
        ZEL_LOG_WARNING("%s: Target %s is not in the engine as applied; applying it again\n",
                        kTag, checked->first.c_str());
        instance->Forget(checked);
      }
    }
    for (const auto& [tid, target] : held) {
      ZEL_LOG_WARNING("%s: The engine holds target %s that was not applied; deleting it\n", kTag,
                      target.iqn.c_str());
      try {
        instance->engine->DeleteTarget(tid);
      } catch (const EngineError& e) {
        ZEL_LOG_WARNING("%s: Failed to delete target %s: %s\n", kTag, target.iqn.c_str(),
                        e.what());
      }
    }
  }
}

void Reconciler::Stop() {
  for (auto& [portal, instance] : instances_) {
    try {
      instance->engine->Stop();
    } catch (const EngineError& e) {
      ZEL_LOG_ERROR("%s: Failed to stop the engine for %s: %s\n", kTag, portal.c_str(), e.what());
    }
    instance->targets.clear();
  }
  instances_.clear();
}

std::vector<Reconciler::EngineState> Reconciler::Engines() {
  std::vector<EngineState> engines;
  for (auto& [portal, instance] : instances_) {
    engines.push_back({portal, instance->engine->Alive(), instance->engine->Pid()});
  }
  return engines;
}

}  // namespace zeltools
