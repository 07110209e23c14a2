#!/usr/bin/env bash
# Crash safety: kill -9 velto ten seconds into a recording, for WAV and for FLAC, and
# measure how much audio the standard decoders still get out of the file, against what
# the recording had reported as recorded. Target: all but the last second.
#   scripts/drill-crash.sh [SECONDS_BEFORE_KILL]     (default 10)
source "$(dirname "$0")/drill-common.sh"
before_kill=${1:-10}
play_into velto_mic_in $((4 * before_kill + 20)) 440
status=0

for format in wav flac; do
    file="$work/crash.$format"
    "$velto" record --format "$format" --json --output "$file" >"$work/events-$format" 2>"$work/err-$format" &
    pid=$!
    sleep "$before_kill"
    kill -9 "$pid"
    wait "$pid" 2>/dev/null || true
    reported=$(last_progress_seconds "$work/events-$format")
    if [[ $format == wav ]]; then
        decoded=$(soxi -D "$file" 2>/dev/null || echo 0)
        how="soxi -D"
    else
        # flac -F keeps decoding past errors; what it writes is what a user gets back.
        flac -s -d -F -f -o "$work/decoded.wav" "$file" 2>"$work/flac-err" || true
        decoded=$(soxi -D "$work/decoded.wav" 2>/dev/null || echo 0)
        how="flac -d -F, then soxi -D"
    fi
    sox_reads=$(sox "$file" -n stat 2>&1 | awk '/Length \(seconds\)/ { print $3 }')
    awk -v f="$format" -v r="${reported:-0}" -v d="$decoded" -v s="${sox_reads:-0}" -v how="$how" 'BEGIN {
        lost = r - d
        printf "%-4s: recorded %.2f s when killed; %s gives %.2f s (sox stat reads %.2f s); lost %.2f s: %s\n",
               f, r, how, d, s, lost, (lost <= 1.0 ? "met" : "NOT met")
        exit (lost <= 1.0 ? 0 : 1) }' || status=1
done
exit $status
