#!/usr/bin/env bash
# Builds the runtime and starts a small system on two hosts made on this machine: host A and host B,
# each a network namespace with a /dev/shm of its own, joined by a virtual Ethernet link
# (10.87.0.1 and 10.87.0.2), with one node map placing node ids 0x1000-0x1fff on A and
# 0x2000-0x2fff on B. Host A runs the controller (olm-controller: node 0x10F0 with the broker
# server, the R&D master and the system log collector) and node 0x1011; host B the agent of its
# host (olm-controller --agent, node 0x20F0), which passes its nodes' log lines on to the
# controller, and node 0x2011. 0x1011 and 0x2011 run the example PingEu and NewsEu libraries: they
# ping each other across the link every second, and publish their news through the broker server
# on A. Ctrl-C stops everything and removes the hosts. Needs root (namespaces, links). While it
# runs,
#   <run dir>/on-a build/native/Tools/Olmctl/olmctl nodes
# runs olmctl on host A (the script prints the run directory), on-b on host B.
# Usage: sudo scripts/run-two-hosts.sh [--keys]   (--keys: CURVE links, a key pair per host)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
if [ "$(id -u)" -ne 0 ]; then
  echo "run-two-hosts: making network namespaces and links needs root: sudo $0 $*" >&2
  exit 2
fi
keys=no
case "${1:-}" in
  --keys) keys=yes ;;
  "") ;;
  *) echo "Usage: $0 [--keys]" >&2; exit 2 ;;
esac
"$root/scripts/setup-debian.sh"
build_dir="$root/build/native"
"$root/scripts/build.sh" "$build_dir" >/dev/null

exe="$build_dir/Realtime/Executable/OLMLiteExe"
ping_eu="$build_dir/examples/PingEu/libPingEu.so"
news_eu="$build_dir/examples/NewsEu/libNewsEu.so"
controller="$build_dir/Tools/Controller/olm-controller"
keygen="$build_dir/Platform/Host/rhyddal-keygen"
master=0x10F0
address_a=10.87.0.1
address_b=10.87.0.2
port=5601
run_dir=$(mktemp -d /tmp/olm-two-hosts-XXXXXX)
keepers=()
pids=()

stop() {
  # A second Ctrl-C (or a signal a stopping node sends its process group) must not cut the cleanup short.
  trap '' INT TERM
  trap - EXIT
  kill "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  # A host's namespaces, and the link with them, go with its keeper.
  kill "${keepers[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$run_dir"
  exit 0
}
trap stop INT TERM EXIT

# A host: a process holding a network and a mount namespace with its own /dev/shm, and a command
# that runs a program there ("$run_dir/on-<name> program args...").
make_host() {
  local name=$1 ready="$run_dir/$1.ready"
  unshare --net --mount --propagation private sh -c \
    "mount -t tmpfs -o mode=1777 tmpfs /dev/shm && ip link set lo up && touch '$ready' && exec sleep infinity" &
  keepers+=($!)
  for _ in $(seq 100); do
    [ -e "$ready" ] && break
    sleep 0.05
  done
  [ -e "$ready" ] || { echo "run-two-hosts: host $name did not come up" >&2; exit 1; }
  cat > "$run_dir/on-$name" <<EOF
#!/bin/sh
exec nsenter --target $! --net --mount --wd="\$PWD" env RHYDDAL_NODE_MAP="$run_dir/map-$name" "\$@"
EOF
  chmod +x "$run_dir/on-$name"
}

make_host a
make_host b
keeper_a=${keepers[0]}
keeper_b=${keepers[1]}
ip link add olm-a type veth peer name olm-b
ip link set olm-a netns "$keeper_a"
ip link set olm-b netns "$keeper_b"
nsenter --target "$keeper_a" --net ip address add $address_a/24 dev olm-a
nsenter --target "$keeper_b" --net ip address add $address_b/24 dev olm-b
nsenter --target "$keeper_a" --net ip link set olm-a up
nsenter --target "$keeper_b" --net ip link set olm-b up

# One map for both hosts; with --keys each host's copy also holds its own secret key.
key_a=() key_b=()
if [ $keys = yes ]; then
  mapfile -t key_a < <("$keygen" | grep -v '^#')
  mapfile -t key_b < <("$keygen" | grep -v '^#')
fi
for host in a b; do
  {
    echo "# node ids      endpoint                 public key"
    echo "0x1000-0x1fff   tcp://$address_a:$port   ${key_a[0]:-}"
    echo "0x2000-0x2fff   tcp://$address_b:$port   ${key_b[0]:-}"
    if [ $keys = yes ]; then
      if [ $host = a ]; then echo "${key_a[1]}"; else echo "${key_b[1]}"; fi
    fi
  } > "$run_dir/map-$host"
  chmod 600 "$run_dir/map-$host"
done

# start_node <host> <nid> <ping peer> <options...>: a node on that host, its lines marked with both.
start_node() {
  local host=$1 nid=$2 peer=$3
  shift 3
  "$run_dir/on-$host" env OLM_PING_PEER="$peer" "$exe" --nid "$nid" --masternid $master --wait 1000 "$@" \
    > >(sed -u "s/^/${host^^} $nid | /") 2>&1 &
  pids+=($!)
}

# run_in <host> <name> <log file> <command...>: a program on that host, its lines marked.
run_in() {
  local host=$1 name=$2 log=$3
  shift 3
  "$run_dir/on-$host" "$@" > >(tee "$log" | sed -u "s/^/${host^^} $name | /") 2>&1 &
  pids+=($!)
}

wait_for_line() {
  for _ in $(seq 100); do
    grep -qs "$2" "$1" && return 0
    sleep 0.1
  done
}

# The controller first: the broker server and the R&D master learn of nodes on other hosts only
# when these announce themselves, as they start.
run_in a controller "$run_dir/controller.log" "$controller" --nid $master
wait_for_line "$run_dir/controller.log" "serving the system zone"
run_in b agent "$run_dir/agent.log" "$controller" --agent --nid 0x20F0 --master $master
wait_for_line "$run_dir/agent.log" "for the controller"
start_node a 0x1011 0x2011 --load-local "$ping_eu" --load-local "$news_eu"
start_node b 0x2011 0x1011 --load-local "$ping_eu" --load-local "$news_eu"
echo "Host A ($address_a) runs the controller 0x10F0 and node 0x1011, host B ($address_b) its agent 0x20F0"
echo "and node 0x2011; 0x1011 and 0x2011 ping each other across the link. $run_dir/on-a runs a"
echo "program on host A (on-b on B). Ctrl-C stops them."
wait "${pids[@]}"
