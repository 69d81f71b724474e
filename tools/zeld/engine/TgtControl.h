// zeld's client of tgtd's control socket: every request the daemon makes of
// its engine, without starting a process per request and without putting a
// CHAP secret on any command line (other local users read /proc/PID/cmdline,
// so the engine's admin tool is never used for accounts).
//
// The wire format, as tgtd 1.0.85 and its admin tool speak it on this
// machine (observed, not documented by the engine):
//   - one request per connection to the unix stream socket
//     /var/run/tgtd/socket.N (N the control port given to `tgtd -C N`); the
//     daemon closes the connection after its reply.
//   - request = a 120-byte header in host byte order, then the parameter
//     text with its terminating NUL (no text, no NUL):
//        0  u32 mode      0 system, 1 target, 2 logical unit, 3 portal,
//                         4 lld, 5 session, 6 connection, 7 account
//        4  u32 op        0 new, 1 delete, 2 show, 3 bind, 4 unbind,
//                         5 update, 7 start, 8 stop
//        8  char[64]      driver name, "iscsi", NUL-padded
//       72  u32 length    of the whole request, header included
//       76  i32 tid       -1 when the request names no target
//       80  u64 sid       0
//       88  u64 lun       all ones when the request names no LUN
//       96  u32 cid, 100 u32 host number, 104 u32 device type: 0
//      108  u32 direction 1 for an outgoing account, else 0
//      112  u32 pack      0
//      116  u32 force     1 deletes a target even with sessions
//   - parameters are "key=value" pairs joined by commas: targetname=IQN,
//     path=FILE, initiator-name=IQN, initiator-address=ALL|IP,
//     user=U,password=P, user=U, State=offline|ready (system),
//     state=offline|ready and RedirectAddress|RedirectPort|RedirectReason=V
//     (target); a LUN update is "targetOps K=V,...," and a portal request
//     "portalOps portal=ADDR:PORT,". A comma inside a value silently cuts it
//     (the rest is taken as another key), so values with commas are refused
//     here.
//   - reply = u32 error, u32 length (8 + the text that follows); a show
//     answers its text, NUL-terminated. Errors carry only the code;
//     TgtErrorText gives the text the admin tool prints for each.
// Thread-safe: an object holds only the socket path.
#pragma once

#include <cstdint>
#include <string>

namespace zeltools {
namespace engine {

// tgtd's error codes (0 is success); negative codes are this client's own.
enum TgtError : int {
  kTgtOk = 0,
  kTgtUnknownError = 1,
  kTgtNoMemory = 2,
  kTgtNoDriver = 3,
  kTgtNoTarget = 4,
  kTgtNoLun = 5,
  kTgtNoSession = 6,
  kTgtNoConnection = 7,
  kTgtNoBinding = 8,
  kTgtTargetExists = 9,
  kTgtLunExists = 10,
  kTgtBindingExists = 11,
  kTgtAclExists = 12,
  kTgtNoAcl = 13,
  kTgtAccountExists = 14,
  kTgtNoAccount = 15,
  kTgtTooManyAccounts = 16,
  kTgtInvalidRequest = 17,
  kTgtOutgoingExists = 18,
  kTgtTargetActive = 19,
  kTgtLunActive = 20,
  kTgtDriverBusy = 21,
  kTgtUnsupported = 22,
  kTgtUnknownParameter = 23,
  kTgtPreventRemoval = 24,
  // The daemon could not be reached or its reply was cut: it is not running
  // (or no longer), and the request may or may not have been applied.
  kTgtUnreachable = -1,
  // Refused before sending: a value the wire format cannot carry.
  kTgtBadArgument = -2,
};

// The text the engine's admin tool shows for a tgtd code.
std::string TgtErrorText(int code);

struct TgtResult {
  int code = kTgtOk;
  std::string message;  // empty on success; never holds a secret
  std::string output;   // the text a show answers
  bool ok() const { return code == kTgtOk; }
};

enum class TgtState { kReady, kOffline };
enum class TgtDirection { kIncoming, kOutgoing };

class TgtControl {
 public:
  // The socket of control port `controlPort`.
  explicit TgtControl(int controlPort);
  // A socket elsewhere (a recording server in a test).
  explicit TgtControl(std::string socketPath);

  static std::string SocketPath(int controlPort);
  const std::string& socketPath() const { return socketPath_; }

  // The whole daemon.
  TgtResult SetSystemState(TgtState state) const;
  TgtResult DeleteSystem() const;  // the daemon exits; refused while targets exist
  TgtResult ShowSystem() const;

  // Targets: tid >= 1.
  TgtResult NewTarget(int tid, const std::string& iqn) const;
  TgtResult DeleteTarget(int tid, bool force) const;
  TgtResult SetTargetState(int tid, TgtState state) const;
  // Every login to the target is answered "moved" to address:port, before
  // CHAP and ACL checks. reason is "Temporary" or "Permanent". The address is
  // set last, so a login never sees a new address with an old port.
  TgtResult SetRedirect(int tid, const std::string& address, const std::string& port,
                        const std::string& reason) const;
  TgtResult ClearRedirect(int tid) const;
  TgtResult UpdateTarget(int tid, const std::string& name, const std::string& value) const;
  TgtResult ShowTargets() const;        // every target: parse with ParseTargetShow
  TgtResult ShowTarget(int tid) const;  // its parameters: ParseTargetParameters

  // Logical units: LUN 0 is the engine's own controller.
  TgtResult NewLun(int tid, uint64_t lun, const std::string& backingStore) const;
  TgtResult DeleteLun(int tid, uint64_t lun) const;
  TgtResult SetLunOnline(int tid, uint64_t lun, bool online) const;
  TgtResult SetLunIdentity(int tid, uint64_t lun, const std::string& serial,
                           const std::string& scsiId) const;
  // `params` "k=v,k=v" as the admin tool's --params takes them.
  TgtResult UpdateLun(int tid, uint64_t lun, const std::string& params) const;

  // Initiator ACL: by name, or by address ("ALL" or an IP address).
  TgtResult BindInitiatorName(int tid, const std::string& iqn) const;
  TgtResult UnbindInitiatorName(int tid, const std::string& iqn) const;
  TgtResult BindInitiatorAddress(int tid, const std::string& address) const;
  TgtResult UnbindInitiatorAddress(int tid, const std::string& address) const;

  // CHAP accounts. Deleting an account silently unbinds it from every
  // target, which leaves a target open: bind the new one first.
  TgtResult NewAccount(const std::string& user, const std::string& password) const;
  TgtResult DeleteAccount(const std::string& user) const;
  TgtResult BindAccount(int tid, const std::string& user, TgtDirection direction) const;
  TgtResult UnbindAccount(int tid, const std::string& user, TgtDirection direction) const;

  // Portals ("ADDR:PORT"); every target is served on every portal.
  TgtResult DeletePortal(const std::string& portal) const;
  TgtResult ShowPortals() const;

 private:
  struct Request;
  TgtResult Send(const Request& request) const;

  std::string socketPath_;
};

}  // namespace engine
}  // namespace zeltools
