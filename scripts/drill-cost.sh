#!/usr/bin/env bash
# CPU cost of recording both sources to 16 kHz mono FLAC: velto against ffmpeg doing the
# same job (two PulseAudio inputs, amix, resample) in the same run, on the same sounds.
# Reports CPU seconds (user + system) per recorded second for each, and their ratio.
# The two take turns for ROUNDS rounds, and the median ratio is the figure: the machines
# are shared.
# Target: velto at most half of ffmpeg.
#   scripts/drill-cost.sh [SECONDS] [ROUNDS]     (default 30 s, 3 rounds)
#
# VELTO_COST_VARIANTS measures velto with other options beside the plain recording, in the
# same rounds, e.g.  VELTO_COST_VARIANTS='separate=--tracks separate;echo-off=--echo-cancellation off'
# Each variant's median CPU ms per recorded second is printed beside the plain one's, with
# its difference: what an option costs, measured against the same machine's load.
#
# VELTO_COST_ECHO_PATH=DELAY_MS:ATTENUATION_DB records with the microphone hearing the
# speakers (scripts/sound-sandbox.sh echo-path) and espeak-ng speech on the speakers
# instead of the tone, the near end a quiet tone: the echo canceller then has an echo to
# remove, and its filter runs wherever the far end talks.
source "$(dirname "$0")/drill-common.sh"
seconds=${1:-30}
rounds=${2:-3}
VELTO_WITH_DRILL_TOOLS=1 bash "$root/scripts/setup.sh" >/dev/null

# cpu_of COMMAND...: runs the command, prints its user+system CPU seconds and its wall
# seconds. Bash's own timer, to the millisecond: /usr/bin/time prints hundredths, a step
# of 0.33 ms per recorded second in a 30 s recording, as large as the differences the
# variants are there to show.
cpu_of() {
    local times="$work/times" TIMEFORMAT="%3U %3S %3R"
    { time "$@" >/dev/null 2>"$work/stderr"; } 2>"$times" || {
        echo "command failed: $*" >&2; cat "$work/stderr" >&2; return 1; }
    awk '{ printf "%.3f %.3f\n", $1 + $2, $3 }' "$times"
}

# name=arguments pairs; "plain" is the recording as the target measures it.
variant_names=()
variant_args=()
IFS=";" read -r -a variant_entries <<< "${VELTO_COST_VARIANTS:-}"
for entry in "${variant_entries[@]}"; do
    [[ -n $entry ]] || continue
    variant_names+=("${entry%%=*}")
    variant_args+=("${entry#*=}")
done
declare -A variant_costs=()

# Sound for every recording of every round: velto's plain one, each variant's, ffmpeg's.
playing_seconds=$((rounds * ((2 + ${#variant_names[@]}) * (seconds + 5)) + 20))
if [[ -n ${VELTO_COST_ECHO_PATH:-} ]]; then
    bash "$root/scripts/sound-sandbox.sh" echo-path on "${VELTO_COST_ECHO_PATH%:*}" "${VELTO_COST_ECHO_PATH#*:}" >/dev/null
    bash "$root/scripts/render-echo-speech.sh" "$work/speech" >/dev/null
    far_seconds=$(soxi -D "$work/speech/far.wav")
    (sox -q "$work/speech/far.wav" -t raw -r 48000 -e float -b 32 -c 1 - \
        repeat "$(awk -v p="$playing_seconds" -v f="$far_seconds" 'BEGIN { print int(p / f) + 1 }')" |
        pacat --playback --device=velto_speakers --rate=48000 --channels=1 --format=float32le 2>/dev/null) &
    drill_background+=($!)
    play_into velto_mic_in "$playing_seconds" 660 0.01
else
    play_into velto_speakers "$playing_seconds" 440
    play_into velto_mic_in "$playing_seconds" 660
fi
sleep 1

# velto_cost_per_second NAME ARGS...: one velto recording; prints CPU ms per recorded second.
velto_cost_per_second() {
    local name=$1; shift
    rm -f "$work/variant.flac"
    note "round $round of $rounds: velto ($name), $seconds s of both sources"
    local cpu wall
    read -r cpu wall < <(cpu_of "$velto" record --sources both --format flac --duration "$seconds" \
        --output "$work/variant.flac" "$@")
    awk -v c="$cpu" -v l="$(soxi -D "$work/variant.flac")" 'BEGIN { printf "%.3f", 1000 * c / l }'
}

ratios=()
plain_costs=()
for ((round = 1; round <= rounds; round++)); do
    for i in "${!variant_names[@]}"; do
        # shellcheck disable=SC2086  # the arguments are words on purpose
        variant_costs[${variant_names[$i]}]+="$(velto_cost_per_second "${variant_names[$i]}" ${variant_args[$i]}) "
    done
    rm -f "$work/velto.flac"
    note "round $round of $rounds: velto, $seconds s of both sources"
    read -r velto_cpu velto_wall < <(cpu_of "$velto" record --sources both --format flac --duration "$seconds" \
        --output "$work/velto.flac")
    note "round $round of $rounds: ffmpeg, $seconds s of both sources"
    read -r ffmpeg_cpu ffmpeg_wall < <(cpu_of ffmpeg -nostdin -hide_banner -loglevel error \
        -f pulse -i velto_speakers.monitor -f pulse -i velto_mic \
        -filter_complex "[0:a][1:a]amix=inputs=2:duration=longest,aresample=16000,aformat=channel_layouts=mono" \
        -t "$seconds" -c:a flac -y "$work/ffmpeg.flac")

    [[ -n ${velto_cpu:-} && -n ${ffmpeg_cpu:-} ]] || { echo "a recording failed" >&2; exit 1; }
    velto_len=$(soxi -D "$work/velto.flac")
    ffmpeg_len=$(soxi -D "$work/ffmpeg.flac")
    ratios+=("$(awk -v vc="$velto_cpu" -v vl="$velto_len" -v vw="$velto_wall" -v fc="$ffmpeg_cpu" \
        -v fl="$ffmpeg_len" -v fw="$ffmpeg_wall" -v r="$round" 'BEGIN {
        v = vc / vl; f = fc / fl
        printf "round %d velto : %6.3f CPU s for %6.2f s recorded (%5.2f s wall) = %.4f CPU s per recorded s\n", r, vc, vl, vw, v > "/dev/stderr"
        printf "round %d ffmpeg: %6.3f CPU s for %6.2f s recorded (%5.2f s wall) = %.4f CPU s per recorded s\n", r, fc, fl, fw, f > "/dev/stderr"
        printf "%.3f", v / f
    }')")
    echo "round $round ratio velto/ffmpeg: ${ratios[-1]}"
    plain_costs+=("$(awk -v c="$velto_cpu" -v l="$velto_len" 'BEGIN { printf "%.3f", 1000 * c / l }')")
done
median() { printf '%s\n' "$@" | sort -n | awk '{ r[NR] = $1 } END { print r[int((NR + 1) / 2)] }'; }
if ((${#variant_names[@]})); then
    plain=$(median "${plain_costs[@]}")
    printf 'median velto CPU per recorded second: plain %.2f ms\n' "$plain"
    for name in "${variant_names[@]}"; do
        # shellcheck disable=SC2086
        cost=$(median ${variant_costs[$name]})
        awk -v n="$name" -v c="$cost" -v p="$plain" 'BEGIN { printf "  %-12s %.2f ms (%+.2f ms against plain)\n", n, c, c - p }'
    done
fi
printf '%s\n' "${ratios[@]}" | sort -n | awk '{ r[NR] = $1 } END {
    m = r[int((NR + 1) / 2)]
    printf "median ratio velto/ffmpeg over %d rounds: %.3f (target <= 0.5): %s\n", NR, m, (m <= 0.5 ? "met" : "NOT met")
}'
