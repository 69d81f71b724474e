#!/bin/sh
# Builds the reader's fuzz target with clang and runs it for SECONDS
# (default 600) on a copy of the seed corpus, so that the inputs it finds
# stay out of the repository (fuzz/corpus-run/ is ignored). Findings are
# written to fuzz/corpus-run/findings/.
set -eu
seconds=${1:-600}
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build-fuzz"
run="$root/fuzz/corpus-run"

CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DZEL_FUZZ=ON -DZEL_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target reader_fuzzer

mkdir -p "$run/corpus" "$run/findings"
cp -n "$root"/fuzz/corpus/* "$run/corpus/"
# Lines that a refused file logs are dropped by the fuzzer's host; its own
# progress report goes to fuzz/corpus-run/fuzz.log.
"$build/fuzz/reader_fuzzer" -max_total_time="$seconds" -max_len=8192 -timeout=10 \
  -dict="$root/fuzz/reader.dict" \
  -artifact_prefix="$run/findings/" -print_final_stats=1 "$run/corpus" \
  2>&1 | tee "$run/fuzz.log" | grep -E '^(#[0-9]+[[:space:]]+DONE|Done|stat::|==[0-9]+==|SUMMARY)' || true
# libFuzzer's exit status is lost in the pipe; a finding leaves a file.
if [ -n "$(ls -A "$run/findings")" ]; then
  echo "findings in $run/findings:" && ls "$run/findings"
  exit 1
fi
