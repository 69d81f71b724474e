// The data path at the largest configuration (128 targets with CHAP and an
// ACL each, 1,024 LUNs), each figure next to a baseline measured in the same
// run of this program:
//   - the whole configuration applied to a cold engine by zeld's own driver
//     (the Reconciler with the tgtd engine factory, the engine's start
//     included), next to a plain shell script of tgtadm calls, one process
//     per call, applying the same configuration to a cold tgtd that is
//     already running. The desired state is read before the clock starts:
//     reading zel.conf is not part of either;
//   - one LUN added to 128 targets and 1,023 LUNs served by the home's own
//     zeld: from `zelctl lun add` returning (the configuration saved) to the
//     first READ that succeeds in a fresh session of a real initiator. Each
//     add is undone, untimed, by `zelctl lun remove`;
//   - a sequential read of one LUN through that zeld, next to the same
//     backing file served by a tgtd configured by hand with tgtadm.
// The home is made by zelctl, as an administrator makes one (targets and
// LUNs added one command at a time, two at once); its disks are sparse.
// Everything listens on loopback addresses and free ports; every zeld and
// tgtd started here is stopped (zelctl service disable, TgtProcess by pid),
// also when a step fails. Needs root and tgtd.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/Host.h"
#include "platform/HostConfig.h"
#include "platform/local/AtomicFile.h"
#include "support/Initiator.h"
#include "support/Process.h"
#include "support/TestHost.h"
#include "zel/OrvaCtlException.h"
#include "zeld/DesiredState.h"
#include "zeld/Reconciler.h"
#include "zeld/TgtEngine.h"
#include "zeld/engine/TgtProcess.h"
#include "zeld/engine/TgtShow.h"

namespace {

using nlohmann::json;
using zel::test::InitiatorSession;
using zel::test::LoginRequest;
using Clock = std::chrono::steady_clock;

constexpr int kTargets = 128;
constexpr int kLunsPerTarget = 8;
constexpr int kLuns = kTargets * kLunsPerTarget - 1;  // the last target is one short
const char kLunSize[] = "16MiB";
// The LUN that is read: LUN 0 of target-000, filled with data at set-up.
const char kReadLunSize[] = "256MiB";
constexpr uint32_t kReadMiB = 256;
const std::string kInitiator = "iqn.2024-01.org.example:bench";
const std::string kServedAddress = "127.0.0.2";  // the home's zel0
const std::string kBaselineAddress = "127.0.0.3";

bool gFailed = false;

void Fail(benchmark::State& state, const std::string& message) {
  std::fprintf(stderr, "data_path_bench: %s\n", message.c_str());
  gFailed = true;
  state.SkipWithError(message.c_str());
}

// Runs a benchmark's body; an exception fails the run instead of ending the
// program, which would leave zeld and tgtd running.
void Guarded(benchmark::State& state, const std::function<void()>& body) {
  try {
    body();
  } catch (const HostCtl::Lib::HostCtlException& e) {
    Fail(state, e.GetMessage());
  } catch (const std::exception& e) {
    Fail(state, e.what());
  }
}

std::string Alias(int t) {
  char alias[32];
  std::snprintf(alias, sizeof alias, "target-%03d", t);
  return alias;
}
std::string User(int t) { return "user" + std::to_string(1000 + t); }
std::string Secret(int t) { return "Secret#" + std::to_string(10000 + t) + "ab"; }

// A TCP port nothing listens on at `address` now.
int FreePort(const std::string& address) {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in where = {};
  where.sin_family = AF_INET;
  ::inet_pton(AF_INET, address.c_str(), &where.sin_addr);
  socklen_t length = sizeof where;
  ::bind(fd, reinterpret_cast<sockaddr*>(&where), length);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&where), &length);
  ::close(fd);
  return ntohs(where.sin_port);
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// A started tgtd of our own, stopped by pid with the object.
std::unique_ptr<zeltools::engine::TgtProcess> StartTgtd(const std::string& portal,
                                                        const std::string& log, int threads) {
  zeltools::engine::TgtProcessOptions options;
  options.portal = portal;
  options.logPath = log;
  options.threadsPerLun = threads;
  options.firstControlPort = 7900;  // away from zeld's engines
  auto process = std::make_unique<zeltools::engine::TgtProcess>(options);
  process->Start();
  return process;
}

// One tgtadm call per line, quoted for sh.
std::string Quoted(const std::string& value) {
  std::string quoted = "'";
  for (const char c : value) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The home: made by zelctl, served (once EnableZeld ran) by its own zeld.
class Home {
 public:
  Home() : port_(FreePort(kServedAddress)) {
    try {
      Make();
    } catch (...) {
      // The destructor does not run for a home that was never made.
      if (serving_) Zelctl({"service", "disable"});
      throw;
    }
  }
  ~Home() {
    if (serving_) Zelctl({"service", "disable"});
  }

  void Make() {
    Must({"host", "info"});
    const std::string path = home_.Path() + "/host.json";
    json config;
    zel::platform::ReadJsonFile(path, "Host configuration", &config);
    config["nics"] = {{"zel0", {{"ipv4", kServedAddress}}}};
    zel::platform::WriteJsonFileAtomically(path, config, 0600);
    ::mkdir((home_.Path() + "/log").c_str(), 0700);
    Must({"namespace", "create", "--interface", "zel0", "--port", std::to_string(port_)});
    // Edits need the service enabled; zeld is stopped again after set-up,
    // so that the driver measured first finds the portal and disks free.
    Must({"service", "enable"});
    serving_ = true;
    Must({"initiator-group", "add", "apps"});
    Must({"initiator-group", "add-initiators", "apps", kInitiator});
    // Two at once: the home takes concurrent edits, and set-up is halved.
    std::vector<std::thread> workers;
    std::vector<std::string> errors(2);
    for (int w = 0; w < 2; ++w) {
      workers.emplace_back([this, w, &errors] {
        try {
          for (int t = w; t < kTargets; t += 2) MakeTarget(t);
        } catch (const std::exception& e) {
          errors[w] = e.what();
        }
      });
    }
    for (std::thread& worker : workers) worker.join();
    for (const std::string& error : errors) {
      if (!error.empty()) throw std::runtime_error(error);
    }
    Must({"service", "disable"});
    serving_ = false;
    hostUuid_ = zel::platform::LoadHostConfig(home_.Path()).hostUuid;
  }

  zel::test::ProcessResult Zelctl(std::vector<std::string> args,
                                  const std::string& input = "") const {
    args.insert(args.begin(), {ZELCTL_PATH, "--home", home_.Path()});
    return zel::test::RunProgram(args, input);
  }
  void Must(const std::vector<std::string>& args, const std::string& input = "") const {
    const zel::test::ProcessResult result = Zelctl(args, input);
    if (result.exitCode != 0) {
      std::string command;
      for (const std::string& arg : args) command += " " + arg;
      throw std::runtime_error("zelctl" + command + ": " + result.err);
    }
  }

  // Starts zeld and waits until it serves every target.
  void EnableZeld() {
    if (serving_) return;
    Must({"service", "enable"});
    serving_ = true;
    const auto deadline = Clock::now() + std::chrono::seconds(120);
    const std::string status = home_.Path() + "/run/zeld-status.json";
    while (Clock::now() < deadline) {
      json document;
      if (::access(status.c_str(), R_OK) == 0 &&
          zel::platform::ReadJsonFile(status, "zeld status", &document) &&
          document["served"].size() == kTargets && document["problems"].empty()) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    throw std::runtime_error("zeld did not serve the " + std::to_string(kTargets) +
                             " targets in 120 s: see " + home_.Path() + "/log");
  }

  const std::string& Path() const { return home_.Path(); }
  const std::string& HostUuid() const { return hostUuid_; }
  std::string Portal() const { return kServedAddress + ":" + std::to_string(port_); }

 private:
  // Target t: CHAP, an ACL of the group "apps" and a name of its own, and
  // its LUNs.
  void MakeTarget(int t) const {
    Must({"target", "add", "--alias", Alias(t), "--auth-type", "CHAP", "--userid", User(t),
          "--secret", "-", "--initiator", "apps", "--initiator",
          "iqn.2024-01.org.example:own-" + std::to_string(t)},
         Secret(t) + "\n");
    const int luns = t == kTargets - 1 ? kLunsPerTarget - 1 : kLunsPerTarget;
    for (int n = 0; n < luns; ++n) {
      Must({"lun", "add", "--target", Alias(t), "--size",
            t == 0 && n == 0 ? kReadLunSize : kLunSize});
    }
  }

  zel::test::TempHome home_;
  const int port_;
  std::string hostUuid_;
  bool serving_ = false;
};

struct Bench {
  std::unique_ptr<Home> home;
  zeltools::DesiredState desired;  // read once, before zeld serves
  std::string work;                // scratch files: the script, the logs
};
Bench gBench;

// As read before zeld served: zelctl answers only while the service is on.
std::string IqnOf(const std::string& alias) {
  for (const zeltools::DesiredTarget& target : gBench.desired.targets) {
    if (target.alias == alias) return target.iqn;
  }
  throw std::runtime_error("no target " + alias);
}

// A session of the bench initiator with target t's CHAP, addressing `engineLun`.
LoginRequest Request(int t, int engineLun) {
  LoginRequest request;
  request.portal = gBench.home->Portal();
  request.targetIqn = IqnOf(Alias(t));
  request.lun = engineLun;
  request.initiatorIqn = kInitiator;
  request.chapUser = User(t);
  request.chapSecret = Secret(t);
  return request;
}

size_t CountLuns(const zeltools::DesiredState& desired) {
  size_t luns = 0;
  for (const zeltools::DesiredTarget& target : desired.targets) luns += target.luns.size();
  return luns;
}

// ---- 1. The whole configuration to a cold engine ----

void BM_ApplyThroughDriver(benchmark::State& state) {
  Guarded(state, [&] {
    for (auto _ : state) {
      zeltools::Reconciler reconciler(zeltools::TgtEngineFactory(gBench.home->Path()));
      const Clock::time_point start = Clock::now();
      const zeltools::ReconcileReport report = reconciler.Apply(gBench.desired);
      state.SetIterationTime(Seconds(Clock::now() - start));
      if (report.served.size() != kTargets || !report.problems.empty()) {
        return Fail(state, "the driver served " + std::to_string(report.served.size()) +
                               " targets" +
                               (report.problems.empty() ? "" : "; " + report.problems.front()));
      }
      reconciler.Stop();  // untimed: the clock stopped with the application
    }
  });
}
BENCHMARK(BM_ApplyThroughDriver)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

// The engine's start alone, part of the driver's figure above.
void BM_EngineStart(benchmark::State& state) {
  Guarded(state, [&] {
    const std::string portal = gBench.desired.targets.front().portal;
    for (auto _ : state) {
      const Clock::time_point start = Clock::now();
      auto engine = StartTgtd(portal, gBench.work + "/start.log", 2);
      state.SetIterationTime(Seconds(Clock::now() - start));
    }
  });
}
BENCHMARK(BM_EngineStart)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// The same requests as the driver makes, in its order, as tgtadm commands.
// The LUN's identity and removable flag go in one update: a script writer
// would not split them.
std::string TgtadmScript() {
  std::string script = "set -e\nC=$1\n";
  const std::string call = "tgtadm -C \"$C\" --lld iscsi ";
  int tid = 0;
  for (const zeltools::DesiredTarget& target : gBench.desired.targets) {
    script += call + "--mode account --op new --user " + Quoted(target.chap->user) +
              " --password " + Quoted(target.chap->secret) + "\n";
  }
  for (const zeltools::DesiredTarget& target : gBench.desired.targets) {
    const std::string t = std::to_string(++tid);
    script +=
        call + "--mode target --op new --tid " + t + " --targetname " + Quoted(target.iqn) + "\n";
    script += call + "--mode account --op bind --tid " + t + " --user " +
              Quoted(target.chap->user) + "\n";
    for (const zeltools::ServedLun& lun : target.luns) {
      const std::string l = std::to_string(lun.engineLun);
      script += call + "--mode logicalunit --op new --tid " + t + " --lun " + l +
                " --backing-store " + Quoted(lun.backingStore) + "\n";
      script += call + "--mode logicalunit --op update --tid " + t + " --lun " + l + " --params " +
                Quoted("removable=1,scsi_sn=" + lun.serial + ",scsi_id=" + lun.scsiId) + "\n";
    }
    for (const std::string& name : target.initiators) {
      script +=
          call + "--mode target --op bind --tid " + t + " --initiator-name " + Quoted(name) + "\n";
    }
  }
  return script;
}

void BM_ApplyThroughTgtadmScript(benchmark::State& state) {
  Guarded(state, [&] {
    const std::string path = gBench.work + "/apply.sh";
    std::ofstream(path) << TgtadmScript();
    const std::string portal = kBaselineAddress + ":" + std::to_string(FreePort(kBaselineAddress));
    for (auto _ : state) {
      auto engine = StartTgtd(portal, gBench.work + "/script-tgtd.log", 2);
      const Clock::time_point start = Clock::now();
      const zel::test::ProcessResult result =
          zel::test::RunProgram({"/bin/sh", path, std::to_string(engine->controlPort())});
      state.SetIterationTime(Seconds(Clock::now() - start));
      if (result.exitCode != 0)
        return Fail(state, "the tgtadm script failed: " + result.err + result.out);
      // Untimed: the script made what the driver makes.
      size_t luns = 0;
      const auto shown = zeltools::engine::ParseTargetShow(engine->control().ShowTargets().output);
      for (const auto& target : shown) luns += target.luns.size() - 1;  // LUN 0 is the engine's
      if (shown.size() != kTargets || luns != CountLuns(gBench.desired)) {
        return Fail(state, "the script made " + std::to_string(shown.size()) + " targets, " +
                               std::to_string(luns) + " LUNs");
      }
    }
  });
}
BENCHMARK(BM_ApplyThroughTgtadmScript)
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// ---- 2. One LUN added to the largest configuration, to its first read ----

// Whether a fresh session reads the first block of `request`'s LUN.
bool ReadsFirstBlock(const LoginRequest& request) {
  InitiatorSession session(std::chrono::milliseconds(2000));
  std::string block;
  return session.Login(request).ok() && session.Read(0, 1, &block).ok;
}

// Polls ReadsFirstBlock until it answers `wanted`; false after 30 s.
bool AwaitRead(const LoginRequest& request, bool wanted) {
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
  while (ReadsFirstBlock(request) != wanted) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

void BM_AddedLunToFirstRead(benchmark::State& state) {
  Guarded(state, [&] {
    Home& home = *gBench.home;
    const int receiver = kTargets - 1;
    const std::string alias = Alias(receiver);
    // The add takes the lowest free number, 7; the initiator sees it as 8.
    const LoginRequest request = Request(receiver, kLunsPerTarget);
    double addSeconds = 0;
    try {
      home.EnableZeld();
      if (ReadsFirstBlock(request)) return Fail(state, "the LUN to add is served already");
    } catch (const std::exception& e) {
      return Fail(state, e.what());
    }
    for (auto _ : state) {
      const Clock::time_point asked = Clock::now();
      const zel::test::ProcessResult added =
          home.Zelctl({"lun", "add", "--target", alias, "--size", kLunSize});
      const Clock::time_point saved = Clock::now();
      if (added.exitCode != 0) return Fail(state, "zelctl lun add: " + added.err);
      if (!AwaitRead(request, true)) return Fail(state, "the added LUN was never read");
      state.SetIterationTime(Seconds(Clock::now() - saved));
      addSeconds += Seconds(saved - asked);
      const zel::test::ProcessResult removed = home.Zelctl(
          {"lun", "remove", "--target", alias, "--id", std::to_string(kLunsPerTarget - 1)});
      if (removed.exitCode != 0) return Fail(state, "zelctl lun remove: " + removed.err);
      if (!AwaitRead(request, false)) return Fail(state, "the removed LUN is still read");
    }
    state.counters["add_ms"] = 1000 * addSeconds / static_cast<double>(state.iterations());
  });
}
BENCHMARK(BM_AddedLunToFirstRead)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

// ---- 3. Sequential read of one LUN ----

// Reads kReadMiB MiB once untimed (the page cache warm for both servers),
// then once per iteration; the rate is the counter "mib_per_s".
void MeasureSequentialRead(benchmark::State& state, const LoginRequest& request) {
  InitiatorSession session;
  double rate = 0;
  if (!session.Login(request).ok() || !session.ReadSequential(kReadMiB, &rate)) {
    return Fail(state, "no sequential read of " + request.targetIqn + " at " + request.portal);
  }
  double total = 0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    const zel::test::CommandResult read = session.ReadSequential(kReadMiB, &rate);
    state.SetIterationTime(Seconds(Clock::now() - start));
    if (!read) return Fail(state, "sequential read: " + read.error);
    total += Seconds(Clock::now() - start);
  }
  state.counters["mib_per_s"] = kReadMiB * static_cast<double>(state.iterations()) / total;
}

void BM_SequentialReadThroughZeld(benchmark::State& state) {
  Guarded(state, [&] {
    try {
      gBench.home->EnableZeld();
    } catch (const std::exception& e) {
      return Fail(state, e.what());
    }
    MeasureSequentialRead(state, Request(0, 1));
  });
}
BENCHMARK(BM_SequentialReadThroughZeld)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// The same backing file served by a tgtd set up by hand: one target, one
// LUN, every initiator admitted, no CHAP; with the argument's I/O threads per
// LUN: tgtd's default 16 (the figure), and zeld's 2 (what explains a gap).
void BM_SequentialReadHandConfigured(benchmark::State& state) {
  Guarded(state, [&] {
    const std::string portal = kBaselineAddress + ":" + std::to_string(FreePort(kBaselineAddress));
    const std::string iqn = "iqn.2024-01.org.example:by-hand";
    std::unique_ptr<zeltools::engine::TgtProcess> engine;
    try {
      engine = StartTgtd(portal, gBench.work + "/hand-tgtd.log", static_cast<int>(state.range(0)));
    } catch (const std::exception& e) {
      return Fail(state, e.what());
    }
    const std::string c = std::to_string(engine->controlPort());
    const std::vector<std::vector<std::string>> calls = {
        {"--mode", "target", "--op", "new", "--tid", "1", "--targetname", iqn},
        {"--mode", "logicalunit", "--op", "new", "--tid", "1", "--lun", "1", "--backing-store",
         gBench.desired.targets.front().luns.front().backingStore},
        {"--mode", "target", "--op", "bind", "--tid", "1", "--initiator-address", "ALL"}};
    for (std::vector<std::string> call : calls) {
      call.insert(call.begin(), {"/usr/sbin/tgtadm", "-C", c, "--lld", "iscsi"});
      const zel::test::ProcessResult result = zel::test::RunProgram(call);
      if (result.exitCode != 0) return Fail(state, "tgtadm: " + result.err);
    }
    LoginRequest request;
    request.portal = portal;
    request.targetIqn = iqn;
    request.lun = 1;
    request.initiatorIqn = kInitiator;
    MeasureSequentialRead(state, request);
  });
}
BENCHMARK(BM_SequentialReadHandConfigured)
    ->Arg(16)
    ->Arg(2)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

// Fills the read LUN's backing file with data, so that reads are of blocks,
// not of a hole.
void FillReadLun(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + path);
  std::string chunk(1 << 20, '\0');
  for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>('a' + i % 23);
  for (uint32_t m = 0; m < kReadMiB; ++m) {
    if (::pwrite(fd, chunk.data(), chunk.size(), off_t{m} << 20) !=
        static_cast<ssize_t>(chunk.size())) {
      ::close(fd);
      throw std::runtime_error("cannot write " + path);
    }
  }
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (::geteuid() != 0 || ::access("/usr/sbin/tgtd", X_OK) != 0) {
    std::fprintf(stderr, "data_path_bench: needs root and /usr/sbin/tgtd\n");
    return 1;
  }
  try {
    const Clock::time_point start = Clock::now();
    gBench.home = std::make_unique<Home>();
    gBench.work = gBench.home->Path() + "/bench";
    ::mkdir(gBench.work.c_str(), 0700);
    // This process reads the desired state as zeld does, with the home's
    // host selected, and drives its own Reconciler with it.
    zel::platform::SelectHost(zel::platform::NewLocalServiceHost(
        zel::platform::LoadHostConfig(gBench.home->Path()), zel::platform::LogLevel::Warning));
    gBench.desired = zeltools::ReadDesiredState(gBench.home->HostUuid());
    const zeltools::DesiredTarget& first = gBench.desired.targets.front();
    if (gBench.desired.targets.size() != kTargets || CountLuns(gBench.desired) != kLuns ||
        first.luns.empty() || first.luns.front().engineLun != 1 || !first.chap) {
      throw std::runtime_error("the home holds " + std::to_string(gBench.desired.targets.size()) +
                               " targets and " + std::to_string(CountLuns(gBench.desired)) +
                               " LUNs");
    }
    FillReadLun(first.luns.front().backingStore);
    std::fprintf(stderr,
                 "data_path_bench: home of %d targets and %d LUNs made by zelctl in %.1f s\n",
                 kTargets, kLuns, Seconds(Clock::now() - start));
  } catch (const HostCtl::Lib::HostCtlException& e) {
    std::fprintf(stderr, "data_path_bench: set-up failed: %s\n", e.GetMessage().c_str());
    gBench.home.reset();
    return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "data_path_bench: set-up failed: %s\n", e.what());
    gBench.home.reset();
    return 1;
  }

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  gBench.home.reset();  // zelctl service disable
  return gFailed ? 1 : 0;
}
