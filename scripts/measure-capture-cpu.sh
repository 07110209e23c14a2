#!/usr/bin/env bash
# Measures what capturing costs: records the microphone and the system audio together
# for a while (default 60 s) while tones play into both, and reports the CPU seconds the
# capturing process and the sound server spent per captured second.
#
#   measure-capture-cpu.sh [seconds] [build-directory]
#
# Uses the running sound server when PULSE_SERVER points at one with the sandbox's
# devices; otherwise starts the sound sandbox for the run and stops it afterwards.
set -euo pipefail

seconds="${1:-60}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${2:-$root/build-measure}"
[[ "$build" = /* ]] || build="$PWD/$build"
program="$build/tests/e2e/velto_e2e_capture_cpu_soak"

if [[ ! -x "$program" ]]; then
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_BENCHMARKS=OFF \
        -DVELTO_BUILD_CLI=OFF >/dev/null
    cmake --build "$build" -j2 --target velto_e2e_capture_cpu_soak >/dev/null
fi

started_sandbox=0
if ! { [[ -n "${PULSE_SERVER:-}" ]] && timeout 5 pactl list short sinks 2>/dev/null | grep -q velto_speakers; }; then
    export VELTO_SANDBOX_DIR="${VELTO_SANDBOX_DIR:-$build/sound-sandbox}"
    "$root/scripts/sound-sandbox.sh" start >/dev/null
    started_sandbox=1
    eval "$("$root/scripts/sound-sandbox.sh" env)"
fi

players=()
cleanup() {
    for pid in "${players[@]}"; do kill "$pid" 2>/dev/null || true; done
    if ((started_sandbox)); then "$root/scripts/sound-sandbox.sh" stop >/dev/null; fi
}
trap cleanup EXIT

# Tones for the whole run, so both sources deliver real audio rather than idle silence.
tone_seconds=$((seconds + 5))
sox -q -n -t raw -r 48000 -e floating-point -b 32 -c 2 - synth "$tone_seconds" sine 1000 vol 0.5 |
    pacat --playback --raw --device=velto_speakers --format=float32le --rate=48000 --channels=2 &
players+=($!)
sox -q -n -t raw -r 48000 -e floating-point -b 32 -c 1 - synth "$tone_seconds" sine 440 vol 0.3 |
    pacat --playback --raw --device=velto_mic_in --format=float32le --rate=48000 --channels=1 &
players+=($!)
sleep 1

server_pid="$(pgrep -f "pulseaudio.*$(dirname "${PULSE_SERVER#unix:}")" | head -1 || true)"
server_ticks() { [[ -n "$server_pid" ]] && awk '{print $14 + $15}' "/proc/$server_pid/stat" || echo 0; }
ticks_per_second="$(getconf CLK_TCK)"
server_before="$(server_ticks)"

report="$(VELTO_CAPTURE_SECONDS="$seconds" "$program" --gtest_also_run_disabled_tests \
    --gtest_filter='CaptureCpuSoak.*' 2>/dev/null)"

server_after="$(server_ticks)"
echo "$report" | grep -E '^(captured|process|CPU|microphone|system)'
if [[ -n "$server_pid" ]]; then
    awk -v t=$((server_after - server_before)) -v hz="$ticks_per_second" -v s="$seconds" \
        'BEGIN { printf "sound server CPU seconds per captured second: %.5f\n", t / hz / s }'
fi
echo "$report" | grep -q '\[  PASSED  \] 1 test' || { echo "capture run failed" >&2; exit 1; }
