#!/usr/bin/env bash
# Faults a user meets: the sound server dies mid-recording; the microphone is removed
# mid-recording; and bad input on the command line. Prints what velto did in each case.
#   scripts/drill-faults.sh
source "$(dirname "$0")/drill-common.sh"

# report NAME EXIT_STATUS EVENTS ERR FILE
report() {
    local name=$1 exit_status=$2 events=$3 err=$4 file=$5
    echo "$name: exit status $exit_status, last event: $(tail -1 "$events" 2>/dev/null)"
    echo "  recorded $(last_progress_seconds "$events") s; file holds $(soxi -D "$file" 2>/dev/null || echo unreadable) s"
    echo "  standard error ($(wc -l <"$err") lines): $(head -3 "$err" | tr '\n' '|')"
}

# 1. The sound server is killed five seconds into a recording of both sources.
play_into velto_mic_in 60 440
play_into velto_speakers 60 660
sleep 0.5
file="$work/server-killed.flac"
"$velto" record --sources both --json --output "$file" >"$work/events-1" 2>"$work/err-1" &
pid=$!
sleep 5
kill -9 "$(sandbox_pid)"
note "sound server killed; waiting up to 30 s for velto"
ended=0
for _ in $(seq 1 300); do kill -0 "$pid" 2>/dev/null || { ended=1; break; }; sleep 0.1; done
if ((ended)); then
    exit_status=0; wait "$pid" || exit_status=$?
    report "server killed (velto ended by itself)" "$exit_status" "$work/events-1" "$work/err-1" "$file"
else
    kill -INT "$pid"; sleep 5; kill -0 "$pid" 2>/dev/null && kill -INT "$pid"; sleep 5
    kill -0 "$pid" 2>/dev/null && { kill -9 "$pid"; note "velto had to be killed"; }
    exit_status=0; wait "$pid" || exit_status=$?
    report "server killed (velto still recording after 30 s; Ctrl-C sent)" "$exit_status" \
        "$work/events-1" "$work/err-1" "$file"
fi
restart_sandbox

# 2. The microphone is removed (its module unloaded) five seconds in; five seconds later Ctrl-C.
play_into velto_mic_in 60 440
sleep 0.5
file="$work/device-removed.flac"
"$velto" record --sources microphone --json --output "$file" >"$work/events-2" 2>"$work/err-2" &
pid=$!
sleep 5
module=$(pactl list short modules | awk '$2 == "module-remap-source" && /source_name=velto_mic/ { print $1 }')
pactl unload-module "$module"
note "microphone removed (module $module)"
sleep 5
still_running=$(kill -0 "$pid" 2>/dev/null && echo yes || echo no)
kill -INT "$pid" 2>/dev/null || true
for _ in $(seq 1 150); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
kill -0 "$pid" 2>/dev/null && { kill -9 "$pid"; note "velto had to be killed"; }
exit_status=0; wait "$pid" || exit_status=$?
echo "(velto still running 5 s after the removal: $still_running)"
report "microphone removed" "$exit_status" "$work/events-2" "$work/err-2" "$file"
restart_sandbox

# 3. Bad input: each must end with exit status 1 or 2, one line (or usage), no file.
echo "bad input:"
mkdir -p "$work/out"
echo "an earlier recording" >"$work/out/existing.flac"
chmod 0555 "$work/out"
bad_inputs=(
    "record --microphone no-such-mic --output $work/out/a.flac --duration 1"
    "record --output /proc/velto.flac --duration 1"
    "record --output $work/out --duration 1"
    "record --output $work/missing/a.flac --duration 1"
    "record --output $work/out/existing.flac --duration 1"
    "record --duration 0"
    "record --duration -5"
    "record --duration soon"
    "record --sources everything"
    "record --format mp3"
    "record --format flac --output $work/a.wav"
    "record --frobnicate"
    "microphone set no-such-mic"
    "teleport"
)
for line in "${bad_inputs[@]}"; do
    # shellcheck disable=SC2086
    bad_status=0
    "$velto" $line >"$work/bad-out" 2>"$work/bad-err" || bad_status=$?
    printf '  %-60s exit %d, %d stderr lines: %s\n' "velto $line" "$bad_status" "$(wc -l <"$work/bad-err")" \
        "$(head -1 "$work/bad-err")"
done
chmod 0755 "$work/out"
leftovers=$(find "$work/out" -type f ! -name existing.flac | wc -l)
echo "  files left behind by bad input: $leftovers; existing file intact: $(
    [[ $(cat "$work/out/existing.flac") == "an earlier recording" ]] && echo yes || echo no)"
