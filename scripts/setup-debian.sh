#!/bin/sh
# Installs every Debian 12 package that zel's build, tests, fuzzing and
# benchmarks need. Safe to run again: apt-get skips what is present.
set -eu
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends \
  build-essential cmake pkg-config \
  bison flex \
  libboost-thread-dev libboost-system-dev libboost-chrono-dev \
  libboost-regex-dev libboost-filesystem-dev \
  libsqlite3-dev libsodium-dev \
  nlohmann-json3-dev libcli11-dev \
  libgtest-dev libgmock-dev libbenchmark-dev \
  clang libclang-rt-14-dev \
  tgt libiscsi-bin libiscsi-dev \
  python3 >/dev/null
