#!/usr/bin/env bash
# Installs the runtime into a scratch prefix, builds an EU project outside the tree against it, and
# runs the installed executable with that EU library.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
node_pid=
# The node's platform objects live in a namespace of this test's own (Platform/Host/README.md).
export RHYDDAL_NAMESPACE=install$$
# Its node directory and RAM file mount too.
export OLM_RAM_ROOT=$scratch/ram
cleanup() {
  [ -z "$node_pid" ] || { kill -9 "$node_pid" 2>/dev/null && wait "$node_pid" 2>/dev/null; } || true
  # A node killed outright leaves its RAM file mount behind (dead: a glob cannot even see it).
  awk -v area="$scratch/" 'index($5, area) == 1 { print $5 }' /proc/self/mountinfo | xargs -r umount -l || true
  rm -rf "$scratch" /dev/shm/rhyddal-"$(id -u)"-"$RHYDDAL_NAMESPACE"-*
}
trap cleanup EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir/ExternalEu" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null

nid=0x2000
expected="ExternalEu bound on node $nid, LTE time status 0"
# Frame arithmetic, CDMA time from the host's synchronisation object, atomics, spin lock, FIFO,
# bitset and hex dump, all through the installed headers.
expected_utilities="ExternalEu utilities: next (0,0,0), CDMA status 0 sync mode 1, counter 42, id 100, bit 65, dump 4555"
"$scratch/prefix/bin/OLMLiteExe" --nid "$nid" --wait 0 --load-local "$scratch/build/libExternalEu.so" \
  >"$scratch/output" 2>&1 &
node_pid=$!
# The node says when its EU is bound, then what the utilities gave; a generous 20 s on a loaded
# machine.
for _ in $(seq 400); do
  grep -q "ExternalEu utilities" "$scratch/output" && break
  kill -0 "$node_pid" 2>/dev/null || break
  sleep 0.05
done
output=$(cat "$scratch/output")
if grep -q "$expected" <<<"$output" && grep -qF "$expected_utilities" <<<"$output"; then
  echo "external EU built and ran against the installed runtime:"; grep ExternalEu <<<"$output"
else
  echo "unexpected output of the installed node:"; echo "$output"; exit 1
fi
