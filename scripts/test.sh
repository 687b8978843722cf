#!/usr/bin/env bash
# Builds and runs every test: the native build, the sanitizer builds (address + undefined, and
# thread), the libFuzzer targets for a while each, the aarch64 build (compiled only) and the 32-bit
# ARM build, whose tests run under qemu-arm.
# Usage: scripts/test.sh            (build trees under ./build)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/setup-debian.sh"

run_suite() {
  local name=$1
  shift
  local build_dir="$root/build/$name"
  echo "=== $name: build"
  "$root/scripts/build.sh" "$build_dir" "$@"
  echo "=== $name: test"
  (cd "$build_dir" && ctest --output-on-failure -j2 --timeout 300)
}

run_suite native -DOLM_WERROR=ON
run_suite sanitize -DOLM_WERROR=ON -DOLM_SANITIZE=ON -DOLM_BUILD_BENCH=OFF -DOLM_BUILD_EXAMPLES=ON
run_suite tsan -DOLM_WERROR=ON -DOLM_THREAD_SANITIZER=ON -DOLM_BUILD_BENCH=OFF -DOLM_BUILD_EXAMPLES=ON
"$root/scripts/fuzz.sh" "${OLM_FUZZ_SECONDS:-30}"
"$root/scripts/build-aarch64.sh" "$root/build/aarch64"
"$root/scripts/test-armhf.sh" "$root/build/armhf"
