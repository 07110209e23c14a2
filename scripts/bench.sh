#!/usr/bin/env bash
# Builds the benchmarks (optimised) and runs every one of them, printing their
# figures: ratios against a reference measured in the same run, and audio
# processed in times real time. Usage: scripts/bench.sh [build-dir] [extra benchmark flags...]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-bench}
shift $(( $# > 0 ? 1 : 0 ))

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVELTO_BUILD_BENCHMARKS=ON -DVELTO_BUILD_TESTS=OFF \
      -DVELTO_BUILD_CLI=OFF >/dev/null

targets=()
for source in "$root"/bench/*.cpp; do
  targets+=("velto_bench_$(basename "${source%.cpp}")")
done
cmake --build "$build" -j2 --target "${targets[@]}" >/dev/null

status=0
for target in "${targets[@]}"; do
  echo "== $target"
  "$build/bench/$target" --benchmark_counters_tabular=true "$@" 2>/dev/null || status=$?
  echo
done

cat <<'NOTE'
Reading the figures:
  vs_memcpy           ring buffer write+read time ÷ memcpy of the same bytes (lower is better; 1.0 = no overhead)
  x_realtime          seconds of audio processed per second of one core's CPU time
  oneshot_x_realtime  the same for libsoxr's own soxr_oneshot on that audio (filter set-up included)
  vs_oneshot          AudioConverter time ÷ soxr_oneshot time
  mixer target        BM_MixOneSecondDualSourceToFlac x_realtime >= 200
NOTE
exit $status
