// LUNs through the service, on the local service host, at the limit of
// 1,024 LUNs in the cluster (ZEL_BENCH_CONF, from gen_max_conf.py; bench/run.sh
// runs this program once per configuration, each time with a filter):
//   - adding the 1,024th LUN to a configuration of 128 targets and 1,023 LUNs,
//     next to the two costs such an add cannot avoid, measured in the same
//     run: creating a disk of the same size in a target's namespace
//     directory, and the raw durable save of that file's bytes. Every timed
//     add is undone by an untimed removal (and every disk by an untimed
//     deletion), so each iteration starts from the same configuration;
//   - the LUN lists of all 128 targets of the largest configuration from the
//     subscribed, clean cache, next to the same lists read afresh from the
//     file (the cache dropped before each query), in the same run.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "cache/ConfigCache.h"
#include "storage/DatastoreLayout.h"
#include "storage/DiskLunApi.h"
#include "storage/Policy.h"
#include "storage/TargetNamespace.h"
#include "storage/Units.h"
#include "support/Messages.h"
#include "support/ServiceHome.h"

namespace {

using HostCtl::Lib::Orva::OrvaCtlException;
using HostCtl::Orva::IscsiTarget::LunInfo;
using HostCtl::Orva::IscsiTarget::OrvaIscsiTarget;
using HostCtl::Orva::IscsiTarget::TargetInfo;
using NokCtl::Orva::IscsiTarget::ConfigCache;
namespace Util = NokCtl::Orva::IscsiTarget::Util;

// What the add makes, and the disk it is compared with: sparse, so the size
// costs nothing but is given as a caller would.
const char kLunSize[] = "1GiB";
constexpr size_t kLunLimit = 1024;
constexpr size_t kMaxTargets = 128;

bool gFailed = false;

// Reports a broken run: the benchmark stops with `message` and the program
// exits non-zero, so that run.sh does not print figures of a wrong run.
void Fail(benchmark::State& state, const std::string& message) {
  std::fprintf(stderr, "lun_bench: %s\n", message.c_str());
  gFailed = true;
  state.SkipWithError(message.c_str());
}

// Runs `call`; a refusal fails the run. False when it failed.
bool Call(benchmark::State& state, const std::function<void()>& call) {
  try {
    call();
    return true;
  } catch (const OrvaCtlException& e) {
    Fail(state, e.GetMessage());
  } catch (const std::exception& e) {
    Fail(state, e.what());
  }
  return false;
}

size_t CountLuns(const std::vector<TargetInfo>& targets) {
  size_t luns = 0;
  for (const TargetInfo& target : targets) luns += target.luns.size();
  return luns;
}

// What the benchmarks share; set up in main before they run.
struct Bench {
  zel::test::ServiceHome* home = nullptr;
  std::unique_ptr<OrvaIscsiTarget> service;
  std::string confText;  // zel.conf as installed
  std::vector<std::string> aliases;  // every target's, in the file's order
};

Bench gBench;

// The number of the LUN of target `alias` whose disk is `path`: the add
// chooses the number and reports only the disk.
int LunNumberOfDisk(const std::string& alias, const std::string& path) {
  std::vector<LunInfo> luns;
  gBench.service->GetLuns(alias, luns, false);
  for (const LunInfo& lun : luns) {
    if (lun.path == path) return lun.id;
  }
  throw std::runtime_error("target " + alias + " has no LUN on disk " + path);
}

void AddAndRemove(const std::string& alias) {
  LunInfo lun;
  lun.target = alias;
  lun.size = kLunSize;
  gBench.service->AddLun(lun);
  gBench.service->RemoveLun(static_cast<unsigned>(LunNumberOfDisk(alias, lun.path)), alias);
}

// The target that receives the added LUN: the one with the fewest LUNs,
// the last of them on a tie (gen_max_conf.py takes the missing LUN from the
// last target). Its namespace is made on first use, through the storage
// layer as the target's creation does, so that disks can be created in it;
// a first add and removal then set up what later ones find ready.
struct Receiver {
  std::string alias;
  std::string dir;  // the namespace directory the LUN's disk goes to
};

const Receiver* PrepareReceiver(benchmark::State& state) {
  static std::unique_ptr<Receiver> receiver;
  if (receiver) return receiver.get();
  auto prepared = std::make_unique<Receiver>();
  const bool ready = Call(state, [&] {
    const std::vector<TargetInfo> targets = gBench.service->GetTargetsInternal();
    if (CountLuns(targets) != kLunLimit - 1) {
      throw std::runtime_error("the configuration holds " + std::to_string(CountLuns(targets)) +
                               " LUNs, not " + std::to_string(kLunLimit - 1) +
                               " (gen_max_conf.py <file> 128 1023)");
    }
    const TargetInfo* fewest = &targets.front();
    for (const TargetInfo& target : targets) {
      if (target.luns.size() <= fewest->luns.size()) fewest = &target;
    }
    std::string namespaceUuid;
    Util::CreateTargetNamespace(fewest->uuid, "", namespaceUuid);
    prepared->alias = fewest->alias;
    prepared->dir = Util::GetNamespaceRoot() + "/" + fewest->uuid;
    AddAndRemove(prepared->alias);
  });
  if (!ready) return nullptr;
  receiver = std::move(prepared);
  return receiver.get();
}

void BM_AddLun(benchmark::State& state) {
  const Receiver* receiver = PrepareReceiver(state);
  if (receiver == nullptr) return;
  for (auto _ : state) {
    // No number: the service chooses the lowest free one, as for a caller
    // that leaves the record as made.
    LunInfo lun;
    lun.target = receiver->alias;
    lun.size = kLunSize;
    if (!Call(state, [&] { gBench.service->AddLun(lun); })) return;
    state.PauseTiming();
    const bool undone = Call(state, [&] {
      if (lun.path.compare(0, receiver->dir.size() + 1, receiver->dir + "/") != 0) {
        throw std::runtime_error("the LUN's disk " + lun.path + " is not in " + receiver->dir);
      }
      gBench.service->RemoveLun(static_cast<unsigned>(LunNumberOfDisk(lun.target, lun.path)),
                                lun.target);
    });
    state.ResumeTiming();
    if (!undone) return;
  }
}
BENCHMARK(BM_AddLun)->Unit(benchmark::kMillisecond);

// The disk alone, of the add's size and with the default policy the add
// gives a LUN that names none, in the receiving target's namespace
// directory.
void BM_CreateVirtualDisk(benchmark::State& state) {
  namespace DiskLunApi = NokCtl::Storage::DiskLunApi;
  const Receiver* receiver = PrepareReceiver(state);
  if (receiver == nullptr) return;
  const std::string path = receiver->dir + "/bench-disk.qdsk";
  uint64_t sectors = 0;
  std::string policy;
  if (!Call(state, [&] {
        sectors = Util::GetLunSizeInSectors(kLunSize);
        policy = Util::GetDatastoreDefaultPolicy();
      })) {
    return;
  }
  for (auto _ : state) {
    if (!Call(state, [&] { DiskLunApi::CreateVirtualDisk(path, sectors, policy); })) return;
    state.PauseTiming();
    const bool undone = Call(state, [&] { DiskLunApi::RemoveVirtualDisk(path); });
    state.ResumeTiming();
    if (!undone) return;
  }
}
BENCHMARK(BM_CreateVirtualDisk)->Unit(benchmark::kMillisecond);

// The least a durable atomic save of the configuration the add works on can
// cost, on the same file system: write a temporary file beside it, fsync it,
// rename it into place, fsync the directory.
void BM_RawSaveFloor(benchmark::State& state) {
  zel::bench::MeasureRawSaveFloor(state, gBench.home->ConfPath(), gBench.confText);
}
BENCHMARK(BM_RawSaveFloor)->Unit(benchmark::kMillisecond);

// The LUNs of every target through the facade, as a caller listing the
// whole configuration asks for them, each answer a fresh vector; returns
// how many there were. With `fromFile` the cached configuration is dropped
// before each query, so that each reads and converts the file afresh (the
// facade subscribes the cache again on every call, so an unsubscribed cache
// would not stay so). Dropping the graph is counted: a re-read that finds it
// in place frees it instead.
size_t ListEveryTargetsLuns(bool fromFile) {
  size_t listed = 0;
  for (const std::string& alias : gBench.aliases) {
    if (fromFile) ConfigCache::CleanupCachedConfig();
    std::vector<LunInfo> luns;
    gBench.service->GetLuns(alias, luns, false);
    listed += luns.size();
  }
  return listed;
}

// Times ListEveryTargetsLuns, after a first listing that checks that the
// configuration is the largest one (and fills the cache).
void MeasureLunLists(benchmark::State& state, bool fromFile) {
  size_t listed = 0;
  if (!Call(state, [&] { listed = ListEveryTargetsLuns(fromFile); })) return;
  if (gBench.aliases.size() != kMaxTargets || listed != kLunLimit) {
    return Fail(state, "listed " + std::to_string(listed) + " LUNs of " +
                           std::to_string(gBench.aliases.size()) + " targets, not " +
                           std::to_string(kLunLimit) + " of " + std::to_string(kMaxTargets) +
                           " (gen_max_conf.py <file>)");
  }
  for (auto _ : state) {
    if (!Call(state, [&] { benchmark::DoNotOptimize(ListEveryTargetsLuns(fromFile)); })) return;
  }
}

void BM_GetLunsFromCleanCache(benchmark::State& state) {
  MeasureLunLists(state, false);
  // A notice during the run would have sent queries to the file.
  if (ConfigCache::IsZelConfDirty()) Fail(state, "the cache turned dirty");
}
BENCHMARK(BM_GetLunsFromCleanCache)->Unit(benchmark::kMicrosecond);

void BM_GetLunsFromFile(benchmark::State& state) { MeasureLunLists(state, true); }
BENCHMARK(BM_GetLunsFromFile)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

  zel::test::ServiceHome home;
  home.WriteConf(zel::bench::BenchConfText());
  home.InstallLocalServiceHost(zel::platform::LogLevel::Error);
  log_init(0);  // the benchmark measures work, not the reader's logging
  gBench.home = &home;
  gBench.confText = zel::test::ReadFile(home.ConfPath());
  gBench.service = zel::test::NewService();
  for (const TargetInfo& target : gBench.service->GetTargetsInternal()) {
    gBench.aliases.push_back(target.alias);
  }

  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  gBench.service.reset();
  return gFailed ? 1 : 0;
}
