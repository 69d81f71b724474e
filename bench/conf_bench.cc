// Reading and saving the largest admitted zel.conf, next to the raw floor of
// a durable save of the same bytes measured in the same run. The file comes
// from gen_max_conf.py through ZEL_BENCH_CONF (bench/run.sh sets it).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "BenchSupport.h"
#include "conf/ConfHandle.h"
#include "edit/Parser.h"
#include "platform/Host.h"
#include "storage/DatastoreLayout.h"

namespace {

using NokCtl::Orva::IscsiTarget::ConfHandle;

// A home of its own holding the maximum configuration as zel.conf.
class BenchHome {
 public:
  BenchHome() {
    char pattern[] = "/tmp/zel-bench-XXXXXX";
    home_ = mkdtemp(pattern);
    zel::platform::SelectHost(zel::platform::NewLocalHost(
        zel::platform::EmbeddedHostConfig(home_), zel::platform::LogLevel::Error));
    NokCtl::Orva::IscsiTarget::Parser::InitZelParserLib();
    log_init(0);  // the benchmark measures work, not logging
    text_ = zel::bench::BenchConfText();
    const std::string conf = NokCtl::Orva::IscsiTarget::Util::GetConfFilePath();
    std::filesystem::create_directories(std::filesystem::path(conf).parent_path());
    std::ofstream(conf) << text_;
  }
  ~BenchHome() { std::filesystem::remove_all(home_); }
  const std::string& Text() const { return text_; }
  std::string Dir() const { return NokCtl::Orva::IscsiTarget::Util::GetConfDirPath(); }

 private:
  std::string home_;
  std::string text_;
};

BenchHome& Home() {
  static BenchHome home;
  return home;
}

void BM_ReadAndVerifyMaxConf(benchmark::State& state) {
  Home();
  for (auto _ : state) {
    ConfHandle handle(ConfHandle::kShareMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
    benchmark::DoNotOptimize(handle.conf);
  }
}
BENCHMARK(BM_ReadAndVerifyMaxConf)->Unit(benchmark::kMillisecond);

void BM_SaveMaxConf(benchmark::State& state) {
  Home();
  ConfHandle handle(ConfHandle::kExclusiveMode, NokCtl::Orva::IscsiTarget::Util::GetConfFilePath());
  for (auto _ : state) benchmark::DoNotOptimize(handle.WriteConfFile());
}
BENCHMARK(BM_SaveMaxConf)->Unit(benchmark::kMillisecond);

// The least a durable atomic save of these bytes can cost: write a temporary
// file, fsync it, rename it into place, fsync the directory.
void BM_RawSaveFloor(benchmark::State& state) {
  zel::bench::MeasureRawSaveFloor(state, Home().Dir() + "/zel.conf", Home().Text());
}
BENCHMARK(BM_RawSaveFloor)->Unit(benchmark::kMillisecond);

// A file that is one long alias: reading must cost its length, not its
// square (bench/run.sh compares 8 MiB with 1 MiB, per byte).
void BM_ReadOneLongToken(benchmark::State& state) {
  const std::string path = Home().Dir() + "/long-token.conf";
  std::ofstream(path) << "generation 1\ntarget iqn.2026-11.org.example:long {\n\talias \""
                      << std::string(static_cast<size_t>(state.range(0)), 'a') << "\"\n}\n";
  for (auto _ : state) {
    ConfHandle handle(ConfHandle::kShareMode, path);
    benchmark::DoNotOptimize(handle.conf);
  }
  std::filesystem::remove(path);
}
BENCHMARK(BM_ReadOneLongToken)->Arg(1 << 20)->Arg(8 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
