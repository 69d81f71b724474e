#!/bin/sh
# The main job on the embedded default: builds zel, then checks and formats
# the sample configuration with zelctl in a fresh home.
set -eu
cd "$(dirname "$0")/.."
sh scripts/build.sh
home=$(mktemp -d)
trap 'rm -rf "$home"' EXIT
./build/tools/zelctl --home "$home" conf check samples/zel.conf
echo "samples/zel.conf: valid"
./build/tools/zelctl --home "$home" conf fmt samples/zel.conf
