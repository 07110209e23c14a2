#!/usr/bin/env bash
# Records a real five-second clip of the microphone and the system's audio with velto:
# installs what is missing, builds, starts the sandbox sound server when no sound server
# is running, plays a known sound into the speakers (a tone) and into the microphone
# (speech), records both, and says where the file went and what is in it.
#
#   scripts/record-demo.sh
#
# On a machine with a real sound server the tone plays through the default output and
# the microphone records the room; in the sandbox both sounds are virtual.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build="$root/build-demo"
work=$(mktemp -d /tmp/velto-demo.XXXXXX)
started_sandbox=0
players=()

cleanup() {
    for pid in "${players[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    if ((started_sandbox)); then bash "$root/scripts/sound-sandbox.sh" stop >/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

echo "== installing what is missing"
bash scripts/setup.sh

echo "== building velto"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_TESTS=OFF \
    -DVELTO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target velto >/dev/null
velto="$build/cli/velto"

echo "== sound server"
if timeout 5 pactl info >/dev/null 2>&1; then
    echo "using the running sound server: $(pactl info | sed -n 's/^Server Name: //p')"
    speakers=$(pactl get-default-sink)
    microphone_input=""
else
    # A sandbox that already runs (started by someone else) is used and left running.
    if ! bash scripts/sound-sandbox.sh status >/dev/null 2>&1; then
        bash scripts/sound-sandbox.sh start
        started_sandbox=1
    fi
    eval "$(bash scripts/sound-sandbox.sh env)"
    echo "using the sandbox sound server at $PULSE_SERVER"
    speakers=velto_speakers
    microphone_input=velto_mic_in
fi

echo "== playing a tone into the speakers ($speakers) and speech into the microphone"
sox -q -n -r 48000 -c 2 "$work/tone.wav" synth 7 sine 440 sine 660 vol 0.25
paplay --device="$speakers" "$work/tone.wav" 2>/dev/null &
players+=($!)
if [[ -n $microphone_input ]]; then
    espeak-ng -w "$work/speech.wav" \
        "This is the Velto Audio demo. The microphone hears this voice, the speakers play a tone." 2>/dev/null
    (for _ in 1 2 3; do paplay --device="$microphone_input" "$work/speech.wav" 2>/dev/null; done) &
    players+=($!)
fi
sleep 0.5

echo "== recording five seconds of both sources"
file=$("$velto" record --sources both --duration 5 | tail -1)

echo "== done"
echo "The recording is in: $file"
echo "Length: $(soxi -d "$file") ($(soxi -r "$file") Hz, $(soxi -c "$file") channel, $(soxi -t "$file"))"
sox "$file" -n stat 2>&1 | grep -E 'RMS +amplitude|Maximum amplitude|Length' | sed 's/^/  /'
echo "Play it with: play '$file'"
