// The read path on the largest admitted configuration (ZEL_BENCH_CONF, from
// gen_max_conf.py; bench/run.sh sets it):
//   - the target list from the subscribed, clean cache next to the same list
//     read afresh from the file (unsubscribed), in the same run, and next to
//     a plain copy of the finished list, the floor of any by-value answer;
//   - what freeing one answer costs the caller, a share of each figure above;
//   - the time from another process's publication of a new generation in the
//     SQLite directory until this process's subscribed cache is dirty,
//     reported as the median of its rounds next to the median time the
//     publication itself took in the other process.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "cache/ConfigCache.h"
#include "conf/reader.h"
#include "directory/DirectoryEntries.h"
#include "platform/local/EtcdClient.h"
#include "support/EtcdServer.h"
#include "support/ServiceHome.h"

namespace {

using NokCtl::Orva::IscsiTarget::ConfigCache;
using Clock = std::chrono::steady_clock;

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The other process: publishes the generations it is sent, one at a time,
// as a host that has just saved zel.conf does, and answers with the status
// and how long the publication took. Generation 0 ends it.
class Publisher {
 public:
  // Forks before this process opens its own directory, so that no
  // directory thread is copied into the child mid-flight.
  explicit Publisher(zel::test::ServiceHome& home) {
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe failed");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::_exit(Serve(home, toChild[0], fromChild[1]));
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    request_ = toChild[1];
    reply_ = fromChild[0];
  }

  ~Publisher() {
    const uint64_t stop = 0;
    if (::write(request_, &stop, sizeof stop) != sizeof stop) ::kill(pid_, SIGTERM);
    ::close(request_);
    ::close(reply_);
    int status;
    ::waitpid(pid_, &status, 0);
  }

  void Send(uint64_t generation) {
    if (::write(request_, &generation, sizeof generation) != sizeof generation) {
      throw std::runtime_error("publisher is gone");
    }
  }

  // The publication's status and its duration in milliseconds.
  std::pair<uint32_t, double> Reply() {
    Answer answer;
    if (::read(reply_, &answer, sizeof answer) != sizeof answer) {
      throw std::runtime_error("publisher is gone");
    }
    return {answer.status, answer.millis};
  }

 private:
  struct Answer {
    uint32_t status;
    double millis;
  };

  static int Serve(zel::test::ServiceHome& home, int requests, int replies) {
    bool installed = false;
    uint64_t generation;
    while (::read(requests, &generation, sizeof generation) == sizeof generation &&
           generation != 0) {
      if (!installed) {
        home.InstallLocalServiceHost(zel::platform::LogLevel::Error);
        installed = true;
      }
      const Clock::time_point start = Clock::now();
      Answer answer;
      answer.status = ZeldUpdateBrixEntryForConfig(generation);
      answer.millis = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      if (::write(replies, &answer, sizeof answer) != sizeof answer) return 1;
    }
    return 0;
  }

  pid_t pid_ = -1;
  int request_ = -1;
  int reply_ = -1;
};

Publisher* gPublisher = nullptr;

int64_t MonotonicNanos() {
  timespec now;
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// Three processes publishing generations at once, as three hosts that save
// zel.conf in quick succession: each takes the next generation from a shared
// counter (the save's increment) and publishes it, recording when the
// publication started and ended on the machine's clock and how it ended.
class PublisherTeam {
 public:
  static constexpr int kMembers = 3;
  static constexpr int kEach = 40;  // publications of each member per round

  struct Record {
    uint64_t generation;
    uint32_t status;
    int64_t startNs, endNs;
  };

  explicit PublisherTeam(zel::test::ServiceHome& home) {
    void* shared = ::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                          -1, 0);
    if (shared == MAP_FAILED) throw std::runtime_error("mmap failed");
    board_ = new (shared) Board();
    for (Member& member : members_) {
      int go[2], done[2];
      if (::pipe(go) != 0 || ::pipe(done) != 0) throw std::runtime_error("pipe failed");
      member.pid = ::fork();
      if (member.pid < 0) throw std::runtime_error("fork failed");
      if (member.pid == 0) ::_exit(Serve(home, *board_, go[0], done[1]));
      ::close(go[0]);
      ::close(done[1]);
      member.go = go[1];
      member.done = done[0];
    }
  }
  ~PublisherTeam() {
    // Said, not implied by closing the pipe: the later members hold copies
    // of the earlier ones' pipe ends.
    const char stop = 'q';
    for (Member& member : members_) {
      if (::write(member.go, &stop, 1) != 1) ::kill(member.pid, SIGTERM);
      ::close(member.go);
      ::close(member.done);
      ::waitpid(member.pid, nullptr, 0);
    }
    ::munmap(board_, sizeof(Board));
  }

  // One round: every member publishes kEach generations at once with the
  // others; every publication of the round, in no particular order.
  std::vector<Record> Round() {
    board_->count = 0;
    const char go = 'g';
    for (Member& member : members_) {
      if (::write(member.go, &go, 1) != 1) throw std::runtime_error("publisher is gone");
    }
    for (Member& member : members_) {
      char done;
      if (::read(member.done, &done, 1) != 1) throw std::runtime_error("publisher is gone");
    }
    return std::vector<Record>(board_->records, board_->records + board_->count.load());
  }

 private:
  struct Board {
    // Above every generation the other benchmarks publish.
    std::atomic<uint64_t> next{1000000000};
    std::atomic<int> count{0};
    Record records[kMembers * kEach];
  };
  struct Member {
    pid_t pid = -1;
    int go = -1, done = -1;
  };

  static int Serve(zel::test::ServiceHome& home, Board& board, int go, int done) {
    bool installed = false;
    char signal;
    while (::read(go, &signal, 1) == 1 && signal != 'q') {
      if (!installed) {
        home.InstallLocalServiceHost(zel::platform::LogLevel::Error);
        installed = true;
      }
      for (int i = 0; i < kEach; ++i) {
        Record record;
        record.generation = board.next.fetch_add(1);
        record.startNs = MonotonicNanos();
        record.status = ZeldUpdateBrixEntryForConfig(record.generation);
        record.endNs = MonotonicNanos();
        board.records[board.count.fetch_add(1)] = record;
      }
      if (::write(done, &signal, 1) != 1) return 1;
    }
    return 0;
  }

  Board* board_ = nullptr;
  Member members_[kMembers];
};

PublisherTeam* gTeam = nullptr;

void BM_GetTargetsFromCleanCache(benchmark::State& state) {
  ConfigCache::SubscribeBrix();
  ConfigCache::GetTargetsInfos();
  for (auto _ : state) benchmark::DoNotOptimize(ConfigCache::GetTargetsInfos());
  // A notice during the run would have sent queries to the file.
  if (ConfigCache::IsZelConfDirty()) state.SkipWithError("the cache turned dirty");
}
BENCHMARK(BM_GetTargetsFromCleanCache)->Unit(benchmark::kMicrosecond);

void BM_GetTargetsFromFile(benchmark::State& state) {
  ConfigCache::UnsubscribeBrix();
  for (auto _ : state) benchmark::DoNotOptimize(ConfigCache::GetTargetsInfos());
}
BENCHMARK(BM_GetTargetsFromFile)->Unit(benchmark::kMicrosecond);

// The least any answer can cost while the interface hands out the records by
// value: a copy of the finished list, without converting anything.
void BM_CopyTargetListFloor(benchmark::State& state) {
  const std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> built =
      ConfigCache::GetTargetsInfos();
  for (auto _ : state) {
    std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> copy(built);
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(BM_CopyTargetListFloor)->Unit(benchmark::kMicrosecond);

// The caller giving one answer's heap blocks back, which every figure above
// includes: the list's records are deep copies, so freeing them costs about
// as much as allocating them did.
void BM_FreeTargetList(benchmark::State& state) {
  ConfigCache::SubscribeBrix();
  for (auto _ : state) {
    state.PauseTiming();
    std::vector<HostCtl::Orva::IscsiTarget::TargetInfo> answer = ConfigCache::GetTargetsInfos();
    state.ResumeTiming();
    answer = {};
    benchmark::DoNotOptimize(answer);
  }
  if (ConfigCache::IsZelConfDirty()) state.SkipWithError("the cache turned dirty");
}
BENCHMARK(BM_FreeTargetList)->Unit(benchmark::kMicrosecond);

void BM_PublishToDirtyLatency(benchmark::State& state) {
  static uint64_t generation = 1000;
  ConfigCache::SubscribeBrix();
  std::vector<double> latencies, publications;
  for (auto _ : state) {
    // A clean cache that knows of no entry: the notice sets both flags in
    // one exclusive section, and the entry flag can be read under the lock.
    ConfigCache::GetTargetsInfos();
    ConfigCache::SetZelConfBrixEntryExists(false, true);

    const Clock::time_point start = Clock::now();
    gPublisher->Send(++generation);
    while (!ConfigCache::GetZelConfBrixEntryExists(true)) {
      if (Clock::now() - start > std::chrono::seconds(10)) {
        state.SkipWithError("no notice within 10 s");
        return;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    const double millis = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    const auto [status, published] = gPublisher->Reply();
    if (status != NOK_OK || !ConfigCache::IsZelConfDirty()) {
      state.SkipWithError("the publication did not make the cache dirty");
      return;
    }
    state.SetIterationTime(millis / 1000);
    latencies.push_back(millis);
    publications.push_back(published);
  }
  state.counters["median_ms"] = Median(latencies);
  state.counters["publish_median_ms"] = Median(publications);
}
BENCHMARK(BM_PublishToDirtyLatency)->Iterations(40)->UseManualTime()->Unit(benchmark::kMillisecond);

// Publications refused (NOK_EXISTS: a newer generation was stored first)
// against those that had a newer one truly concurrent: one that started
// before it ended. A refusal without such a rival would be a publication
// lost by the directory (a retried write reported as refused, say).
void BM_ConcurrentPublications(benchmark::State& state) {
  int refused = 0, concurrent = 0, unexplained = 0, failed = 0, total = 0;
  for (auto _ : state) {
    const std::vector<PublisherTeam::Record> records = gTeam->Round();
    for (const PublisherTeam::Record& record : records) {
      const bool rivalled = std::any_of(records.begin(), records.end(), [&](const auto& other) {
        return other.generation > record.generation && other.startNs < record.endNs;
      });
      concurrent += rivalled;
      refused += record.status == NOK_EXISTS;
      unexplained += record.status == NOK_EXISTS && !rivalled;
      failed += record.status != NOK_OK && record.status != NOK_EXISTS;
    }
    total += static_cast<int>(records.size());
  }
  state.counters["publications"] = total;
  state.counters["refused"] = refused;
  state.counters["concurrent"] = concurrent;
  state.counters["refused_unexplained"] = unexplained;
  state.counters["failed"] = failed;
}
BENCHMARK(BM_ConcurrentPublications)->Iterations(5)->Unit(benchmark::kMillisecond);

// etcd's own latency from a put until a watch of the key sees it, through
// the same gateway and client the directory uses, with no directory code on
// either side: the floor under BM_PublishToDirtyLatency on etcd.
std::vector<std::string> gEtcdEndpoints;

void BM_EtcdPutToWatch(benchmark::State& state) {
  using nlohmann::json;
  using zel::platform::EtcdClient;
  if (gEtcdEndpoints.empty()) {
    state.SkipWithError("the directory is not on etcd (ZEL_BENCH_DIRECTORY=etcd)");
    return;
  }
  const std::string key = EtcdClient::ToBase64("/bench/put-to-watch");
  EtcdClient writer(gEtcdEndpoints), watcher(gEtcdEndpoints);
  zel::platform::EtcdStreamStop stop;
  std::mutex mutex;
  std::condition_variable arrived;
  bool created = false;
  std::string seen;
  std::thread watch([&] {
    watcher.Stream("/v3/watch", {{"create_request", {{"key", key}}}},
                   [&](const json& message) {
                     const json result = message.value("result", json::object());
                     std::lock_guard<std::mutex> lock(mutex);
                     created = created || result.value("created", false);
                     for (const json& event : result.value("events", json::array())) {
                       EtcdClient::FromBase64(event["kv"].value("value", ""), &seen);
                     }
                     arrived.notify_all();
                     return true;
                   },
                   &stop);
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    arrived.wait_for(lock, std::chrono::seconds(10), [&] { return created; });
  }
  std::vector<double> latencies;
  int round = 0;
  for (auto _ : state) {
    const std::string value = std::to_string(++round);
    const Clock::time_point start = Clock::now();
    json reply;
    if (!writer.Call("/v3/kv/put", {{"key", key}, {"value", EtcdClient::ToBase64(value)}}, &reply).Ok()) {
      state.SkipWithError("the put failed");
      break;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!arrived.wait_for(lock, std::chrono::seconds(10), [&] { return seen == value; })) {
      state.SkipWithError("no watch event within 10 s");
      break;
    }
    const double millis = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    state.SetIterationTime(millis / 1000);
    latencies.push_back(millis);
  }
  stop.Stop();
  watch.join();
  state.counters["median_ms"] = Median(latencies);
}
BENCHMARK(BM_EtcdPutToWatch)->Iterations(40)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  // ZEL_BENCH_DIRECTORY=etcd: the processes meet in an etcd member of this
  // run's own instead of the database file.
  const char* backend = std::getenv("ZEL_BENCH_DIRECTORY");
  std::unique_ptr<zel::test::EtcdServer> etcd;
  zel::test::ServiceHome home;
  if (backend != nullptr && std::string(backend) == "etcd") {
    etcd = std::make_unique<zel::test::EtcdServer>(1);
    if (!etcd->Ready()) throw std::runtime_error("the etcd member did not start");
    gEtcdEndpoints = etcd->Endpoints();
    home.SetHostSetting("directory", {{"backend", "etcd"},
                                      {"endpoints", gEtcdEndpoints},
                                      {"prefix", "/zel/bench"}});
  }
  home.WriteConf(zel::bench::BenchConfText());
  Publisher publisher(home);
  PublisherTeam team(home);
  home.InstallLocalServiceHost(zel::platform::LogLevel::Error);
  log_init(0);  // the benchmark measures work, not the reader's logging
  gPublisher = &publisher;
  gTeam = &team;

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
