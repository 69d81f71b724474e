// Target editing through the service, on the local service host:
//   - adding and removing one target on a configuration one target short of
//     the limit (ZEL_BENCH_CONF, from gen_max_conf.py; bench/run.sh sets it),
//     next to the two costs such an edit cannot avoid, measured in the same
//     run: the raw durable save of that file's bytes, and creating or
//     deleting a target's namespace;
//   - the throughput of four processes adding targets to one home at the
//     same time against one process making the same number of adds alone.
//     After every round the file must hold every new target and its
//     generation must have risen by exactly one per save, else the run fails.
// Every timed add is undone by an untimed remove and the other way round,
// so each iteration edits the same configuration.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "conf/conf.h"
#include "directory/DirectoryEntries.h"
#include "storage/TargetNamespace.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetCreateParam;
using HostCtl::Orva::IscsiTarget::TargetInfo;
using Clock = std::chrono::steady_clock;

// Every target this benchmark adds carries this prefix in its alias, so
// that a sweep removes exactly those.
const std::string kPrefix = "bench-";
// The adds of one throughput round, split evenly among its processes; with
// the standard configuration's two targets the file stays under the limit.
constexpr uint32_t kAddsPerRound = 100;
constexpr int kMaxWorkers = 4;
// A namespace that only the namespace benchmarks create and delete.
constexpr const char* kNamespaceBenchUuid = "6b1f0c3e-2a4d-4e8b-9f70-1c2d3e4f5a6b";

bool gFailed = false;

// Reports a broken run: the benchmark stops with `message` and the program
// exits non-zero, so that run.sh does not print figures of a wrong run.
void Fail(benchmark::State& state, const std::string& message) {
  std::fprintf(stderr, "edit_bench: %s\n", message.c_str());
  gFailed = true;
  state.SkipWithError(message.c_str());
}

TargetCreateParam NewTarget(const std::string& alias) {
  TargetCreateParam param;
  param.alias = alias;
  // Given, not generated: a generated IQN would ask the host for its domain.
  param.iqn = "iqn.2026-11.local.zel:" + alias;
  // The empty interface joins the default portal group, so the host's
  // network interfaces take no part in the edit.
  return param;
}

// The configuration's generation and number of targets, read from the text.
struct FileState {
  uint64_t generation = 0;
  size_t targets = 0;
};

FileState ReadFileState(const std::string& text) {
  FileState state;
  if (std::sscanf(text.c_str(), "generation %" SCNu64, &state.generation) != 1) {
    throw std::runtime_error("zel.conf does not start with its generation");
  }
  for (size_t at = text.find("\ntarget "); at != std::string::npos;
       at = text.find("\ntarget ", at + 1)) {
    ++state.targets;
  }
  return state;
}

std::string AddedAlias(uint32_t round, int worker, uint32_t n) {
  return kPrefix + "r" + std::to_string(round) + "-w" + std::to_string(worker) + "-" +
         std::to_string(n);
}

int64_t Nanos(Clock::time_point at) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(at.time_since_epoch()).count();
}

// One process editing the throughput home. It is forked before the parent
// opens any directory, so no directory thread is copied into it mid-flight,
// and it selects its own local service host there, as a second management
// process on the same host would.
class Worker {
 public:
  enum class Op : uint32_t { kStop, kPrepare, kAdd, kRemoveAdded, kPublishedGeneration };

  struct Reply {
    uint32_t ok;
    // The adds' start and end on the host-wide monotonic clock, which all
    // the workers share.
    int64_t startNs;
    int64_t endNs;
    uint64_t value;
    char message[256];
  };

  Worker(zel::test::ServiceHome& home, int index) {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe failed");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      // The parent's ends of the earlier workers' pipes: held here, they
      // would keep those workers waiting should the parent die.
      for (int fd : ParentEnds()) ::close(fd);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::_exit(Serve(home, index, toChild[0], fromChild[1]));
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    request_ = toChild[1];
    reply_ = fromChild[0];
    ParentEnds().push_back(request_);
    ParentEnds().push_back(reply_);
  }

  ~Worker() {
    const Command stop{Op::kStop, 0, 0};
    if (::write(request_, &stop, sizeof stop) != sizeof stop) ::kill(pid_, SIGTERM);
    ::close(request_);
    ::close(reply_);
    int status;
    ::waitpid(pid_, &status, 0);
  }

  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void Send(Op op, uint32_t round = 0, uint32_t count = 0) {
    const Command command{op, round, count};
    if (::write(request_, &command, sizeof command) != sizeof command) {
      throw std::runtime_error("a worker is gone");
    }
  }

  // The answer to the last command; a refusal is thrown.
  Reply Receive() {
    Reply reply;
    if (::read(reply_, &reply, sizeof reply) != sizeof reply) {
      throw std::runtime_error("a worker is gone");
    }
    if (!reply.ok) throw std::runtime_error(reply.message);
    return reply;
  }

  Reply Call(Op op) {
    Send(op);
    return Receive();
  }

 private:
  struct Command {
    Op op;
    uint32_t round;
    uint32_t count;
  };

  static std::vector<int>& ParentEnds() {
    static std::vector<int> ends;
    return ends;
  }

  static int Serve(zel::test::ServiceHome& home, int index, int requests, int replies) {
    std::unique_ptr<OrvaIscsiTarget> service;
    Command command;
    while (::read(requests, &command, sizeof command) == sizeof command &&
           command.op != Op::kStop) {
      Reply reply{};
      try {
        reply.value = Perform(home, index, command, service, &reply);
        reply.ok = 1;
      } catch (const OrvaCtlException& e) {
        std::snprintf(reply.message, sizeof reply.message, "worker %d: %s", index,
                      e.GetMessage().c_str());
      } catch (const std::exception& e) {
        std::snprintf(reply.message, sizeof reply.message, "worker %d: %s", index, e.what());
      }
      if (::write(replies, &reply, sizeof reply) != sizeof reply) return 1;
    }
    return 0;
  }

  static uint64_t Perform(zel::test::ServiceHome& home, int index, const Command& command,
                          std::unique_ptr<OrvaIscsiTarget>& service, Reply* reply) {
    switch (command.op) {
      case Op::kPrepare: {
        home.InstallLocalServiceHost(zel::platform::LogLevel::Error);
        log_init(0);  // the benchmark measures work, not the reader's logging
        service = zel::test::NewService();
        // The first edit of a process sets up its cache subscription and
        // libraries once; no round should pay for that.
        TargetCreateParam warm = NewTarget(kPrefix + "warm-w" + std::to_string(index));
        service->AddTarget(warm);
        service->RemoveTarget(warm.alias);
        return 0;
      }
      case Op::kAdd: {
        const Clock::time_point start = Clock::now();
        for (uint32_t n = 0; n < command.count; ++n) {
          TargetCreateParam param = NewTarget(AddedAlias(command.round, index, n));
          service->AddTarget(param);
        }
        reply->startNs = Nanos(start);
        reply->endNs = Nanos(Clock::now());
        return command.count;
      }
      case Op::kRemoveAdded: {
        uint64_t removed = 0;
        for (const TargetInfo& target : service->GetTargetsInternal()) {
          if (target.alias.compare(0, kPrefix.size(), kPrefix) != 0) continue;
          service->RemoveTarget(target.alias);
          ++removed;
        }
        return removed;
      }
      case Op::kPublishedGeneration: {
        uint64_t generation = 0;
        const NOK_ReturnStatus status = ZeldGetConfigGenNumInBrix(&generation);
        if (status != NOK_OK) {
          throw std::runtime_error(std::string("no published generation: ") +
                                   NOK_ReturnStatusToString(status));
        }
        return generation;
      }
      case Op::kStop:
        break;
    }
    throw std::runtime_error("unknown command");
  }

  pid_t pid_ = -1;
  int request_ = -1;
  int reply_ = -1;
};

// What the benchmarks share; set up in main before they run.
struct Bench {
  zel::test::ServiceHome* editHome = nullptr;        // the configuration at 127 targets
  zel::test::ServiceHome* throughputHome = nullptr;  // the standard configuration
  std::vector<std::unique_ptr<Worker>>* workers = nullptr;
  std::unique_ptr<OrvaIscsiTarget> service;
  std::string editText;  // the edit home's zel.conf as installed
};

Bench gBench;

// Runs `edit`; a refusal fails the run. False when it failed.
bool Edit(benchmark::State& state, const std::function<void()>& edit) {
  try {
    edit();
    return true;
  } catch (const OrvaCtlException& e) {
    Fail(state, e.GetMessage());
  } catch (const std::exception& e) {
    Fail(state, e.what());
  }
  return false;
}

const char kEditAlias[] = "bench-edit";

void BM_AddTarget(benchmark::State& state) {
  for (auto _ : state) {
    TargetCreateParam param = NewTarget(kEditAlias);
    if (!Edit(state, [&] { gBench.service->AddTarget(param); })) return;
    state.PauseTiming();
    const bool undone = Edit(state, [] { gBench.service->RemoveTarget(kEditAlias); });
    state.ResumeTiming();
    if (!undone) return;
  }
}
BENCHMARK(BM_AddTarget)->Unit(benchmark::kMillisecond);

void BM_RemoveTarget(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    TargetCreateParam param = NewTarget(kEditAlias);
    const bool added = Edit(state, [&] { gBench.service->AddTarget(param); });
    state.ResumeTiming();
    if (!added) return;
    if (!Edit(state, [] { gBench.service->RemoveTarget(kEditAlias); })) return;
  }
}
BENCHMARK(BM_RemoveTarget)->Unit(benchmark::kMillisecond);

void BM_CreateTargetNamespace(benchmark::State& state) {
  namespace Util = NokCtl::Orva::IscsiTarget::Util;
  for (auto _ : state) {
    std::string namespaceUuid;
    if (!Edit(state, [&] { Util::CreateTargetNamespace(kNamespaceBenchUuid, "", namespaceUuid); })) {
      return;
    }
    state.PauseTiming();
    const bool undone = Edit(state, [] { Util::DeleteTargetNamespace(kNamespaceBenchUuid); });
    state.ResumeTiming();
    if (!undone) return;
  }
}
BENCHMARK(BM_CreateTargetNamespace)->Unit(benchmark::kMillisecond);

void BM_DeleteTargetNamespace(benchmark::State& state) {
  namespace Util = NokCtl::Orva::IscsiTarget::Util;
  for (auto _ : state) {
    state.PauseTiming();
    std::string namespaceUuid;
    const bool created =
        Edit(state, [&] { Util::CreateTargetNamespace(kNamespaceBenchUuid, "", namespaceUuid); });
    state.ResumeTiming();
    if (!created) return;
    if (!Edit(state, [] { Util::DeleteTargetNamespace(kNamespaceBenchUuid); })) return;
  }
}
BENCHMARK(BM_DeleteTargetNamespace)->Unit(benchmark::kMillisecond);

// The least a durable atomic save of the edit home's zel.conf can cost, on
// the same file system: write a temporary file beside it, fsync it, rename
// it into place, fsync the directory.
void BM_RawSaveFloor(benchmark::State& state) {
  zel::bench::MeasureRawSaveFloor(state, gBench.editHome->ConfPath(), gBench.editText);
}
BENCHMARK(BM_RawSaveFloor)->Unit(benchmark::kMillisecond);

// One round: state.range(0) workers add kAddsPerRound targets between them at
// the same time; the round lasts from the first worker's start to the last
// one's end. The adds are then checked and removed again, untimed.
void BM_ConcurrentAdds(benchmark::State& state) {
  static uint32_t round = 0;
  const int processes = static_cast<int>(state.range(0));
  const uint32_t each = kAddsPerRound / processes;
  const uint32_t adds = each * processes;
  std::vector<std::unique_ptr<Worker>>& workers = *gBench.workers;
  const std::string confPath = gBench.throughputHome->ConfPath();
  double seconds = 0;
  for (auto _ : state) {
    ++round;
    try {
      const FileState before = ReadFileState(zel::test::ReadFile(confPath));
      for (int w = 0; w < processes; ++w) workers[w]->Send(Worker::Op::kAdd, round, each);
      int64_t first = INT64_MAX, last = INT64_MIN;
      std::string refusal;
      for (int w = 0; w < processes; ++w) {
        try {
          const Worker::Reply reply = workers[w]->Receive();
          first = std::min(first, reply.startNs);
          last = std::max(last, reply.endNs);
        } catch (const std::runtime_error& e) {
          refusal = e.what();
        }
      }
      if (!refusal.empty()) return Fail(state, refusal);
      const double elapsed = static_cast<double>(last - first) / 1e9;
      state.SetIterationTime(elapsed);
      seconds += elapsed;

      const std::string text = zel::test::ReadFile(confPath);
      const FileState after = ReadFileState(text);
      for (int w = 0; w < processes; ++w) {
        for (uint32_t n = 0; n < each; ++n) {
          const std::string alias = AddedAlias(round, w, n);
          if (text.find("\talias \"" + alias + "\"\n") == std::string::npos) {
            return Fail(state, "zel.conf lacks target " + alias);
          }
        }
      }
      if (after.targets != before.targets + adds) {
        return Fail(state, "zel.conf holds " + std::to_string(after.targets) + " targets, not " +
                               std::to_string(before.targets + adds));
      }
      if (after.generation != before.generation + adds) {
        return Fail(state, "the generation rose from " + std::to_string(before.generation) +
                               " to " + std::to_string(after.generation) + " over " +
                               std::to_string(adds) + " saves");
      }
      const uint64_t published = workers[0]->Call(Worker::Op::kPublishedGeneration).value;
      if (published != after.generation) {
        return Fail(state, "the directory holds generation " + std::to_string(published) +
                               ", zel.conf " + std::to_string(after.generation));
      }

      const uint64_t removed = workers[0]->Call(Worker::Op::kRemoveAdded).value;
      const FileState cleared = ReadFileState(zel::test::ReadFile(confPath));
      if (removed != adds || cleared.targets != before.targets ||
          cleared.generation != after.generation + adds) {
        return Fail(state, "removing the round's targets took " + std::to_string(removed) +
                               " saves to generation " + std::to_string(cleared.generation) +
                               ", leaving " + std::to_string(cleared.targets) + " targets");
      }
    } catch (const std::exception& e) {
      return Fail(state, e.what());
    }
  }
  state.counters["targets_per_s"] = static_cast<double>(adds) * state.iterations() / seconds;
}
BENCHMARK(BM_ConcurrentAdds)
    ->ArgName("processes")
    ->Arg(1)
    ->Arg(kMaxWorkers)
    ->Iterations(1)  // a round per repetition: its median is the figure
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  zel::test::ServiceHome editHome;
  zel::test::ServiceHome throughputHome;
  editHome.WriteConf(zel::bench::BenchConfText());
  {
    std::vector<std::unique_ptr<Worker>> workers;
    for (int w = 0; w < kMaxWorkers; ++w) {
      workers.push_back(std::make_unique<Worker>(throughputHome, w));
    }
    editHome.InstallLocalServiceHost(zel::platform::LogLevel::Error);
    log_init(0);  // the benchmark measures work, not the reader's logging
    gBench.editHome = &editHome;
    gBench.throughputHome = &throughputHome;
    gBench.workers = &workers;
    gBench.editText = zel::test::ReadFile(editHome.ConfPath());
    gBench.service = zel::test::NewService();
    // As in each worker: the process's first edit sets up what later edits
    // find ready.
    TargetCreateParam warm = NewTarget(kPrefix + "warm");
    gBench.service->AddTarget(warm);
    gBench.service->RemoveTarget(warm.alias);
    for (auto& worker : workers) worker->Call(Worker::Op::kPrepare);

    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gBench.service.reset();
  }
  return gFailed ? 1 : 0;
}
