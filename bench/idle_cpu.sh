#!/usr/bin/env bash
# CPU use of an idle node: OLMLiteExe --wait 0 whose only work is a periodic 1 ms LTE timer (the
# example PingEu ticking every millisecond towards a node that does not exist), all its threads
# counted. Prints "idle_node_cpu_percent <value>" over the measuring interval.
# Usage: bench/idle_cpu.sh [build dir] [seconds]   (default build/native, 10)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build/native}
seconds=${2:-10}
warm_up_seconds=2
export RHYDDAL_NAMESPACE=idle$$
node_pid=
cleanup() {
  if [ -n "$node_pid" ]; then
    kill -9 "$node_pid" 2>/dev/null || true
    wait "$node_pid" 2>/dev/null || true
  fi
  rm -f /dev/shm/rhyddal-"$(id -u)"-"$RHYDDAL_NAMESPACE"-*
}
trap cleanup EXIT

OLM_PING_PEER=0x2FFF OLM_PING_PERIOD_MS=1 "$build_dir/Realtime/Executable/OLMLiteExe" --nid 0x2000 --wait 0 \
  --load-local "$build_dir/examples/PingEu/libPingEu.so" >/dev/null 2>&1 &
node_pid=$!
sleep "$warm_up_seconds"

# utime + stime of the whole process, in clock ticks (fields 14 and 15 after the command name).
cpu_ticks() { awk '{ sub(/^.*\) /, ""); print $12 + $13 }' "/proc/$node_pid/stat"; }
start=$(cpu_ticks)
sleep "$seconds"
end=$(cpu_ticks)
awk -v used=$((end - start)) -v hz="$(getconf CLK_TCK)" -v s="$seconds" \
  'BEGIN { printf "idle_node_cpu_percent %.2f\n", 100 * used / hz / s }'
