#!/bin/sh
# Builds zel with AddressSanitizer and UndefinedBehaviorSanitizer into
# build-asan/ and runs every test there; any report fails the run. Warnings
# are the plain build's to catch: with the sanitizers GCC reports uninitialised
# values inside the standard library that are not there.
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-asan -DZEL_SANITIZE=ON -DZEL_BENCH=OFF >/dev/null
cmake --build build-asan -j"$(nproc)"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  LSAN_OPTIONS=suppressions="$PWD/scripts/lsan.supp" \
  ctest --test-dir build-asan --output-on-failure -j"$(nproc)"
