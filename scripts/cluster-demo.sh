#!/bin/sh
# Three hosts on one machine: three homes sharing one datastore directory and
# one directory database, each with its own agent (orvamgmtd, which runs the
# control thread), zeld, engine and loopback address (127.0.0.11 to .13).
# Six targets with a LUN each are created on the first host; balancing
# (greedy, every minute of 15-second passes, here shortened to 1-second
# passes) spreads them over the three; then the second host enters
# maintenance and its targets move to the others, where a real initiator
# reads each of them. Run as root after scripts/build.sh (ZEL_BUILD names
# another build directory); nothing outside the temporary homes is touched,
# and everything started is stopped by pid at the end.
#
# ZEL_DIRECTORY=etcd runs the same on an etcd directory instead of the shared
# database file: an etcd member on a free loopback port, with compaction on,
# that the three hosts name in host.json as hosts on several machines would.
set -eu
cd "$(dirname "$0")/.."
build=${ZEL_BUILD:-./build}/tools
directory=${ZEL_DIRECTORY:-sqlite}
root=$(mktemp -d)
port=3261
etcd_pid=

zelctl() { home=$1; shift; "$build/zelctl" --home "$root/$home" "$@"; }

stop_all() {
  for n in 1 2 3; do
    pid=$(cat "$root/host$n/run/orvamgmtd.pid" 2>/dev/null || true)
    [ -z "$pid" ] || kill -TERM "$pid" 2>/dev/null || true
  done
  sleep 1
  for n in 1 2 3; do zelctl "host$n" service disable >/dev/null 2>&1 || true; done
  [ -z "$etcd_pid" ] || { kill -TERM "$etcd_pid" 2>/dev/null || true; wait "$etcd_pid" 2>/dev/null || true; }
  rm -rf "$root"
}
trap stop_all EXIT

free_port() {
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

if [ "$directory" = etcd ]; then
  client=$(free_port)
  peer=$(free_port)
  echo "== an etcd member on 127.0.0.1:$client"
  etcd --name demo --data-dir "$root/etcd" \
    --listen-client-urls "http://127.0.0.1:$client" --advertise-client-urls "http://127.0.0.1:$client" \
    --listen-peer-urls "http://127.0.0.1:$peer" --initial-advertise-peer-urls "http://127.0.0.1:$peer" \
    --initial-cluster "demo=http://127.0.0.1:$peer" \
    --auto-compaction-mode periodic --auto-compaction-retention 1h \
    >"$root/etcd.log" 2>&1 &
  etcd_pid=$!
  tries=0
  until etcdctl --endpoints "http://127.0.0.1:$client" endpoint health >/dev/null 2>&1; do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || { echo "etcd did not start: see $root/etcd.log" >&2; exit 1; }
    sleep 0.1
  done
fi

for n in 1 2 3; do
  zelctl "host$n" host info >/dev/null
  python3 - "$root" "$n" "$directory" "${client:-}" <<'PY'
import json, sys
root, n, directory, client = sys.argv[1:5]
path = f"{root}/host{n}/host.json"
config = json.load(open(path))
config.update({"hostName": f"host{n}", "nics": {"zel0": {"ipv4": f"127.0.0.1{n}"}},
               "controlTickSeconds": 1})
if n != "1":
    config["datastorePath"] = f"{root}/host1/datastore"
if directory == "etcd":
    config["directory"] = {"backend": "etcd", "endpoints": [f"http://127.0.0.1:{client}"],
                           "prefix": "/zel/demo"}
elif n != "1":
    config["directory"] = {"path": f"{root}/host1/directory.db"}
json.dump(config, open(path, "w"), indent=2)
json.dump({"ORVA-iSCSI": {"zelNokNicCtlEnable": 1, "zelLoadBalanceMethod": 1,
                          "zelLoadBalancePeriod": 1}},
          open(f"{root}/host{n}/options.json", "w"))
PY
done

echo "== the namespace, created on host1 on interface zel0, port $port"
zelctl host1 namespace create --interface zel0 --port "$port"
for n in 1 2 3; do
  zelctl "host$n" service enable
  "$build/orvamgmtd" --home "$root/host$n"
done
zelctl host1 host list

echo "== six targets with a LUN each, all on host1"
for t in 1 2 3 4 5 6; do
  zelctl host1 target add --alias "t$t" >/dev/null
  zelctl host1 lun add --target "t$t" --size 64MiB >/dev/null
done
zelctl host1 host list
zelctl host1 placement plan

echo "== waiting for balancing (a period is 4 passes of 1 s here)"
tries=0
until zelctl host1 --json host list | python3 -c '
import json, sys
sys.exit(0 if all(h["targets"] == 2 for h in json.load(sys.stdin)) else 1)'; do
  tries=$((tries + 1))
  [ "$tries" -lt 60 ] || { echo "not balanced after 60 s" >&2; exit 1; }
  sleep 1
done
zelctl host1 host list

echo "== host2 enters maintenance: its targets move to host1 and host3"
started=$(date +%s%N)
zelctl host2 host maintenance enter
zelctl host1 host list
echo "== every target answers a real initiator at its new owner"
zelctl host1 --json target list | python3 -c '
import json, sys
for t in json.load(sys.stdin):
    print(t["iqn"], t["ownerHostUuid"])' | while read -r iqn owner; do
  n=$(zelctl host1 --json host list | python3 -c "
import json, sys
print(next(h['hostName'][-1] for h in json.load(sys.stdin) if h['hostUuid'] == '$owner'))")
  [ "$n" != 2 ] || { echo "$iqn is still on host2" >&2; exit 1; }
  # The new owner serves the LUN once the old one has let go of its disk.
  tries=0
  until size=$(iscsi-readcapacity16 -i iqn.2024-01.org.example:demo \
      "iscsi://127.0.0.1$n:$port/$iqn/1" 2>/dev/null | grep "Total size"); do
    tries=$((tries + 1))
    [ "$tries" -lt 100 ] || { echo "$iqn does not answer at host$n" >&2; exit 1; }
    sleep 0.1
  done
  echo "$iqn on host$n: $size"
done
echo "failover: $(( ($(date +%s%N) - started) / 1000000 )) ms from maintenance enter until every target answered at its new owner"
zelctl host2 host maintenance exit
echo "cluster demo done"
