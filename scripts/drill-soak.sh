#!/usr/bin/env bash
# Soak: one long recording of both sources with -v, sampling velto's resident memory
# over time. Reports the memory trend and counts overrun/underrun lines in the log.
#   scripts/drill-soak.sh [SECONDS] [SAMPLE_INTERVAL_SECONDS]   (default 3600, 10)
source "$(dirname "$0")/drill-common.sh"
seconds=${1:-3600}
interval=${2:-10}
play_into velto_mic_in $((seconds + 60)) 440
play_into velto_speakers $((seconds + 60)) 660
sleep 0.5

file="$work/soak.flac"
"$velto" -v record --sources both --duration "$seconds" --json --output "$file" \
    >"$work/events" 2>"$work/log" &
pid=$!
note "recording $seconds s; memory sampled every $interval s"
printf '%8s %10s\n' "seconds" "RSS KiB" >"$work/rss"
start=$(date +%s)
while kill -0 "$pid" 2>/dev/null; do
    rss=$(awk '/^VmRSS:/ { print $2 }' "/proc/$pid/status" 2>/dev/null || true)
    [[ -n $rss ]] && printf '%8d %10d\n' $(($(date +%s) - start)) "$rss" >>"$work/rss"
    sleep "$interval"
done
exit_status=0; wait "$pid" || exit_status=$?

cat "$work/rss"
awk 'NR > 1 { n++; t[n] = $1; r[n] = $2 } END {
    if (n < 3) { print "too few samples"; exit }
    # Compare the first third (after the first sample: start-up) with the last third.
    third = int(n / 3); if (third < 1) third = 1
    for (i = 2; i <= 1 + third; i++) { a += r[i]; ac++ }
    for (i = n - third + 1; i <= n; i++) { b += r[i]; bc++ }
    max = 0; for (i = 1; i <= n; i++) if (r[i] > max) max = r[i]
    printf "RSS: early mean %.0f KiB, late mean %.0f KiB, change %+.0f KiB (%+.1f%%), max %d KiB over %d s\n",
           a / ac, b / bc, b / bc - a / ac, 100 * (b / bc - a / ac) / (a / ac), max, t[n] }' "$work/rss"
echo "exit status $exit_status; file holds $(soxi -D "$file" 2>/dev/null || echo unreadable) s of $seconds s"
echo "overrun/underrun/overflow lines in the log: $(grep -ciE 'overrun|underrun|overflow' "$work/log" || true)"
grep -iE 'overrun|underrun|overflow' "$work/log" | head -5 || true
echo "log lines at error or critical: $(grep -cE '\] (error|critical):' "$work/log" || true)"
