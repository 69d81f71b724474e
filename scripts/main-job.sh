#!/bin/sh
# The main job on the embedded default, in a fresh home: builds zel, checks
# and formats the sample configuration, then creates the service's
# namespace, enables the service (a real zeld starts), shows its status and
# defaults, groups initiators, creates a CHAP target with an initiator ACL,
# shows it as a table and as JSON, adds a LUN to it and shows it, lets a real
# initiator (libiscsi) discover the target, log in with CHAP, read the LUN's
# capacity and write and read back a block, grows the LUN offline and
# removes it, changes and removes the target, and disables the service
# again. The target is served on 127.0.0.1; nothing outside the home is
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
echo "== a real initiator: discovery, CHAP login, capacity, a block written and read back"
iqn=$(zelctl --json target get orders | python3 -c 'import json, sys; print(json.load(sys.stdin)["iqn"])')
initiator=iqn.2024-01.org.example:db1
# The CHAP secret goes through the environment, never a command line.
export LIBISCSI_CHAP_USERNAME=orders-user LIBISCSI_CHAP_PASSWORD='Orders#Secret1'
tries=0
until iscsi-ls -s -i "$initiator" iscsi://127.0.0.1:3260 | grep -q "$iqn"; do
  tries=$((tries + 1))
  [ "$tries" -lt 100 ] || { echo "the target is not served" >&2; exit 1; }
  sleep 0.1
done
iscsi-ls -s -i "$initiator" iscsi://127.0.0.1:3260
iscsi-readcapacity16 -i "$initiator" "iscsi://127.0.0.1:3260/$iqn/1"
ZEL_ISCSI_CHAP_SECRET=$LIBISCSI_CHAP_PASSWORD ./build/tests/zel_iscsi_probe \
  --portal 127.0.0.1:3260 --target "$iqn" --lun 1 --initiator "$initiator" \
  --chap-user orders-user --write-check 8
unset LIBISCSI_CHAP_USERNAME LIBISCSI_CHAP_PASSWORD
zelctl service status
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
