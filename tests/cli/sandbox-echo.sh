#!/usr/bin/env bash
# Echo cancellation on the sandbox's echo path: espeak-ng speech plays on the speakers,
# the microphone hears it through a PulseAudio loopback (scripts/sound-sandbox.sh
# echo-path), and `velto record --sources both` removes it. Checks:
#   - echo reduction after 3 s (the canceller's own figure, microphone energy in over
#     out while the far end plays, from the end-of-recording log line) of at least
#     VELTO_ECHO_MIN_REDUCTION_DB (default 25, the target on an idle machine), for
#     echo paths of 20 ms / 0 dB, 100 ms / 6 dB and 300 ms / 20 dB;
#   - a 1 kHz near-end tone in the mix while both talk: within 3 dB of the same
#     recording without cancellation;
#   - without an echo path the microphone is left exactly as it is.
# Usage: sandbox-echo.sh VELTO PROJECT_ROOT
set -uo pipefail
velto=$1
root=$2
source "$(dirname "$0")/private-sandbox.sh" "$root"
work=$velto_sandbox_work
sandbox() { bash "$root/scripts/sound-sandbox.sh" "$@" >/dev/null; }

fail() { echo "FAIL: $*" >&2; exit 1; }

bash "$root/scripts/render-echo-speech.sh" "$work/speech" >/dev/null || fail "cannot render the speech"
sox -q -n -r 16000 -c 1 -b 16 "$work/tone.wav" synth 14 sine 1000 vol 0.25

players=()
stop_players() { for p in "${players[@]}"; do kill "$p" 2>/dev/null; wait "$p" 2>/dev/null; done; players=(); }
play() { # sink file
    paplay --device="$1" "$2" & players+=($!)
}

# record NAME ECHO(on|off) -> $work/NAME.wav and $work/NAME.err
record() {
    timeout 60 "$velto" record --sources both --echo-cancellation "$2" --duration 10 -v --overwrite \
        --output "$work/$1.wav" >/dev/null 2>"$work/$1.err" || fail "velto record ($1) failed: $(tail -3 "$work/$1.err")"
}

report() { grep -o 'Echo cancellation: .*' "$work/$1.err" | tail -1; }

# The level of the near-end tone in a mix from 4 s on (dB, a narrow band around 1 kHz).
tone_db() {
    sox "$work/$1.wav" -n trim 4 sinc 980-1020 stat 2>&1 |
        awk '/RMS +amplitude/ { printf "%.2f", 20 * log($3) / log(10) }'
}

for path in "20 0" "100 6" "300 20"; do
    read -r delay attenuation <<<"$path"
    sandbox echo-path on "$delay" "$attenuation"
    play velto_speakers "$work/speech/far.wav"
    sleep 1
    record "echo-$delay" on
    stop_players
    line=$(report "echo-$delay")
    reduction=$(sed -n 's/.*suppression \([-0-9.]*\) dB.*/\1/p' <<<"$line")
    [[ -n "$reduction" ]] || fail "echo path $delay ms / -$attenuation dB: no echo found ($line)"
    awk -v r="$reduction" -v m="${VELTO_ECHO_MIN_REDUCTION_DB:-25}" 'BEGIN { exit !(r >= m) }' ||
        fail "echo path $delay ms / -$attenuation dB: only $reduction dB of echo removed"
    echo "ok: echo path $delay ms / -$attenuation dB: $line"
done

# Double talk: the far voice and a near-end tone at once, with and without cancellation.
sandbox echo-path on 100 6
for echo in on off; do
    play velto_speakers "$work/speech/far.wav"
    play velto_mic_in "$work/tone.wav"
    sleep 1
    record "double-$echo" "$echo"
    stop_players
done
on=$(tone_db double-on)
off=$(tone_db double-off)
awk -v a="$on" -v b="$off" 'BEGIN { d = a - b; exit !(d < 3 && d > -3) }' ||
    fail "double talk: the near-end tone is $on dB with cancellation, $off dB without"
echo "ok: double talk: near-end tone $on dB with cancellation, $off dB without ($(report double-on))"

# Headphones: no echo path, the microphone must pass unchanged.
sandbox echo-path off
play velto_speakers "$work/speech/far.wav"
play velto_mic_in "$work/tone.wav"
sleep 1
record no-echo on
stop_players
report no-echo | grep -q "no echo of the system audio found in the microphone; microphone left unchanged" ||
    fail "without an echo path: $(report no-echo)"
echo "ok: no echo path: $(report no-echo)"
