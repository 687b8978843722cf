#!/usr/bin/env bash
# Cross-builds everything for the target (32-bit ARM Linux, armhf) with the host platform library,
# and runs the unit and integration tests under user-mode emulation (qemu-arm).
# Usage: scripts/test-armhf.sh [build-dir]   (default build/armhf)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build_dir=${1:-$root/build/armhf}

# The integration tests exec OLMLiteExe. Without binfmt_misc the machine runs it only when the build
# starts the nodes through a launcher that calls the emulator.
node_launcher=$build_dir/tests/integration/OLMLiteExe-emulated
starts_node_processes=(NodeStartup NodeMessaging NodeErrorHandling NodeMemoryTrace)

skip_pattern() {
  local IFS='|'
  echo "^($*)(\$|\\.)"
}

# The host platform keeps mailboxes, lock files and the emulated physical memory in /dev/shm, per
# user. Emulated nodes must not meet native ones there: a 32-bit process lays out its
# process-shared mutexes differently, and a node killed under emulation leaves its locks held for
# good. So the tests get a /dev/shm of their own where the machine allows a private mount.
run_with_private_shm() {
  local mount_shm='mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$@"'
  if unshare --mount --propagation private true 2>/dev/null; then
    unshare --mount --propagation private sh -c "$mount_shm" sh "$@"
  elif unshare --map-root-user --mount --propagation private true 2>/dev/null; then
    unshare --map-root-user --mount --propagation private sh -c "$mount_shm" sh "$@"
  else
    echo "armhf: no private /dev/shm here; the emulated nodes share it with any native ones"
    "$@"
  fi
}

"$root/scripts/setup-cross.sh" armhf "$build_dir"

echo "=== armhf: build"
# The counters come from the clock: qemu-arm refuses the generic timer's coprocessor reads.
"$root/scripts/build.sh" "$build_dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/armhf.cmake" -DOLM_WERROR=ON \
  -DOLM_HOST_PLATFORM=ON -DOLM_COUNTERS_FROM_CLOCK=ON -DOLM_BUILD_BENCH=OFF

echo "=== armhf: test under qemu-arm"
# Tests that need what emulation cannot give (a killed process's locks being released) skip
# themselves with a line saying why.
skipped=()
if [ ! -x "$node_launcher" ]; then
  skipped+=("${starts_node_processes[@]}")
  echo "armhf: skipped, this build starts the ARM node executable directly, which only the emulator can run: ${starts_node_processes[*]}"
fi
cd "$build_dir"
exclude=()
[ ${#skipped[@]} -eq 0 ] || exclude=(-E "$(skip_pattern "${skipped[@]}")")
status=0
run_with_private_shm ctest --output-on-failure -j2 --timeout 300 "${exclude[@]}" || status=$?
# Each skipped test says why; show those reasons.
awk '/: Skipped$/ { getline; print "armhf: skipped because " $0 }' Testing/Temporary/LastTest.log | sort | uniq -c
exit $status
