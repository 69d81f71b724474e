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
  libcurl4-openssl-dev etcd-server etcd-client \
  python3 >/dev/null
# The package's own tgtd service, where systemd started it, listens on every
# address at port 3260; each zel host runs the engines it needs itself (one
# per portal), so the distribution's service is stopped and left disabled.
if command -v systemctl >/dev/null 2>&1 && systemctl list-unit-files tgt.service >/dev/null 2>&1; then
  systemctl disable --now tgt.service >/dev/null 2>&1 || true
fi
# The same for etcd: clusters of several machines run their own etcd cluster
# (README "Several machines"), and the tests start members of their own on
# loopback ports, so the package's default member is not left running.
if command -v systemctl >/dev/null 2>&1 && systemctl list-unit-files etcd.service >/dev/null 2>&1; then
  systemctl disable --now etcd.service >/dev/null 2>&1 || true
fi
