#!/usr/bin/env bash
# Echo cancellation on the sandbox's echo path: espeak-ng speech plays on the speakers,
# the microphone hears it through a PulseAudio loopback (scripts/sound-sandbox.sh
# echo-path) on the paced sandbox, whose speakers and microphone keep one clock as a
# laptop's do, and `velto record --sources both` removes it. Checks:
#   - echo reduction on the microphone's track (--tracks separate) from 4 s on (3 s
#     after the far end starts), against the same recording without cancellation, of
#     at least VELTO_ECHO_MIN_REDUCTION_DB (default 25, the target) for echo paths of
#     20 ms / 0 dB, 100 ms / 6 dB and 300 ms / 20 dB (VELTO_ECHO_PATHS, "DELAY:DB ..."),
#     the canceller's own figure beside it;
#   - double talk (espeak-ng voices at both ends, the near end from 5 s on with a 1 kHz
#     tone to measure it by): the tone on the microphone's track within 3 dB of the
#     same recording without cancellation, and within 1 dB once the far end is silent;
#   - an echo that moves mid-recording is removed again within 2 s;
#   - without an echo path the microphone is left exactly as it is.
# VELTO_ECHO_NEAR_END=off stops after the echo paths.
# Usage: sandbox-echo.sh VELTO PROJECT_ROOT
set -uo pipefail
velto=$1
root=$2
# The speakers and the microphone keep one steady clock, as a laptop's card does.
export VELTO_SANDBOX_CLOCK=paced
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

# record NAME ECHO(on|off) [ARGS...] -> $work/NAME.wav and $work/NAME.err
record() {
    local name=$1 echo=$2
    shift 2
    timeout 60 "$velto" record --sources both --echo-cancellation "$echo" --duration 10 -v --overwrite "$@" \
        --output "$work/$name.wav" >/dev/null 2>"$work/$name.err" || fail "velto record ($name) failed: $(tail -3 "$work/$name.err")"
}

report() { grep -o 'Echo cancellation: .*' "$work/$1.err" | tail -1; }


# The RMS level (dB) of the microphone's track of a separate-tracks recording from FROM
# (default 4) seconds on.
microphone_db() { # NAME [FROM]
    sox "$work/$1.wav" -n remix 1 trim "${2:-4}" stat 2>&1 |
        awk '/RMS +amplitude/ { printf "%.2f", 20 * log($3) / log(10) }'
}

# What the recording NAME logged about its clocks and its echo, for a failure's message.
clock_and_echo_lines() { grep -E 'clock|Clock|Echo cancellation' "$work/$1.err" | sed 's/^.*\] //'; }

for path in ${VELTO_ECHO_PATHS:-20:0 100:6 300:20}; do
    delay=${path%:*} attenuation=${path#*:}
    sandbox echo-path on "$delay" "$attenuation"
    for attempt in 1 2; do
        for echo in on off; do
            play velto_speakers "$work/speech/far.wav"
            sleep 1
            record "echo-$delay-$echo" "$echo" --tracks separate
            stop_players
        done
        line=$(report "echo-$delay-on")
        grep -q "echo delay" <<<"$line" || fail "echo path $delay ms / -$attenuation dB: no echo found ($line)"
        reduction=$(awk -v on="$(microphone_db "echo-$delay-on")" -v off="$(microphone_db "echo-$delay-off")" \
            'BEGIN { printf "%.1f", off - on }')
        awk -v r="$reduction" -v m="${VELTO_ECHO_MIN_REDUCTION_DB:-25}" 'BEGIN { exit !(r >= m) }' && break
        # On a busy machine the sandbox's devices can stall: the loop underruns and comes
        # back later (the echo jumps; the canceller finds it again within about a second,
        # but a second of echo outweighs the rest of the measure), or a source's clock
        # estimate wanders and the echo slides. A shortfall is recorded once more, with
        # what the first recording logged; the canceller's logic is the unit tests' to
        # pin exactly.
        if ((attempt == 1)); then
            echo "retry: echo path $delay ms / -$attenuation dB: $reduction dB removed ($line)"
            clock_and_echo_lines "echo-$delay-on" | sed 's/^/    /'
            continue
        fi
        fail "echo path $delay ms / -$attenuation dB: only $reduction dB of echo removed ($line)
$(clock_and_echo_lines "echo-$delay-on")"
    done
    echo "ok: echo path $delay ms / -$attenuation dB: $reduction dB removed from the microphone's track ($line)"
done

# The sanitizer builds check the pipeline's threads and memory on one path only.
[[ "${VELTO_ECHO_NEAR_END:-on}" == off ]] && exit 0

# The echo moves mid-recording, as when a device's latency changes: the loop is loaded
# again 40 ms longer some 5 s in (the microphone hears it some 30 ms later). From 2 s
# after the move at least VELTO_ECHO_MOVED_MIN_DB (default 20) is removed: measured
# 23.6-28.4 dB, where a canceller that waits for its delay estimate removed 0.2-5.6.
for echo in on off; do
    sandbox echo-path on 100 6
    play velto_speakers "$work/speech/far.wav"
    sleep 1
    (sleep 5 && sandbox echo-path on 140 6) &
    mover=$!
    record "moved-$echo" "$echo" --tracks separate
    wait "$mover"
    stop_players
done
line=$(report moved-on)
reduction=$(awk -v on="$(microphone_db moved-on 7)" -v off="$(microphone_db moved-off 7)" \
    'BEGIN { printf "%.1f", off - on }')
awk -v r="$reduction" -v m="${VELTO_ECHO_MOVED_MIN_DB:-20}" 'BEGIN { exit !(r >= m) }' ||
    fail "an echo that moves from 100 to 140 ms: only $reduction dB removed 2 s after the move ($line)"
echo "ok: an echo that moves from 100 to 140 ms: $reduction dB removed from 2 s after the move ($line)"

# The near end: after 5 s of the far voice alone (the canceller's time to find the
# echo), the near voice with a quieter 1 kHz tone to measure it by; and the far voice
# cut after 4 s, for the near end alone once the far end has fallen silent.
sox -q "$work/tone.wav" "$work/near-tone.wav" vol 0.4 pad 5
sox -q -m "$work/near-tone.wav" "|sox $work/speech/near.wav -p pad 5" "$work/near-talk.wav"
sox -q "$work/tone.wav" "$work/near-late.wav" vol 0.4 pad 6
sox -q "$work/speech/far.wav" "$work/far-short.wav" trim 0 4

# The level (dB) of the near-end tone on the microphone's track from FROM s on.
near_tone_db() { # NAME FROM
    sox "$work/$1.wav" -n remix 1 trim "$2" sinc 980-1020 stat 2>&1 |
        awk '/RMS +amplitude/ { printf "%.2f", 20 * log($3) / log(10) }'
}
# near_end NAME FAR NEAR FROM LIMIT_DB WHAT: the tone with and without cancellation
near_end() {
    local name=$1 far=$2 near=$3 from=$4 limit=$5 what=$6 echo on off
    for echo in on off; do
        play velto_speakers "$work/$far"
        play velto_mic_in "$work/$near"
        sleep 1
        record "$name-$echo" "$echo" --tracks separate
        stop_players
    done
    grep -q "echo delay" <<<"$(report "$name-on")" || fail "$what: no echo found ($(report "$name-on"))"
    on=$(near_tone_db "$name-on" "$from")
    off=$(near_tone_db "$name-off" "$from")
    awk -v a="$on" -v b="$off" -v l="$limit" 'BEGIN { d = a - b; exit !(d < l && d > -l) }' ||
        fail "$what: the near-end tone is $on dB with cancellation, $off dB without"
    echo "ok: $what: near-end tone $on dB with cancellation, $off dB without ($(report "$name-on"))"
}
sandbox echo-path on 100 6
near_end double speech/far.wav near-talk.wav 6 3 "double talk (espeak-ng voices at both ends)"
near_end alone far-short.wav near-late.wav 7 1 "near end alone after the far end"

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
