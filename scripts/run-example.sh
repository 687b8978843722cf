#!/usr/bin/env bash
# Builds the runtime and starts a small system on this host: the controller, node 0x10F0 with the
# broker server, the R&D master and the system log collector (olm-controller), and two nodes, 0x1011
# and 0x1012, each running the example PingEu and NewsEu libraries. Each ping node pings the other
# every second and prints what it gets, stamped with the LTE time; every two seconds each publishes
# its news in the system zone and prints the news it receives, its own and the other node's,
# through the broker server; the controller prints the nodes' system log lines with their node id
# and LTE time, and nodes appearing and going. Ctrl-C stops them all. While it runs,
# build/native/Tools/Olmctl/olmctl looks at the nodes and changes their R&D parameters (olmctl
# nodes, olmctl top, olmctl rad get 0x1011 50).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup-debian.sh"
build_dir="$root/build/native"
"$root/scripts/build.sh" "$build_dir" >/dev/null

exe="$build_dir/Realtime/Executable/OLMLiteExe"
eu="$build_dir/examples/PingEu/libPingEu.so"
news_eu="$build_dir/examples/NewsEu/libNewsEu.so"
controller="$build_dir/Tools/Controller/olm-controller"
master=0x10F0
pids=()
stop() {
  trap - INT TERM EXIT
  kill "${pids[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  exit 0
}
trap stop INT TERM EXIT

start_node() {
  local nid=$1 peer=$2
  OLM_PING_PEER=$peer "$exe" --nid "$nid" --masternid $master --wait 1000 --load-local "$eu" --load-local "$news_eu" \
    > >(sed -u "s/^/$nid | /") 2>&1 &
  pids+=($!)
}
# The controller first: proxies announce themselves to the broker server at their start, and the
# nodes subscribe to the news as they start.
controller_log=$(mktemp)
OLM_BROKER_SERVER_VERBOSE=${OLM_BROKER_SERVER_VERBOSE:-0} "$controller" --nid $master \
  > >(tee "$controller_log" | sed -u "s/^/controller | /") 2>&1 &
pids+=($!)
for _ in $(seq 100); do
  grep -q "serving the system zone" "$controller_log" && break
  sleep 0.1
done
rm -f "$controller_log"
start_node 0x1011 0x1012
start_node 0x1012 0x1011
echo "Nodes 0x1011 and 0x1012 ping each other and exchange news through the broker server on 0x10F0;"
echo "the controller prints their system log. Ctrl-C stops them."
wait
