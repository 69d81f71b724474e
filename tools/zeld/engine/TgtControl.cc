#include "zeld/engine/TgtControl.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

namespace zeltools {
namespace engine {
namespace {

constexpr size_t kHeaderSize = 120;
constexpr size_t kReplyHeaderSize = 8;
constexpr uint64_t kNoLun = std::numeric_limits<uint64_t>::max();
// A request that tgtd does not answer in this time is taken as a hung
// daemon; a LUN delete or a show of a thousand LUNs takes milliseconds.
constexpr int kReplyTimeoutSeconds = 60;

enum Mode : uint32_t {
  kModeSystem = 0,
  kModeTarget = 1,
  kModeLun = 2,
  kModePortal = 3,
  kModeAccount = 7
};
enum Op : uint32_t {
  kOpNew = 0,
  kOpDelete = 1,
  kOpShow = 2,
  kOpBind = 3,
  kOpUnbind = 4,
  kOpUpdate = 5
};

const char* const kErrorTexts[] = {
    "success",
    "unknown error",
    "out of memory",
    "can't find the driver",
    "can't find the target",
    "can't find the logical unit",
    "can't find the session",
    "can't find the connection",
    "can't find the binding",
    "this target already exists",
    "this logical unit number already exists",
    "this binding already exists",
    "this access control rule already exists",
    "this access control rule does not exist",
    "this account already exists",
    "can't find the account",
    "too many accounts",
    "invalid request",
    "this target already has an outgoing account",
    "this target is still active",
    "this logical unit is still active",
    "this driver is busy",
    "this operation isn't supported",
    "unknown parameter",
    "this device has Prevent Removal set",
};

void PutU32(char* at, uint32_t value) { std::memcpy(at, &value, sizeof value); }
void PutU64(char* at, uint64_t value) { std::memcpy(at, &value, sizeof value); }

const char* StateText(TgtState state) { return state == TgtState::kReady ? "ready" : "offline"; }

TgtResult Refused(const std::string& message) { return {kTgtBadArgument, message, ""}; }

// Whether `value` can travel as one value of a parameter list.
bool Carriable(const std::string& value) {
  return value.find(',') == std::string::npos && value.find('\0') == std::string::npos;
}

class Socket {
 public:
  Socket() : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
  ~Socket() {
    if (fd_ >= 0) ::close(fd_);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

bool ReadAll(int fd, char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = ECONNRESET;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

struct TgtControl::Request {
  Mode mode;
  Op op;
  int tid = -1;
  uint64_t lun = kNoLun;
  bool outgoing = false;
  bool force = false;
  std::string params;
};

std::string TgtErrorText(int code) {
  if (code >= 0 && code < static_cast<int>(sizeof kErrorTexts / sizeof kErrorTexts[0])) {
    return kErrorTexts[code];
  }
  return "unknown error code " + std::to_string(code);
}

TgtControl::TgtControl(int controlPort) : socketPath_(SocketPath(controlPort)) {}

TgtControl::TgtControl(std::string socketPath) : socketPath_(std::move(socketPath)) {}

std::string TgtControl::SocketPath(int controlPort) {
  return "/var/run/tgtd/socket." + std::to_string(controlPort);
}

TgtResult TgtControl::Send(const Request& request) const {
  std::string wire(kHeaderSize, '\0');
  if (!request.params.empty()) wire.append(request.params).push_back('\0');
  char* header = &wire[0];
  PutU32(header, request.mode);
  PutU32(header + 4, request.op);
  std::memcpy(header + 8, "iscsi", 5);
  PutU32(header + 72, static_cast<uint32_t>(wire.size()));
  PutU32(header + 76, static_cast<uint32_t>(request.tid));
  PutU64(header + 88, request.lun);
  PutU32(header + 108, request.outgoing ? 1 : 0);
  PutU32(header + 116, request.force ? 1 : 0);

  auto unreachable = [this](const char* what) {
    return TgtResult{
        kTgtUnreachable,
        std::string("tgtd at ") + socketPath_ + ": " + what + ": " + std::strerror(errno), ""};
  };
  Socket socket;
  if (socket.fd() < 0) return unreachable("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath_.size() >= sizeof address.sun_path) {
    return Refused("Control socket path too long: " + socketPath_);
  }
  std::memcpy(address.sun_path, socketPath_.c_str(), socketPath_.size() + 1);
  timeval timeout{kReplyTimeoutSeconds, 0};
  ::setsockopt(socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(socket.fd(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  if (::connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return unreachable("connect");
  }
  if (!WriteAll(socket.fd(), wire.data(), wire.size())) return unreachable("send");

  char reply[kReplyHeaderSize];
  if (!ReadAll(socket.fd(), reply, sizeof reply)) return unreachable("reply");
  uint32_t code;
  uint32_t length;
  std::memcpy(&code, reply, 4);
  std::memcpy(&length, reply + 4, 4);
  TgtResult result;
  result.code = static_cast<int>(code);
  if (length > kReplyHeaderSize) {
    result.output.resize(length - kReplyHeaderSize);
    if (!ReadAll(socket.fd(), &result.output[0], result.output.size())) return unreachable("reply");
    // The text ends with its C terminator.
    while (!result.output.empty() && result.output.back() == '\0') result.output.pop_back();
  }
  if (!result.ok()) result.message = TgtErrorText(result.code);
  return result;
}

TgtResult TgtControl::SetSystemState(TgtState state) const {
  return Send(
      {kModeSystem, kOpUpdate, -1, kNoLun, false, false, std::string("State=") + StateText(state)});
}

TgtResult TgtControl::DeleteSystem() const {
  return Send({kModeSystem, kOpDelete, -1, kNoLun, false, false, ""});
}

TgtResult TgtControl::ShowSystem() const {
  return Send({kModeSystem, kOpShow, -1, kNoLun, false, false, ""});
}

TgtResult TgtControl::NewTarget(int tid, const std::string& iqn) const {
  // tgtd itself takes a tid 0, which its admin tool can then not delete.
  if (tid < 1) return Refused("Invalid target id " + std::to_string(tid));
  if (!Carriable(iqn)) return Refused("Invalid target name '" + iqn + "'");
  return Send({kModeTarget, kOpNew, tid, kNoLun, false, false, "targetname=" + iqn});
}

TgtResult TgtControl::DeleteTarget(int tid, bool force) const {
  return Send({kModeTarget, kOpDelete, tid, kNoLun, false, force, ""});
}

TgtResult TgtControl::SetTargetState(int tid, TgtState state) const {
  return UpdateTarget(tid, "state", StateText(state));
}

TgtResult TgtControl::SetRedirect(int tid, const std::string& address, const std::string& port,
                                  const std::string& reason) const {
  if (address.empty()) return Refused("Empty redirect address for target " + std::to_string(tid));
  TgtResult result = UpdateTarget(tid, "RedirectPort", port);
  if (result.ok()) result = UpdateTarget(tid, "RedirectReason", reason);
  if (result.ok()) result = UpdateTarget(tid, "RedirectAddress", address);
  return result;
}

TgtResult TgtControl::ClearRedirect(int tid) const {
  // An empty address ends the redirection; the reason cannot be emptied and
  // is not shown without an address.
  TgtResult result = UpdateTarget(tid, "RedirectAddress", "");
  if (result.ok()) result = UpdateTarget(tid, "RedirectPort", "");
  return result;
}

TgtResult TgtControl::UpdateTarget(int tid, const std::string& name,
                                   const std::string& value) const {
  if (!Carriable(name) || !Carriable(value) || name.find('=') != std::string::npos) {
    return Refused("Invalid target parameter '" + name + "'");
  }
  return Send({kModeTarget, kOpUpdate, tid, kNoLun, false, false, name + "=" + value});
}

TgtResult TgtControl::ShowTargets() const {
  return Send({kModeTarget, kOpShow, -1, kNoLun, false, false, ""});
}

TgtResult TgtControl::ShowTarget(int tid) const {
  return Send({kModeTarget, kOpShow, tid, kNoLun, false, false, ""});
}

TgtResult TgtControl::NewLun(int tid, uint64_t lun, const std::string& backingStore) const {
  if (!Carriable(backingStore)) return Refused("Invalid backing store '" + backingStore + "'");
  return Send({kModeLun, kOpNew, tid, lun, false, false, "path=" + backingStore});
}

TgtResult TgtControl::DeleteLun(int tid, uint64_t lun) const {
  return Send({kModeLun, kOpDelete, tid, lun, false, false, ""});
}

TgtResult TgtControl::SetLunOnline(int tid, uint64_t lun, bool online) const {
  return UpdateLun(tid, lun, online ? "online=1" : "online=0");
}

TgtResult TgtControl::SetLunIdentity(int tid, uint64_t lun, const std::string& serial,
                                     const std::string& scsiId) const {
  if (!Carriable(serial) || !Carriable(scsiId)) {
    return Refused("Invalid SCSI identity '" + serial + "', '" + scsiId + "'");
  }
  return UpdateLun(tid, lun, "scsi_sn=" + serial + ",scsi_id=" + scsiId);
}

TgtResult TgtControl::UpdateLun(int tid, uint64_t lun, const std::string& params) const {
  if (params.find('\0') != std::string::npos) return Refused("Invalid LUN parameters");
  return Send({kModeLun, kOpUpdate, tid, lun, false, false, "targetOps " + params + ","});
}

TgtResult TgtControl::BindInitiatorName(int tid, const std::string& iqn) const {
  if (!Carriable(iqn)) return Refused("Invalid initiator name '" + iqn + "'");
  return Send({kModeTarget, kOpBind, tid, kNoLun, false, false, "initiator-name=" + iqn});
}

TgtResult TgtControl::UnbindInitiatorName(int tid, const std::string& iqn) const {
  if (!Carriable(iqn)) return Refused("Invalid initiator name '" + iqn + "'");
  return Send({kModeTarget, kOpUnbind, tid, kNoLun, false, false, "initiator-name=" + iqn});
}

TgtResult TgtControl::BindInitiatorAddress(int tid, const std::string& address) const {
  if (!Carriable(address)) return Refused("Invalid initiator address '" + address + "'");
  return Send({kModeTarget, kOpBind, tid, kNoLun, false, false, "initiator-address=" + address});
}

TgtResult TgtControl::UnbindInitiatorAddress(int tid, const std::string& address) const {
  if (!Carriable(address)) return Refused("Invalid initiator address '" + address + "'");
  return Send({kModeTarget, kOpUnbind, tid, kNoLun, false, false, "initiator-address=" + address});
}

TgtResult TgtControl::NewAccount(const std::string& user, const std::string& password) const {
  if (user.empty() || !Carriable(user) || user.find('=') != std::string::npos) {
    return Refused("Invalid CHAP user '" + user + "'");
  }
  // The refusal names the user only: the secret is never in a message.
  if (password.empty() || !Carriable(password)) {
    return Refused("Invalid CHAP secret of user '" + user + "': empty, or with a comma");
  }
  return Send(
      {kModeAccount, kOpNew, -1, kNoLun, false, false, "user=" + user + ",password=" + password});
}

TgtResult TgtControl::DeleteAccount(const std::string& user) const {
  if (!Carriable(user)) return Refused("Invalid CHAP user '" + user + "'");
  return Send({kModeAccount, kOpDelete, -1, kNoLun, false, false, "user=" + user});
}

TgtResult TgtControl::BindAccount(int tid, const std::string& user, TgtDirection direction) const {
  if (!Carriable(user)) return Refused("Invalid CHAP user '" + user + "'");
  return Send({kModeAccount, kOpBind, tid, kNoLun, direction == TgtDirection::kOutgoing, false,
               "user=" + user});
}

TgtResult TgtControl::UnbindAccount(int tid, const std::string& user,
                                    TgtDirection direction) const {
  if (!Carriable(user)) return Refused("Invalid CHAP user '" + user + "'");
  return Send({kModeAccount, kOpUnbind, tid, kNoLun, direction == TgtDirection::kOutgoing, false,
               "user=" + user});
}

TgtResult TgtControl::DeletePortal(const std::string& portal) const {
  if (!Carriable(portal)) return Refused("Invalid portal '" + portal + "'");
  return Send(
      {kModePortal, kOpDelete, -1, kNoLun, false, false, "portalOps portal=" + portal + ","});
}

TgtResult TgtControl::ShowPortals() const {
  return Send({kModePortal, kOpShow, -1, kNoLun, false, false, ""});
}

}  // namespace engine
}  // namespace zeltools
