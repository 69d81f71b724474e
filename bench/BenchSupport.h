// What the benchmarks share: the configuration they measure and the floor
// that every durable save of it is compared with.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

namespace zel {
namespace bench {

// The text of the file ZEL_BENCH_CONF names (bench/run.sh writes it with
// gen_max_conf.py); throws when the variable is not set.
std::string BenchConfText();

// Times, per iteration of `state`, the least a durable save of `text` as
// the file `saved` costs, in its directory: a temporary file written and
// synced, renamed over the target, and the directory synced. Leaves no file
// behind and `saved` untouched.
void MeasureRawSaveFloor(benchmark::State& state, const std::string& saved,
                         const std::string& text);

}  // namespace bench
}  // namespace zel
