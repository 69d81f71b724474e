#include "support/Initiator.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

namespace zel::test {

using Clock = std::chrono::steady_clock;

struct InitiatorSession::Pending {
  bool done = false;
  int status = SCSI_STATUS_GOOD;
};

namespace {

// A fresh login reports a unit attention (bus reset) once or twice; a LUN
// that still reports one after this many tries is reported as it is.
constexpr int kUnitAttentionTries = 4;
// The sequential read keeps this many commands of kReadChunkBlocks in flight.
constexpr size_t kReadDepth = 8;
constexpr uint32_t kReadChunkBlocks = 512;
constexpr std::chrono::milliseconds kLogoutTimeout{1000};

struct ContextDeleter {
  void operator()(iscsi_context* context) const { iscsi_destroy_context(context); }
};
using ContextPtr = std::unique_ptr<iscsi_context, ContextDeleter>;

std::string ErrorOf(iscsi_context* context) {
  const char* text = iscsi_get_error(context);
  std::string error(text != nullptr ? text : "");
  error.erase(error.find_last_not_of(" \n") + 1);
  return error.empty() ? "unknown iSCSI error" : error;
}

// Serves `context` until `finished()` holds. False when `timeout` passed
// first, or when the connection failed before, with the reason in *error.
template <typename Finished>
bool Serve(iscsi_context* context, Finished finished, std::chrono::milliseconds timeout,
           std::string* error) {
  const Clock::time_point deadline = Clock::now() + timeout;
  while (!finished()) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      *error = "no answer within " + std::to_string(timeout.count()) + " ms";
      return false;
    }
    // A wake-up at least every 100 ms lets libiscsi expire its own PDU
    // timeouts even while the connection is silent (fd -1 while it
    // reconnects after a redirection is ignored by poll).
    struct pollfd fd = {iscsi_get_fd(context), static_cast<short>(iscsi_which_events(context)), 0};
    const int ready = ::poll(&fd, 1, static_cast<int>(std::min<int64_t>(left.count(), 100)));
    if (ready < 0 && errno != EINTR) {
      *error = "poll failed";
      return false;
    }
    if (iscsi_service(context, ready > 0 ? fd.revents : 0) < 0 && !finished()) {
      *error = ErrorOf(context);
      return false;
    }
  }
  return true;
}

ContextPtr NewContext(const std::string& initiatorIqn, enum iscsi_session_type type,
                      std::chrono::milliseconds timeout) {
  ContextPtr context(iscsi_create_context(initiatorIqn.c_str()));
  if (!context) throw std::runtime_error("cannot create an iSCSI context for " + initiatorIqn);
  iscsi_set_session_type(context.get(), type);
  // libiscsi's own timeout (whole seconds) expires PDUs inside the deadline's
  // loop; without automatic reconnection a dropped connection fails the
  // command instead of being retried for ever.
  iscsi_set_timeout(context.get(), static_cast<int>((timeout.count() + 999) / 1000));
  iscsi_set_noautoreconnect(context.get(), 1);
  return context;
}

// The login status code that libiscsi puts into its message, "Failed to log
// in to target. Status: Authentication failure(513)"; 0 when there is none.
int LoginStatusCode(const std::string& error) {
  const size_t open = error.rfind('(');
  if (error.find("Status:") == std::string::npos || open == std::string::npos) return 0;
  return std::atoi(error.c_str() + open + 1);
}

LoginStatus Classify(const std::string& error) {
  switch (LoginStatusCode(error)) {
    case 0x0201:  // authentication failure
      return LoginStatus::kAuthenticationFailure;
    case 0x0202:  // authorization failure: a target may refuse an ACL this way
    case 0x0203:  // not found: the engine's answer to an initiator outside the ACL
      return LoginStatus::kTargetNotFound;
    default:
      return LoginStatus::kFailed;
  }
}

void SetSense(CommandResult* result, int status, const scsi_task* task) {
  if (status != SCSI_STATUS_CHECK_CONDITION) return;
  result->senseKey = task->sense.key;
  result->notReady = task->sense.key == SCSI_SENSE_NOT_READY;
}

// Inquiry fields are blank-padded (a serial number on the left, too).
std::string Trimmed(const char* text) {
  std::string value(text != nullptr ? text : "");
  value.erase(value.find_last_not_of(' ') + 1);
  value.erase(0, value.find_first_not_of(' '));
  return value;
}

struct Discovered {
  bool done = false;
  int status = SCSI_STATUS_GOOD;
  std::vector<std::string> targets;
};

void OnDiscovered(iscsi_context*, int status, void* commandData, void* privateData) {
  auto* found = static_cast<Discovered*>(privateData);
  found->done = true;
  found->status = status;
  if (status != SCSI_STATUS_GOOD) return;
  // The list is freed when this returns: copy the names.
  for (auto* entry = static_cast<iscsi_discovery_address*>(commandData); entry != nullptr;
       entry = entry->next) {
    found->targets.emplace_back(entry->target_name);
  }
}

}  // namespace

std::vector<std::string> Discover(const std::string& portal, const std::string& initiatorIqn,
                                  std::chrono::milliseconds timeout) {
  // Declared before the context: destroying it runs the callbacks of what
  // is still in flight, which write into these.
  Discovered login, found, logout;
  ContextPtr context = NewContext(initiatorIqn, ISCSI_SESSION_DISCOVERY, timeout);
  std::string error;
  auto fail = [&](const std::string& what) {
    throw std::runtime_error("discovery at " + portal + " failed: " + what);
  };
  if (iscsi_full_connect_async(context.get(), portal.c_str(), -1, OnDiscovered, &login) != 0) {
    fail(ErrorOf(context.get()));
  }
  if (!Serve(context.get(), [&] { return login.done; }, timeout, &error)) {
    fail(error);
  }
  if (login.status != SCSI_STATUS_GOOD) fail(ErrorOf(context.get()));
  if (iscsi_discovery_async(context.get(), OnDiscovered, &found) != 0) fail(ErrorOf(context.get()));
  if (!Serve(context.get(), [&] { return found.done; }, timeout, &error)) {
    fail(error);
  }
  if (found.status != SCSI_STATUS_GOOD) fail(ErrorOf(context.get()));
  if (iscsi_logout_async(context.get(), OnDiscovered, &logout) == 0) {
    Serve(context.get(), [&] { return logout.done; }, kLogoutTimeout, &error);
  }
  return found.targets;
}

void InitiatorSession::OnDone(iscsi_context*, int status, void*, void* privateData) {
  auto* pending = static_cast<Pending*>(privateData);
  pending->done = true;
  pending->status = status;
}

LoginResult InitiatorSession::Login(const LoginRequest& request) {
  Logout();
  LoginResult result;
  Pending login;  // outlives the context, whose destruction may complete it
  ContextPtr context = NewContext(request.initiatorIqn, ISCSI_SESSION_NORMAL, timeout_);
  iscsi_set_targetname(context.get(), request.targetIqn.c_str());
  if (!request.chapUser.empty() || !request.chapSecret.empty()) {
    iscsi_set_initiator_username_pwd(context.get(), request.chapUser.c_str(),
                                     request.chapSecret.c_str());
  }
  if (!request.mutualUser.empty() || !request.mutualSecret.empty()) {
    iscsi_set_target_username_pwd(context.get(), request.mutualUser.c_str(),
                                  request.mutualSecret.c_str());
  }
  // LUN -1: no command is sent as part of the login, so that an offline LUN
  // is told from a refused login.
  if (iscsi_full_connect_async(context.get(), request.portal.c_str(), -1, OnDone, &login) != 0) {
    result.error = ErrorOf(context.get());
    return result;
  }
  if (!Serve(context.get(), [&] { return login.done; }, timeout_, &result.error)) {
    return result;
  }
  if (login.status != SCSI_STATUS_GOOD) {
    result.error = ErrorOf(context.get());
    result.status = Classify(result.error);
    return result;
  }
  // libiscsi follows a temporary redirection by itself and keeps the address
  // it was sent to.
  const char* moved = iscsi_get_target_address(context.get());
  if (moved != nullptr) result.redirectedTo = moved;
  context_ = context.release();
  lun_ = request.lun;
  for (int i = 0; i < kUnitAttentionTries; ++i) {
    const CommandResult ready = TestUnitReady();
    if (!loggedIn()) {  // the session was dropped: the login did not complete
      result.error = ready.error;
      return result;
    }
    if (ready.senseKey != SCSI_SENSE_UNIT_ATTENTION) break;
  }
  result.status = LoginStatus::kLoggedIn;
  return result;
}

void InitiatorSession::Logout() {
  if (context_ == nullptr) return;
  Pending logout;
  std::string error;
  if (iscsi_logout_async(context_, OnDone, &logout) == 0) {
    Serve(context_, [&] { return logout.done; }, kLogoutTimeout, &error);
  }
  Drop();
}

void InitiatorSession::Drop() {
  if (context_ == nullptr) return;
  iscsi_destroy_context(context_);
  context_ = nullptr;
}

CommandResult InitiatorSession::Failed(const std::string& error) {
  CommandResult result;
  result.error = error;
  return result;
}

CommandResult InitiatorSession::Run(const std::function<scsi_task*(Pending*)>& issue,
                                    const std::function<void(scsi_task*)>& onGood) {
  if (context_ == nullptr) return Failed("not logged in");
  Pending pending;
  scsi_task* task = issue(&pending);
  if (task == nullptr) return Failed(ErrorOf(context_));
  CommandResult result;
  if (!Serve(context_, [&] { return pending.done; }, timeout_, &result.error)) {
    Drop();  // cancels the command: its callback runs while `pending` lives
    scsi_free_scsi_task(task);
    return result;
  }
  if (pending.status == SCSI_STATUS_GOOD) {
    result.ok = true;
    onGood(task);
  } else {
    SetSense(&result, pending.status, task);
    result.error = ErrorOf(context_);
  }
  scsi_free_scsi_task(task);
  return result;
}

CommandResult InitiatorSession::TestUnitReady() {
  return Run(
      [&](Pending* pending) { return iscsi_testunitready_task(context_, lun_, OnDone, pending); },
      [](scsi_task*) {});
}

CommandResult InitiatorSession::Inquiry(InquiryData* out) {
  CommandResult result = Run(
      [&](Pending* pending) {
        return iscsi_inquiry_task(context_, lun_, 0, 0, 255, OnDone, pending);
      },
      [&](scsi_task* task) {
        auto* standard = static_cast<scsi_inquiry_standard*>(scsi_datain_unmarshall(task));
        if (standard == nullptr) return;
        out->vendor = Trimmed(standard->vendor_identification);
        out->product = Trimmed(standard->product_identification);
      });
  if (!result) return result;
  return Run(
      [&](Pending* pending) {
        return iscsi_inquiry_task(context_, lun_, 1, SCSI_INQUIRY_PAGECODE_UNIT_SERIAL_NUMBER, 255,
                                  OnDone, pending);
      },
      [&](scsi_task* task) {
        auto* page = static_cast<scsi_inquiry_unit_serial_number*>(scsi_datain_unmarshall(task));
        if (page != nullptr) out->serial = Trimmed(page->usn);
      });
}

CommandResult InitiatorSession::ReadCapacity16(Capacity* out) {
  return Run(
      [&](Pending* pending) { return iscsi_readcapacity16_task(context_, lun_, OnDone, pending); },
      [&](scsi_task* task) {
        auto* capacity = static_cast<scsi_readcapacity16*>(scsi_datain_unmarshall(task));
        if (capacity == nullptr) return;
        out->blockSize = capacity->block_length;
        out->blockCount = capacity->returned_lba + 1;
      });
}

CommandResult InitiatorSession::Write(uint64_t lba, const std::string& data) {
  if (data.empty() || data.size() % kBlockSize != 0) {
    return Failed("a write takes whole blocks of " + std::to_string(kBlockSize) + " bytes");
  }
  // libiscsi sends from the caller's buffer without copying it; `data`
  // outlives the command because Run waits for it (or cancels it).
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(data.data()));
  return Run(
      [&](Pending* pending) {
        return iscsi_write16_task(context_, lun_, lba, bytes, static_cast<uint32_t>(data.size()),
                                  kBlockSize, 0, 0, 0, 0, 0, OnDone, pending);
      },
      [](scsi_task*) {});
}

CommandResult InitiatorSession::Read(uint64_t lba, uint32_t blocks, std::string* out) {
  return Run(
      [&](Pending* pending) {
        return iscsi_read16_task(context_, lun_, lba, blocks * kBlockSize, kBlockSize, 0, 0, 0, 0,
                                 0, OnDone, pending);
      },
      [&](scsi_task* task) {
        out->assign(reinterpret_cast<const char*>(task->datain.data),
                    static_cast<size_t>(task->datain.size));
      });
}

CommandResult InitiatorSession::ReadSequential(uint32_t mib, double* mibPerSecond) {
  if (context_ == nullptr) return Failed("not logged in");
  struct Slot {
    Pending pending;
    scsi_task* task = nullptr;
  };
  std::vector<Slot> slots(kReadDepth);
  const uint64_t total = uint64_t{mib} * (1024 * 1024 / kBlockSize);
  uint64_t next = 0;
  CommandResult result;
  auto issue = [&](Slot& slot) {
    const auto blocks = static_cast<uint32_t>(std::min<uint64_t>(kReadChunkBlocks, total - next));
    slot.pending = Pending();
    slot.task = iscsi_read16_task(context_, lun_, next, blocks * kBlockSize, kBlockSize, 0, 0, 0,
                                  0, 0, OnDone, &slot.pending);
    next += blocks;
    if (slot.task == nullptr) result.error = ErrorOf(context_);
  };
  auto inFlight = [&] {
    return std::any_of(slots.begin(), slots.end(), [](const Slot& s) { return s.task != nullptr; });
  };
  const Clock::time_point start = Clock::now();
  for (Slot& slot : slots) {
    if (next < total && result.error.empty()) issue(slot);
  }
  while (inFlight()) {
    // The deadline is for progress: each completed command earns a new one.
    std::string lost;
    const bool served = Serve(
        context_,
        [&] {
          return std::any_of(slots.begin(), slots.end(),
                             [](const Slot& s) { return s.task != nullptr && s.pending.done; });
        },
        timeout_, &lost);
    if (!served) {
      Drop();  // cancels what is in flight while the slots live
      for (Slot& slot : slots) {
        if (slot.task != nullptr) scsi_free_scsi_task(slot.task);
      }
      return Failed(lost);
    }
    for (Slot& slot : slots) {
      if (slot.task == nullptr || !slot.pending.done) continue;
      // After the first failure the commands in flight are only drained.
      if (slot.pending.status != SCSI_STATUS_GOOD && result.error.empty()) {
        SetSense(&result, slot.pending.status, slot.task);
        result.error = ErrorOf(context_);
      }
      scsi_free_scsi_task(slot.task);
      slot.task = nullptr;
      if (result.error.empty() && next < total) issue(slot);
    }
  }
  if (!result.error.empty()) return result;
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  *mibPerSecond = seconds > 0 ? mib / seconds : 0;
  result.ok = true;
  return result;
}

}  // namespace zel::test
