#!/usr/bin/env bash
# Clock drift, at length: the targets the test suite only guards.
#   1. the mixer simulation of an eight-hour recording, microphone +500 ppm and
#      system audio -500 ppm, on the injected clock (some 20 s; the test suite runs
#      it too, in its plain build);
#   2. on the sandbox, a microphone SKEW ppm off the system clock for each SKEW in
#      200 -200 1000 -1000 2000 -2000 (echo cancellation off and on in turn), recorded
#      for SECONDS (default 600), judged against the targets (after 10 s: each track's
#      marks and the offset between the tracks move less than 1 ms) and printing the
#      figures of each run.
#   scripts/drill-drift.sh [SECONDS]
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-600}
build="$root/build-drill-drift"
bash "$root/scripts/setup.sh" >/dev/null
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2 --target velto velto_measure_marks velto_signal_tests >/dev/null || exit 1

echo "== eight hours at +500/-500 ppm, simulated"
start=$(date +%s)
"$build/tests/velto_signal_tests" --gtest_filter='*EightHours*' 2>&1 |
    grep -E '^\[ +(OK|FAILED) +\]|Failure|Expected|actual|Clock drift'
echo "($(($(date +%s) - start)) s)"

status=0
for run in 200:off -200:on 1000:off -1000:on 2000:off -2000:on; do
    echo "== microphone ${run%:*} ppm, echo cancellation ${run#*:}, $seconds s on the sandbox"
    VELTO_DRIFT_RUNS=$run VELTO_DRIFT_SECONDS=$seconds VELTO_DRIFT_GRID_MS=1 VELTO_DRIFT_OFFSET_MS=1 \
        bash "$root/tests/cli/sandbox-drift.sh" "$build/cli/velto" "$build/tests/velto_measure_marks" "$root" || status=1
done
exit $status
