#!/usr/bin/env bash
# Renders two espeak-ng voices to 16 kHz mono WAV files, the far end (what the
# loudspeakers play) and the near end (the person at the microphone), for the
# echo canceller measurements: speech is what a canceller meets on a call, and
# tones alone flatter a linear filter.
# Usage: scripts/render-echo-speech.sh <output-directory>
set -euo pipefail
out=${1:?usage: $0 <output-directory>}
mkdir -p "$out"
far_text="The quarterly figures are in and the team will present them on Thursday. \
Please bring the notes from the last meeting, and remember that the budget review \
starts at nine. We will also talk about the new office, the travel plans for spring, \
and the hiring of two engineers for the audio group."
near_text="Yes, I can hear you. Could you repeat the last number? I think the \
second chart was missing a label, and the totals do not match the summary."
render() { # voice pitch speed text file
  espeak-ng -v "$1" -p "$2" -s "$3" -w "$out/$5.raw.wav" "$4"
  sox -q "$out/$5.raw.wav" -r 16000 -c 1 -b 16 "$out/$5.wav" norm -3
  rm -f "$out/$5.raw.wav"
}
render en-us 40 165 "$far_text" far
render en-gb+f3 70 150 "$near_text" near
echo "rendered $out/far.wav and $out/near.wav"
