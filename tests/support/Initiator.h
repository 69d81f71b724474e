// A real iSCSI initiator for the end-to-end tests and the probe: a thin layer
// over the libiscsi C library that logs in to a target served on loopback,
// sends a few SCSI commands to one LUN and tells the outcomes apart (an
// authentication failure, a target hidden by its ACL, an offline LUN).
//
// Nothing here can hang a test: every operation runs libiscsi's asynchronous
// calls in an event loop of our own with a deadline (the session's timeout),
// and a session whose operation ran past it is dropped, so every later call
// fails at once. A session is not thread-safe; separate sessions are
// independent.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct iscsi_context;
struct scsi_task;

namespace zel::test {

// How long one operation (a login, a command, a discovery) may take.
inline constexpr std::chrono::milliseconds kInitiatorTimeout{10000};

// The target names that a portal ("ADDR:PORT") lists to `initiatorIqn` in a
// discovery session (SendTargets); a target whose ACL refuses the initiator
// is not listed. Throws std::runtime_error with libiscsi's text on failure.
std::vector<std::string> Discover(const std::string& portal, const std::string& initiatorIqn,
                                  std::chrono::milliseconds timeout = kInitiatorTimeout);

struct LoginRequest {
  std::string portal;  // "ADDR:PORT"
  std::string targetIqn;
  int lun = 1;  // the LUN that the commands of the session address
  std::string initiatorIqn;
  std::string chapUser, chapSecret;      // both empty: no CHAP
  std::string mutualUser, mutualSecret;  // both empty: the target is not authenticated
};

enum class LoginStatus {
  kLoggedIn,
  kAuthenticationFailure,  // wrong or missing CHAP credentials
  kTargetNotFound,         // no such target, or its ACL refuses the initiator
  kFailed,                 // anything else: refused connection, timeout, bad mutual CHAP, ...
};

struct LoginResult {
  LoginStatus status = LoginStatus::kFailed;
  std::string error;         // libiscsi's text when not logged in
  std::string redirectedTo;  // the portal a login redirection led to, empty if none
  bool ok() const { return status == LoginStatus::kLoggedIn; }
};

// The outcome of one SCSI command.
struct CommandResult {
  bool ok = false;
  int senseKey = 0;       // the sense key of a CHECK CONDITION, 0 otherwise
  bool notReady = false;  // the LUN answered NOT READY (it is offline)
  std::string error;      // libiscsi's text (with the sense data) when not ok
  explicit operator bool() const { return ok; }
};

struct InquiryData {
  std::string vendor, product, serial;  // trailing blanks removed
};

struct Capacity {
  uint32_t blockSize = 0;
  uint64_t blockCount = 0;
};

class InitiatorSession {
 public:
  static constexpr uint32_t kBlockSize = 512;

  explicit InitiatorSession(std::chrono::milliseconds timeout = kInitiatorTimeout)
      : timeout_(timeout) {}
  ~InitiatorSession() { Logout(); }
  InitiatorSession(const InitiatorSession&) = delete;
  InitiatorSession& operator=(const InitiatorSession&) = delete;

  // Logs in (following a temporary login redirection) and clears the unit
  // attention that a fresh login reports, so that the first command answers
  // for the LUN itself. An offline LUN does not fail the login (it answers
  // NOT READY to the commands). Logs out of a previous session first.
  LoginResult Login(const LoginRequest& request);
  bool loggedIn() const { return context_ != nullptr; }
  // Logs out and disconnects; a no-op without a session.
  void Logout();

  // NOT READY here is how an initiator learns that a LUN is offline. The
  // engine's offline LUN (online=0) refuses only this command; reads and
  // writes answer NOT READY too only when the LUN is also marked removable.
  CommandResult TestUnitReady();
  CommandResult Inquiry(InquiryData* out);
  CommandResult ReadCapacity16(Capacity* out);
  // Writes whole 512-byte blocks from `lba` on: data.size() must be a
  // multiple of kBlockSize.
  CommandResult Write(uint64_t lba, const std::string& data);
  CommandResult Read(uint64_t lba, uint32_t blocks, std::string* out);
  // Reads `mib` MiB from LBA 0 on with several commands in flight and sets
  // *mibPerSecond to the rate measured over the whole read.
  CommandResult ReadSequential(uint32_t mib, double* mibPerSecond);

 private:
  struct Pending;

  static void OnDone(iscsi_context*, int status, void* commandData, void* privateData);
  // Issues one command (`issue` passes `Pending*` as the callback's data)
  // and waits for it; `onGood` reads the answer of a command that succeeded.
  // A command that runs past the timeout drops the session.
  CommandResult Run(const std::function<scsi_task*(Pending*)>& issue,
                    const std::function<void(scsi_task*)>& onGood);
  CommandResult Failed(const std::string& error);
  void Drop();

  const std::chrono::milliseconds timeout_;
  iscsi_context* context_ = nullptr;
  int lun_ = 0;
};

}  // namespace zel::test
