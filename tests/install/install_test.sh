#!/usr/bin/env bash
# Installs the runtime into a scratch prefix, builds an EU project outside the tree against it, and
# runs the installed executable with that EU library.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir/ExternalEu" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null

nid=$(printf '0x%04x' $(( 0x6000 + ($$ & 0xFFF) )))
output=$(timeout 3 "$scratch/prefix/bin/OLMLiteExe" --nid "$nid" --wait 0 \
           --load-local "$scratch/build/libExternalEu.so" 2>&1 || true)
if grep -q "ExternalEu bound on node $nid, LTE time status 0" <<<"$output"; then
  echo "external EU built and ran against the installed runtime"
else
  echo "unexpected output of the installed node:"; echo "$output"; exit 1
fi
