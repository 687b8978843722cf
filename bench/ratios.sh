#!/usr/bin/env bash
# Runs the benchmarks back to back and ends with one line per ratio, "name value":
#   stream_over_local_reply      NodeStream's one-way messages per second over LocalPingPong Reply's
#                                messages per second (target >= 0.5)
#   rtt_p50_over_bare_apart      node round trip p50 over the bare futex ring's, the two processes
#                                of each pinned to CPUs 0 and 1, the nodes parking at once as the
#                                bare ring does (RHYDDAL_SPIN_US=0) (target <= 1.2)
#   rtt_p50_over_bare_same_cpu   the same with both processes of each pair on CPU 0 (target <= 1.2)
#   rtt_p50_spinning_over_busy_ring  node round trip p50 with the nodes spinning before they park
#                                (the default after traffic) over a bare busy-polling ring's, apart
#                                (aim <= 3)
#   timer_p50_over_timerfd       a 1 ms LTE timer's lateness p50 on an idle node over a bare
#                                timerfd loop's, the two alternating on one thread (target <= 1.1)
#   history_record_over_bare     time of one history-log record (the operation trace's) over a bare
#                                88-byte record's with the same time read (target <= 1.3)
#   history_record_over_spdlog   the same record's time over a synchronous spdlog call's with a null
#                                sink (target <= 0.33; needs libspdlog-dev at configuration)
#   traced_over_untraced         time per message of LocalPingPong Reply with --verbose into the
#                                history log over the untraced path's (target <= 2)
#   printed_over_traced          the same with the trace printed (--verbose --nohistory, to
#                                /dev/null) over tracing into the history log (target >= 5)
#   filter_miss_over_noop_log    one traced operation with the message filter log in mode 2 and the
#                                message's id not listed, over the same with a filter log that does
#                                nothing (target: close to 1 or below)
#   xhost_rtt_p50_over_bare_zmq  round trip p50 of 64-byte messages between nodes on two hosts
#                                through the bridges over TCP on loopback, over a bare libzmq ROUTER
#                                pair's, each pair's two sides on CPUs 0 and 1 (target <= 1.3)
#   xhost_stream_over_bare_zmq   one-way messages per second between the same nodes over the bare
#                                pair's, both with the receiver granting credit (target >= 0.5)
# and, as context for the figures between processes, cross_cpu_line_transfer_ns_first and _last:
# the time one cache line takes to move between CPUs 0 and 1, before and after the rest (on a
# virtual machine it follows where the host places the virtual CPUs, and it moves the stream and
# spinning figures with it).
# Figures are medians of repetitions. Usage: bench/ratios.sh [build dir]   (default build/native;
# build it as RelWithDebInfo or Release).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bench_dir=${1:-$root/build/native}/bench
repetitions=${OLM_BENCH_REPETITIONS:-5}
results=$(mktemp)
trap 'rm -f "$results"' EXIT

# Appends "<label> <benchmark> <counter> <median>" for the counters the ratios use.
# Usage: run <label> <placement: apart|same> <program> <benchmark filter>
run() {
  local label=$1 placement=$2 program=$3 filter=$4
  echo "=== $program ($filter, placement ${placement}${RHYDDAL_SPIN_US:+, spin ${RHYDDAL_SPIN_US} us})" >&2
  OLM_BENCH_PLACEMENT=$placement "$bench_dir/$program" --benchmark_filter="$filter" \
    --benchmark_repetitions="$repetitions" --benchmark_report_aggregates_only=true \
    --benchmark_format=json 2>/dev/null |
    awk -v label="$label" '
      /"name":/ { name = $2; gsub(/[",]/, "", name) }
      /"(items_per_second|p50_us|one_way_msgs_per_s|node_p50_us|timerfd_p50_us|one_way_ns)":/ {
        key = $1; gsub(/[":]/, "", key); value = $2; gsub(/,/, "", value)
        if (name ~ /_median$/) { benchmark = name; sub(/_median$/, "", benchmark); print label, benchmark, key, value }
      }' | tee -a "$results" >&2
}

run first apart CrossCpu_benchmark 'CacheLineHandOff'
run apart apart LocalPingPong_benchmark 'LocalPingPong/Reply'
run apart apart NodePingPong_benchmark 'NodeStream|BareRingRoundTripPolling'
RHYDDAL_SPIN_US=0 run apart-parking apart NodePingPong_benchmark 'NodeRoundTrip|BareRingRoundTrip/'
RHYDDAL_SPIN_US=0 run same-parking same NodePingPong_benchmark 'NodeRoundTrip|BareRingRoundTrip/'
run apart-spinning apart NodePingPong_benchmark 'NodeRoundTrip'
run same same TimerLateness_benchmark '.'
run same same HistoryLog_benchmark '.'
run same same MsgFilterLog_benchmark 'BM_FilterLog/'
run xhost apart CrossHost_benchmark '.'
run last apart CrossCpu_benchmark 'CacheLineHandOff'

value() { awk -v p="$1" -v b="$2" -v k="$3" '$1 == p && ($2 == b || index($2, b "/") == 1) && $3 == k { print $4; exit }' "$results"; }
ratio() {
  local name=$1 numerator=$2 denominator=$3
  if [ -z "$numerator" ] || [ -z "$denominator" ]; then echo "$name missing"; return; fi
  awk -v n="$numerator" -v d="$denominator" -v name="$name" 'BEGIN { printf "%s %.3f\n", name, n / d }'
}
figure() {
  local name=$1 measured=$2
  if [ -z "$measured" ]; then echo "$name missing"; return; fi
  awk -v v="$measured" -v name="$name" 'BEGIN { printf "%s %.1f\n", name, v }'
}

echo
ratio stream_over_local_reply "$(value apart BM_NodeStream one_way_msgs_per_s)" \
  "$(value apart BM_LocalPingPong/Reply items_per_second)"
ratio rtt_p50_over_bare_apart "$(value apart-parking BM_NodeRoundTrip p50_us)" \
  "$(value apart-parking BM_BareRingRoundTrip p50_us)"
ratio rtt_p50_over_bare_same_cpu "$(value same-parking BM_NodeRoundTrip p50_us)" \
  "$(value same-parking BM_BareRingRoundTrip p50_us)"
ratio rtt_p50_spinning_over_busy_ring "$(value apart-spinning BM_NodeRoundTrip p50_us)" \
  "$(value apart BM_BareRingRoundTripPolling p50_us)"
ratio timer_p50_over_timerfd "$(value same BM_TimerLateness node_p50_us)" "$(value same BM_TimerLateness timerfd_p50_us)"
# Ratios of times, from rates: the denominator's rate over the numerator's.
ratio history_record_over_bare "$(value same BM_BareRecord/Clock items_per_second)" \
  "$(value same BM_HistoryMessage/Clock items_per_second)"
ratio history_record_over_spdlog "$(value same BM_SpdlogNullSink items_per_second)" \
  "$(value same BM_HistoryMessage/Clock items_per_second)"
ratio traced_over_untraced "$(value apart BM_LocalPingPong/Reply items_per_second)" \
  "$(value apart BM_LocalPingPong/ReplyTracedToHistory items_per_second)"
ratio printed_over_traced "$(value apart BM_LocalPingPong/ReplyTracedToHistory items_per_second)" \
  "$(value apart BM_LocalPingPong/ReplyTracedToPrint items_per_second)"
ratio filter_miss_over_noop_log "$(value same BM_FilterLog/NoOpLog items_per_second)" \
  "$(value same BM_FilterLog/NotListed items_per_second)"
ratio xhost_rtt_p50_over_bare_zmq "$(value xhost BM_CrossHostRoundTrip p50_us)" "$(value xhost BM_BareZmqRoundTrip p50_us)"
ratio xhost_stream_over_bare_zmq "$(value xhost BM_CrossHostStream one_way_msgs_per_s)" \
  "$(value xhost BM_BareZmqStream one_way_msgs_per_s)"
figure cross_cpu_line_transfer_ns_first "$(value first BM_CacheLineHandOff one_way_ns)"
figure cross_cpu_line_transfer_ns_last "$(value last BM_CacheLineHandOff one_way_ns)"
