#!/usr/bin/env bash
# A short real recording through the program: both sources, --json, with a tone playing
# into the virtual microphone. Checks the event lines and the file with sox.
# Usage: sandbox-record.sh VELTO PROJECT_ROOT
set -uo pipefail
velto=$1
source "$(dirname "$0")/private-sandbox.sh" "$2"

fail() { echo "FAIL: $*" >&2; echo "--- events:" >&2; cat "$velto_sandbox_work/events" >&2;
         echo "--- stderr:" >&2; cat "$velto_sandbox_work/err" >&2; exit 1; }

output="$velto_sandbox_work/take.flac"
# A 440 Hz tone into the microphone's input sink, for longer than the recording.
sox -q -n -t raw -r 48000 -e float -b 32 -c 1 - synth 8 sine 440 vol 0.5 |
    pacat --playback --device=velto_mic_in --rate=48000 --channels=1 --format=float32le &
player=$!
timeout 60 "$velto" record --sources both --duration 4 --json --output "$output" \
    >"$velto_sandbox_work/events" 2>"$velto_sandbox_work/err"
status=$?
kill "$player" 2>/dev/null; wait "$player" 2>/dev/null

[[ $status -eq 0 ]] || fail "velto exited $status"
head -1 "$velto_sandbox_work/events" | grep -q '^{"event":"starting"}$' || fail "first event is not starting"
grep -q '^{"event":"started"}$' "$velto_sandbox_work/events" || fail "no started event"
progress=$(grep -c '^{"event":"progress",' "$velto_sandbox_work/events")
((progress >= 10)) || fail "only $progress progress events in 4 s"
expected_last="{\"event\":\"finished\",\"file\":\"$output\"}"
[[ $(tail -1 "$velto_sandbox_work/events") == "$expected_last" ]] || fail "the last line is not the finished event"
[[ ! -s "$velto_sandbox_work/err" ]] || fail "unexpected standard error output"

seconds=$(soxi -D "$output") || fail "sox cannot read the file"
rate=$(soxi -r "$output")
channels=$(soxi -c "$output")
[[ $rate == 16000 && $channels == 1 ]] || fail "file is ${rate} Hz ${channels} ch, expected 16000 Hz mono"
awk -v s="$seconds" 'BEGIN { exit !(s >= 3.7 && s <= 5.0) }' || fail "file holds $seconds s, expected about 4 s"
# The tone must be in the file, not silence.
rms=$(sox "$output" -n stat 2>&1 | awk '/RMS +amplitude/ { print $3 }')
awk -v r="$rms" 'BEGIN { exit !(r > 0.01) }' || fail "the recording is silent (RMS $rms)"
# How long the file is silent before the tone: the capture's start-up latency.
sox "$output" "$velto_sandbox_work/trimmed.wav" silence 1 0.01 1%
lead_in=$(awk -v a="$seconds" -v b="$(soxi -D "$velto_sandbox_work/trimmed.wav")" 'BEGIN { printf "%.2f", a - b }')
echo "ok: $progress progress events, $seconds s, RMS $rms, silent lead-in ${lead_in} s"
