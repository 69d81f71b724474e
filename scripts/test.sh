#!/bin/sh
# Builds zel and runs every test.
set -eu
cd "$(dirname "$0")/.."
sh scripts/build.sh
ctest --test-dir build --output-on-failure -j"$(nproc)"
