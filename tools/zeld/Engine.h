// One instance of the iSCSI engine, serving one portal (address:port): a
// target must be reachable only at its own address and port, and an engine
// instance shows every target it holds on every portal it listens on.
// The reconciler drives instances through this interface; the engine's own
// driver (engine/) implements it.
#pragma once

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace zeltools {

// A refused engine request, with the engine's reason. Never carries a secret.
struct EngineError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A target as the engine holds it.
struct EngineTarget {
  int tid = 0;
  std::string iqn;
  std::set<uint32_t> luns;  // its LUNs, the engine's own LUN 0 left out
  std::string redirect;     // the address logins are redirected to; empty: none
};

class Engine {
 public:
  virtual ~Engine() = default;

  // False once the engine process has ended (killed, crashed).
  virtual bool Alive() = 0;
  // Its process.
  virtual int Pid() = 0;
  virtual std::vector<EngineTarget> Targets() = 0;

  virtual void NewTarget(int tid, const std::string& iqn) = 0;
  // Ends the target's sessions too.
  virtual void DeleteTarget(int tid) = 0;
  // false: no new logins (the target is being changed).
  virtual void SetTargetReady(int tid, bool ready) = 0;
  // Answers every login with a temporary redirection to address:port; an
  // empty address turns redirection off.
  virtual void SetRedirect(int tid, const std::string& address, const std::string& port) = 0;

  // A LUN served from `backingStore`, removable (so that, offline, it
  // refuses reads and writes too, not only TEST UNIT READY), with its SCSI
  // serial number and identifier.
  virtual void NewLun(int tid, uint32_t lun, const std::string& backingStore,
                      const std::string& serial, const std::string& scsiId) = 0;
  virtual void DeleteLun(int tid, uint32_t lun) = 0;
  virtual void SetLunOnline(int tid, uint32_t lun, bool online) = 0;

  virtual void BindInitiator(int tid, const std::string& name) = 0;
  virtual void UnbindInitiator(int tid, const std::string& name) = 0;
  // Every initiator admitted, whatever its name.
  virtual void BindAllInitiators(int tid) = 0;
  virtual void UnbindAllInitiators(int tid) = 0;

  // Accounts are the instance's, shared by the targets bound to them;
  // `outgoing` is the target's own account for mutual CHAP.
  virtual void NewAccount(const std::string& user, const std::string& secret) = 0;
  virtual void DeleteAccount(const std::string& user) = 0;
  virtual void BindAccount(int tid, const std::string& user, bool outgoing) = 0;
  virtual void UnbindAccount(int tid, const std::string& user, bool outgoing) = 0;

  // Takes every target offline, ends every session and stops the process.
  virtual void Stop() = 0;
};

}  // namespace zeltools
