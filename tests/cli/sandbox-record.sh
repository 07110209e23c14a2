#!/usr/bin/env bash
# A short real recording through the program: both sources, --json, with a tone playing
# into the virtual microphone. Checks the event lines and the file with sox, and that the
# device list holds the virtual microphone and no monitor.
# Usage: sandbox-record.sh VELTO PROJECT_ROOT
set -uo pipefail
velto=$1
source "$(dirname "$0")/private-sandbox.sh" "$2"

fail() { echo "FAIL: $*" >&2; echo "--- events:" >&2; cat "$velto_sandbox_work/events" >&2;
         echo "--- stderr:" >&2; cat "$velto_sandbox_work/err" >&2; exit 1; }

output="$velto_sandbox_work/take.flac"
# The virtual microphone is listed; no monitor of an output passes for a microphone.
devices=$("$velto" devices 2>&1) || fail "velto devices failed: $devices"
grep -q 'velto_mic' <<<"$devices" || fail "velto devices does not list the virtual microphone: $devices"
! grep -q 'monitor' <<<"$devices" || fail "velto devices lists a monitor as a microphone: $devices"

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
[[ $(soxi -s "$output") == 64000 ]] || fail "file holds $seconds s, expected exactly 4 s"
# The tone must be in the file, not silence.
rms=$(sox "$output" -n stat 2>&1 | awk '/RMS +amplitude/ { print $3 }')
awk -v r="$rms" 'BEGIN { exit !(r > 0.01) }' || fail "the recording is silent (RMS $rms)"
# How long the file is silent before the tone: the capture's start-up latency.
sox "$output" "$velto_sandbox_work/trimmed.wav" silence 1 0.01 1%
lead_in=$(awk -v a="$seconds" -v b="$(soxi -D "$velto_sandbox_work/trimmed.wav")" 'BEGIN { printf "%.2f", a - b }')

# SIGUSR1 pauses and resumes: the events say so with the recorded time, which stands
# still meanwhile, and --duration counts recorded time only.
paused_output="$velto_sandbox_work/paused.flac"
# Twice (once in CI) the sandbox server did not answer here, right after the first
# recording, for ten seconds; the cause is not found yet. What is tested here is the
# pause, so a server that went away is started again, saying so with its log.
if ! bash "$2/scripts/sound-sandbox.sh" status >/dev/null 2>&1; then
    echo "note: the sandbox server stopped answering after the first recording; its log:" >&2
    tail -20 "$VELTO_SANDBOX_DIR/pulseaudio.log" >&2 || true
    bash "$2/scripts/sound-sandbox.sh" start >/dev/null || fail "the sandbox server cannot be started again"
fi
# Without timeout(1) in between: it would die of the SIGUSR1 meant for velto.
"$velto" record --duration 2 --json --output "$paused_output" \
    >"$velto_sandbox_work/events" 2>"$velto_sandbox_work/err" &
recorder=$!
for _ in $(seq 200); do grep -q '^{"event":"progress",' "$velto_sandbox_work/events" && break; sleep 0.05; done
sleep 0.5
kill -USR1 "$recorder"
sleep 1.5
kill -USR1 "$recorder"
wait "$recorder" || fail "velto exited $? after a pause"
paused=$(grep -o '^{"event":"paused","elapsed":[0-9.]*}$' "$velto_sandbox_work/events" | grep -o '[0-9.]*}$')
resumed=$(grep -o '^{"event":"resumed","elapsed":[0-9.]*}$' "$velto_sandbox_work/events" | grep -o '[0-9.]*}$')
[[ -n $paused && -n $resumed ]] || fail "no paused and resumed events"
awk -v p="${paused%\}}" -v r="${resumed%\}}" 'BEGIN { exit !(r - p < 0.03 && p - r < 0.03) }' ||
    fail "elapsed went on while paused ($paused, $resumed)"
paused_seconds=$(soxi -D "$paused_output") || fail "sox cannot read the paused file"
awk -v s="$paused_seconds" 'BEGIN { exit !(s >= 1.8 && s <= 2.6) }' || fail "paused file holds $paused_seconds s, expected about 2 s"

echo "ok: $progress progress events, $seconds s, RMS $rms, silent lead-in ${lead_in} s; paused at $paused, file $paused_seconds s"
