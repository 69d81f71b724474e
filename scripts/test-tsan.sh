#!/bin/sh
# Builds zel with ThreadSanitizer into build-tsan/ and runs the concurrency
# tests there: both directories with their watcher threads and subscribers
# (etcd included), the membership lease, the
# configuration cache, concurrent editors and lock hand-overs, the
# namespace race, the store's and the membership's writers. Any report fails
# the run.
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build-tsan -DZEL_TSAN=ON -DZEL_BENCH=OFF >/dev/null
cmake --build build-tsan -j"$(nproc)"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ./build-tsan/tests/zel_tests \
  --gtest_filter='Directory*:Etcd*:MembershipLease*:ConfigCache*:EditConcurrency*:ConfLockHandover*:ConfFileTest*:LocalNamespaceRace*:LocalConfigStore*:LocalClusterMembership*:NicPublication*:ControlThread*'
