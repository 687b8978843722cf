#!/usr/bin/env bash
# Builds every libFuzzer target (the handlers of input that comes from other processes: the
# mailbox's lane reader, the Dispatcher's input path, the broker proxy) with clang, everything
# instrumented, and runs each for a while. A target starts from its committed seed corpus, the
# directory <target>_corpus beside its source, when it has one, else from nothing; what it finds
# goes to build/fuzz/corpus/<target>. A crash or a leak fails the run and leaves the input in
# build/fuzz/crashes/.
# Usage: scripts/fuzz.sh [seconds per target]   (default 60)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
build_dir=$root/build/fuzz
"$root/scripts/setup-debian.sh" clang libclang-rt-14-dev

cmake -S "$root" -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
  -DCMAKE_CXX_COMPILER=clang++ -DOLM_FUZZ=ON -DOLM_WERROR=ON -DOLM_BUILD_BENCH=OFF -DOLM_BUILD_EXAMPLES=OFF >/dev/null
fuzzers=$(find "$root" -name '*_fuzzer.cc' -not -path "$root/build/*" -printf '%f\n' | sed 's/\.cc$//' | sort)
cmake --build "$build_dir" -j"$(nproc)" --target $fuzzers
mkdir -p "$build_dir/crashes"
for fuzzer in $fuzzers; do
  program=$(find "$build_dir" -type f -name "$fuzzer" -perm -u+x | head -n 1)
  corpus=$build_dir/corpus/$fuzzer
  mkdir -p "$corpus"
  seeds=$(find "$root" -type d -name "${fuzzer}_corpus" -not -path "$root/build/*" | head -n 1)
  echo "=== fuzz: $fuzzer for $seconds s"
  "$program" -max_total_time="$seconds" -close_fd_mask=3 -artifact_prefix="$build_dir/crashes/$fuzzer-" \
    "$corpus" ${seeds:+"$seeds"} 2>&1 | tail -n 3
done
