// zel_iscsi_probe: proves from the initiator's side that a portal serves a
// target. It lists the portal's targets (--discover), or logs in, asks the
// LUN for its identity and capacity, optionally writes a pattern and reads it
// back (--write-check, which overwrites those blocks) and measures a
// sequential read (--read-mib), then prints one JSON object. Exit 0 when every
// step asked for succeeded, 1 when one failed, 2 on a usage error.
//
// CHAP secrets come from the environment (ZEL_ISCSI_CHAP_SECRET,
// ZEL_ISCSI_MUTUAL_SECRET), never from the command line, which every local
// user can read; they are never printed.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "support/Initiator.h"

namespace {

using nlohmann::json;
using zel::test::CommandResult;
using zel::test::InitiatorSession;
using zel::test::LoginStatus;

std::string Env(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

const char* LoginText(LoginStatus status) {
  switch (status) {
    case LoginStatus::kLoggedIn:
      return "logged in";
    case LoginStatus::kAuthenticationFailure:
      return "authentication failure";
    case LoginStatus::kTargetNotFound:
      return "target not found";
    case LoginStatus::kFailed:
      break;
  }
  return "failed";
}

// Records a failed step under `step` and tells whether it succeeded.
bool Check(json& out, const char* step, const CommandResult& result) {
  if (result) return true;
  out["failed_step"] = step;
  out["error"] = result.error;
  out["not_ready"] = result.notReady;
  return false;
}

// Writes a pattern that differs per block and per run, reads it back.
bool WriteCheck(InitiatorSession& session, uint64_t lba, uint32_t blocks, json& out) {
  std::string pattern(size_t{blocks} * InitiatorSession::kBlockSize, '\0');
  const auto seed =
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  for (size_t i = 0; i < pattern.size(); ++i) {
    pattern[i] = static_cast<char>((i / InitiatorSession::kBlockSize) * 31 + i + seed);
  }
  std::string back;
  if (!Check(out, "write", session.Write(lba, pattern)) ||
      !Check(out, "read", session.Read(lba, blocks, &back))) {
    return false;
  }
  out["write_check"] = {{"lba", lba}, {"blocks", blocks}, {"same", back == pattern}};
  if (back != pattern) out["failed_step"] = "compare";
  return back == pattern;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Logs in to an iSCSI target and reports what it serves, as JSON"};
  zel::test::LoginRequest request;
  bool discover = false;
  uint32_t writeBlocks = 0, readMib = 0;
  uint64_t writeLba = 0;
  int timeoutMs = static_cast<int>(zel::test::kInitiatorTimeout.count());
  app.add_option("--portal", request.portal, "ADDR:PORT")->required();
  app.add_option("--initiator", request.initiatorIqn, "Initiator IQN")->required();
  app.add_flag("--discover", discover, "List the portal's targets (SendTargets) and stop");
  app.add_option("--target", request.targetIqn, "Target IQN");
  app.add_option("--lun", request.lun, "LUN")->capture_default_str();
  app.add_option("--chap-user", request.chapUser, "CHAP user (secret: ZEL_ISCSI_CHAP_SECRET)");
  app.add_option("--mutual-user", request.mutualUser,
                 "The target's CHAP user (secret: ZEL_ISCSI_MUTUAL_SECRET)");
  app.add_option("--write-check", writeBlocks, "Overwrite this many blocks and read them back");
  app.add_option("--write-lba", writeLba, "First block of --write-check")->capture_default_str();
  app.add_option("--read-mib", readMib, "Read this many MiB from block 0 on, and time it");
  app.add_option("--timeout-ms", timeoutMs, "Limit of each login and command")
      ->check(CLI::Range(1, 600000))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
    if (!discover && request.targetIqn.empty()) {
      throw CLI::ValidationError("--target", "a target is needed unless --discover is given");
    }
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : 2;
  }
  const std::chrono::milliseconds timeout(timeoutMs);
  json out = {{"portal", request.portal}};
  if (discover) {
    try {
      out["targets"] = zel::test::Discover(request.portal, request.initiatorIqn, timeout);
    } catch (const std::exception& e) {
      out["error"] = e.what();
    }
    std::cout << out.dump() << std::endl;
    return out.contains("error") ? 1 : 0;
  }
  request.chapSecret = Env("ZEL_ISCSI_CHAP_SECRET");
  request.mutualSecret = Env("ZEL_ISCSI_MUTUAL_SECRET");
  out["target"] = request.targetIqn;
  out["lun"] = request.lun;
  InitiatorSession session(timeout);
  const zel::test::LoginResult login = session.Login(request);
  out["login"] = LoginText(login.status);
  if (!login.redirectedTo.empty()) out["redirected_to"] = login.redirectedTo;
  bool ok = login.ok();
  if (!ok) out["error"] = login.error;
  // An offline LUN is reported, not failed: the other steps tell whether
  // its blocks are still served.
  if (ok) out["unit_ready"] = session.TestUnitReady().ok;
  zel::test::InquiryData inquiry;
  zel::test::Capacity capacity;
  ok = ok && Check(out, "inquiry", session.Inquiry(&inquiry));
  if (ok) out.update({{"vendor", inquiry.vendor}, {"product", inquiry.product}});
  if (ok) out["serial"] = inquiry.serial;
  ok = ok && Check(out, "capacity", session.ReadCapacity16(&capacity));
  if (ok) out.update({{"block_size", capacity.blockSize}, {"blocks", capacity.blockCount}});
  if (ok && writeBlocks > 0) ok = WriteCheck(session, writeLba, writeBlocks, out);
  double rate = 0;
  if (ok && readMib > 0) {
    ok = Check(out, "sequential read", session.ReadSequential(readMib, &rate));
    if (ok) out["read"] = {{"mib", readMib}, {"mib_per_s", rate}};
  }
  out["ok"] = ok;
  std::cout << out.dump() << std::endl;
  return ok ? 0 : 1;
}
