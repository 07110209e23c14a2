#!/usr/bin/env bash
# Disk full: record onto a 200 KiB tmpfs until it fills. The recording must end by
# itself with one clear error, and the file must stay readable, its header included:
# a standard tool must read at least the time the last progress event reported.
# Needs root (mount).
#   scripts/drill-disk-full.sh
source "$(dirname "$0")/drill-common.sh"
mountpoint="$work/small-disk"
mkdir -p "$mountpoint"
mount -t tmpfs -o size=200k velto-drill-tmpfs "$mountpoint"
unmount() { umount "$mountpoint" 2>/dev/null || true; drill_cleanup; }
trap unmount EXIT
play_into velto_mic_in 120 440
status=0

for format in wav flac; do
    rm -f "$mountpoint"/*
    file="$mountpoint/full.$format"
    set +e
    timeout 90 "$velto" record --format "$format" --duration 60 --json --output "$file" \
        >"$work/events-$format" 2>"$work/err-$format"
    exit_status=$?
    set -e
    reported=$(last_progress_seconds "$work/events-$format")
    readable=$(soxi -D "$file" 2>/dev/null || echo unreadable)
    if [[ $format == flac && $readable != unreadable ]]; then
        flac -s -d -F -f -o "$work/decoded.wav" "$file" 2>/dev/null || true
        readable="$readable (flac -d -F: $(soxi -D "$work/decoded.wav" 2>/dev/null || echo none))"
    fi
    echo "$format: exit status $exit_status after ${reported:-0} s recorded; file holds $readable s" \
         "($(stat -c %s "$file" 2>/dev/null || echo 0) bytes)"
    echo "  standard error: $(cat "$work/err-$format")"
    echo "  last event: $(tail -1 "$work/events-$format")"
    header_seconds=$(soxi -D "$file" 2>/dev/null || echo 0)
    holds_all=$(awk -v h="$header_seconds" -v r="${reported:-0}" 'BEGIN { print (r > 0 && h >= r - 0.05) ? 1 : 0 }')
    [[ $exit_status -eq 1 && $readable != unreadable && $holds_all -eq 1 && $(wc -l <"$work/err-$format") -ge 1 ]] ||
        status=1
done
[[ $status -eq 0 ]] && echo "disk full: ends with an error and a whole, readable file: met" || echo "disk full: NOT met"
exit $status
