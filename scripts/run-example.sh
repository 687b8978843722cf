#!/usr/bin/env bash
# Builds the runtime and starts a small system on this host: two nodes, 0x1011 and 0x1012, each
# running the example PingEu library, and their group's system log collector, node 0x101D. Each
# ping node pings the other every second and prints what it gets, stamped with the LTE time; the
# collector prints the nodes' system log lines. Ctrl-C stops them all.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup-debian.sh"
build_dir="$root/build/native"
"$root/scripts/build.sh" "$build_dir" >/dev/null

exe="$build_dir/Realtime/Executable/OLMLiteExe"
eu="$build_dir/examples/PingEu/libPingEu.so"
log_eu="$build_dir/examples/SysLogPrinterEu/libSysLogPrinterEu.so"
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
  OLM_PING_PEER=$peer "$exe" --nid "$nid" --wait 1000 --load-local "$eu" > >(sed -u "s/^/$nid | /") 2>&1 &
  pids+=($!)
}
"$exe" --nid 0x101D --wait 1000 --load-local "$log_eu" > >(sed -u "s/^/0x101D | /") 2>&1 &
pids+=($!)
start_node 0x1011 0x1012
start_node 0x1012 0x1011
echo "Nodes 0x1011 and 0x1012 ping each other; 0x101D collects their system log. Ctrl-C stops them."
wait
