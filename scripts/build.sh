#!/bin/sh
# Configures and builds zel into build/ (warnings are errors).
set -eu
cd "$(dirname "$0")/.."
cmake -S . -B build -DZEL_WERROR=ON "$@" >/dev/null
cmake --build build -j"$(nproc)"
