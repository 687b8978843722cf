#!/usr/bin/env bash
# Configures and builds one build tree: scripts/build.sh <build-dir> [cmake options...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=$1
shift
cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$build_dir" -j"$(nproc)"
