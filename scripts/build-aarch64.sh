#!/usr/bin/env bash
# Cross-compiles the runtime, the host platform library, the executable and the examples for
# 64-bit ARM Linux (aarch64) with the generic timer's register reads: proof that everything builds
# with 64-bit pointers on ARM. Nothing is run.
# Usage: scripts/build-aarch64.sh [build-dir]   (default build/aarch64)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build/aarch64}

"$root/scripts/setup-cross.sh" arm64 "$build_dir"

echo "=== aarch64: build"
"$root/scripts/build.sh" "$build_dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/aarch64.cmake" -DOLM_WERROR=ON \
  -DOLM_BUILD_TESTS=OFF -DOLM_BUILD_BENCH=OFF
