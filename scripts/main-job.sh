#!/bin/sh
# The main job on the embedded default, in a fresh home: builds zel, checks
# and formats the sample configuration, then creates the service's
# namespace, enables the service (a real zeld starts), shows its status and
# defaults, groups initiators, creates a CHAP target with an initiator ACL,
# shows it as a table and as JSON, adds a LUN to it, shows the LUN, grows it
# offline and removes it, changes and removes the target, and disables the
# service again. Nothing outside the home is touched.
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
echo "== zelctl initiator-group add / add-initiators"
zelctl initiator-group add db-hosts
zelctl initiator-group add-initiators db-hosts iqn.2024-01.org.example:db1 \
  iqn.2024-01.org.example:db2
zelctl initiator-group list
echo "== zelctl target add (CHAP secret from stdin, initiator ACL)"
echo 'Orders#Secret1' | zelctl target add --alias orders --auth-type CHAP \
  --userid orders-user --secret - --initiator db-hosts \
  --initiator iqn.2024-01.org.example:backup1
zelctl target list
zelctl --json target get orders
echo "== zelctl lun add / list / update (grow offline) / remove"
zelctl lun add --target orders --size 1GiB --alias ledger
zelctl lun list --target orders
zelctl lun update --target orders --id 0 --status offline
zelctl lun update --target orders --id 0 --size 2GiB
zelctl --json lun get --target orders --id 0
zelctl lun remove --target orders --id 0
echo "== zelctl target update / remove"
zelctl target update orders --new-alias orders-eu \
  --remove-initiator iqn.2024-01.org.example:backup1
zelctl target get orders-eu
zelctl target remove orders-eu
zelctl initiator-group remove db-hosts --force
zelctl target list
echo "== zelctl service disable"
zelctl service disable
zelctl service status
