#include "TgtEngine.h"

#include <memory>

#include "zel/OrvaCtlException.h"
#include "zeld/engine/TgtControl.h"
#include "zeld/engine/TgtProcess.h"
#include "zeld/engine/TgtShow.h"

namespace zeltools {
namespace {

using engine::TgtDirection;
using engine::TgtResult;
using engine::TgtState;

class TgtEngine final : public Engine {
 public:
  explicit TgtEngine(engine::TgtProcessOptions options) : process_(std::move(options)) {
    try {
      process_.Start();
    } catch (const HostCtl::Lib::HostCtlException& e) {
      throw EngineError(e.GetMessage());
    }
  }

  bool Alive() override { return process_.Alive(); }
  int Pid() override { return static_cast<int>(process_.pid()); }

  std::vector<EngineTarget> Targets() override {
    std::vector<engine::TgtTargetView> views;
    try {
      Checked(engine::ReadServedTargets(Control(), &views), "list targets");
    } catch (const HostCtl::Lib::HostCtlException& e) {
      throw EngineError(e.GetMessage());
    }
    std::vector<EngineTarget> targets;
    for (const engine::TgtTargetView& view : views) {
      EngineTarget target{view.tid, view.name, {}, view.redirect.address};
      for (const engine::TgtLunView& lun : view.luns) {
        if (lun.lun != 0) target.luns.insert(static_cast<uint32_t>(lun.lun));
      }
      targets.push_back(std::move(target));
    }
    return targets;
  }

  void NewTarget(int tid, const std::string& iqn) override {
    Checked(Control().NewTarget(tid, iqn), "create target " + iqn);
  }
  void DeleteTarget(int tid) override {
    Checked(Control().DeleteTarget(tid, true), "delete target " + std::to_string(tid));
  }
  void SetTargetReady(int tid, bool ready) override {
    Checked(Control().SetTargetState(tid, ready ? TgtState::kReady : TgtState::kOffline),
            "set the state of target " + std::to_string(tid));
  }
  void SetRedirect(int tid, const std::string& address, const std::string& port) override {
    Checked(address.empty() ? Control().ClearRedirect(tid)
                            : Control().SetRedirect(tid, address, port, "Temporary"),
            "redirect target " + std::to_string(tid));
  }
  void NewLun(int tid, uint32_t lun, const std::string& backingStore, const std::string& serial,
              const std::string& scsiId) override {
    const std::string what = "add LUN " + std::to_string(lun);
    Checked(Control().NewLun(tid, lun, backingStore), what);
    Checked(Control().UpdateLun(tid, lun, "removable=1"), what);
    Checked(Control().SetLunIdentity(tid, lun, serial, scsiId), what);
  }
  void DeleteLun(int tid, uint32_t lun) override {
    Checked(Control().DeleteLun(tid, lun), "delete LUN " + std::to_string(lun));
  }
  void SetLunOnline(int tid, uint32_t lun, bool online) override {
    Checked(Control().SetLunOnline(tid, lun, online),
            "take LUN " + std::to_string(lun) + (online ? " online" : " offline"));
  }
  void BindInitiator(int tid, const std::string& name) override {
    Checked(Control().BindInitiatorName(tid, name), "admit " + name);
  }
  void UnbindInitiator(int tid, const std::string& name) override {
    Checked(Control().UnbindInitiatorName(tid, name), "withdraw " + name);
  }
  void BindAllInitiators(int tid) override {
    Checked(Control().BindInitiatorAddress(tid, "ALL"), "admit every initiator");
  }
  void UnbindAllInitiators(int tid) override {
    Checked(Control().UnbindInitiatorAddress(tid, "ALL"), "stop admitting every initiator");
  }
  void NewAccount(const std::string& user, const std::string& secret) override {
    Checked(Control().NewAccount(user, secret), "create account " + user);
  }
  void DeleteAccount(const std::string& user) override {
    Checked(Control().DeleteAccount(user), "delete account " + user);
  }
  void BindAccount(int tid, const std::string& user, bool outgoing) override {
    Checked(Control().BindAccount(tid, user, Direction(outgoing)), "bind account " + user);
  }
  void UnbindAccount(int tid, const std::string& user, bool outgoing) override {
    Checked(Control().UnbindAccount(tid, user, Direction(outgoing)), "unbind account " + user);
  }
  void Stop() override { process_.Stop(); }

 private:
  const engine::TgtControl& Control() { return process_.control(); }
  static TgtDirection Direction(bool outgoing) {
    return outgoing ? TgtDirection::kOutgoing : TgtDirection::kIncoming;
  }
  static TgtResult Checked(TgtResult result, const std::string& what) {
    if (!result.ok()) throw EngineError("Failed to " + what + ": " + result.message);
    return result;
  }

  engine::TgtProcess process_;
};

}  // namespace

Reconciler::EngineFactory TgtEngineFactory(const std::string& home) {
  return [home](const std::string& portal) -> std::unique_ptr<Engine> {
    engine::TgtProcessOptions options;
    options.portal = portal;
    std::string name = portal;
    for (char& c : name) {
      if (c == ':' || c == '[' || c == ']') c = '_';
    }
    options.logPath = home + "/log/engine-" + name + ".log";
    return std::make_unique<TgtEngine>(std::move(options));
  };
}

}  // namespace zeltools
