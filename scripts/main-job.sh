#!/bin/sh
# The main job on the embedded default, in a fresh home: builds zel, checks
# and formats the sample configuration, then creates the service's
# namespace, enables the service (a real zeld starts), shows its status,
# lists the defaults and disables it again. Nothing outside the home is
# touched.
set -eu
cd "$(dirname "$0")/.."
sh scripts/build.sh
home=$(mktemp -d)
zelctl() { ./build/tools/zelctl --home "$home" "$@"; }
cleanup() {
  zelctl service disable >/dev/null 2>&1 || true
  rm -rf "$home"
}
trap cleanup EXIT

echo "== zelctl conf check / fmt samples/zel.conf"
zelctl conf check samples/zel.conf
zelctl conf fmt samples/zel.conf

echo "== zelctl host info"
zelctl host info
echo "== zelctl namespace create"
zelctl namespace create
zelctl namespace info
echo "== zelctl service enable"
zelctl service enable
zelctl service status
zelctl defaults get
zelctl target list
echo "== zelctl service disable"
zelctl service disable
zelctl service status
