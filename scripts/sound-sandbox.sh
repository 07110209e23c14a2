#!/usr/bin/env bash
# A private PulseAudio server with no hardware: speakers and a virtual microphone made of
# null sinks, for the end-to-end tests and for recording on a machine without sound.
#
#   sound-sandbox.sh start    start it (does nothing when it already runs); with
#                             VELTO_SANDBOX_CLOCK=paced its devices keep the time of one
#                             steady clock, as a real sound card's do (see below)
#   sound-sandbox.sh stop     stop it (does nothing when it is not running)
#   sound-sandbox.sh env      print the export line that points clients at it
#   sound-sandbox.sh status   say whether it runs; exit 0 when it does
#   sound-sandbox.sh echo-path on [DELAY_MS] [ATTENUATION_DB]
#                             the microphone hears the speakers: their monitor is looped into
#                             velto_mic_in DELAY_MS later (default 100) and ATTENUATION_DB
#                             quieter (default 6); play the near end into velto_mic_in as usual
#   sound-sandbox.sh echo-path off
#                             headphones again: the loop goes
#   sound-sandbox.sh skewed-mic on PPM
#                             a microphone whose clock runs PPM off the system's (e.g. 500,
#                             -2000): velto_skewed_mic, a pipe source fed at 16000 × (1 +
#                             PPM/10^6) samples per second with a 440 Hz tone and a marker
#                             burst on every whole second (scripts/paced-source.c)
#   sound-sandbox.sh skewed-mic off
#                             the skewed microphone goes
#   sound-sandbox.sh card-clock PPM
#                             (paced sandbox) the card's clock runs PPM off the system's
#
# Devices:
#   velto_speakers   default sink (the speakers; its monitor is what system audio captures)
#   velto_mic_in     sink that feeds the virtual microphone: play into it to "speak"
#   velto_mic        default source: what plays into velto_mic_in
# By default the sinks are null sinks and velto_mic remaps velto_mic_in's monitor. A null
# sink keeps time by rendering ahead in chunks, and how far ahead wanders by milliseconds
# over tens of seconds: its monitor runs some tens of ppm off the system clock for a
# minute at a time. With VELTO_SANDBOX_CLOCK=paced the two sinks are pipe sinks and the
# microphone a pipe source, and one process (scripts/paced-clock.c) empties the sinks and
# feeds the microphone at the pace of the monotonic clock, as a sound card's converters
# do on the card's crystal: recordings whose timing is judged (clock drift, echo) use it.
#
# VELTO_SANDBOX_DIR chooses where the server keeps its socket, state and log.
set -euo pipefail

dir="${VELTO_SANDBOX_DIR:-/tmp/velto-sound-sandbox-$(id -u)}"
# The server resolves paths from its own working directory and needs absolute ones.
[[ "$dir" = /* ]] || dir="$PWD/$dir"
socket="$dir/native"
pidfile="$dir/pulseaudio.pid"
logfile="$dir/pulseaudio.log"
server="unix:$socket"

is_running() {
    [[ -S "$socket" ]] || return 1
    PULSE_SERVER="$server" timeout 5 pactl info >/dev/null 2>&1
}

sandbox_clock() { cat "$dir/clock" 2>/dev/null || echo null; }

write_script() {
    local clock=$1
    {
        echo "load-module module-native-protocol-unix socket=$socket auth-anonymous=1"
        if [[ "$clock" == paced ]]; then
            echo "load-module module-pipe-sink sink_name=velto_speakers file=$dir/speakers.fifo format=float32le rate=48000 channels=2 sink_properties=device.description=Velto-Speakers"
            echo "load-module module-pipe-sink sink_name=velto_mic_in file=$dir/mic-in.fifo format=float32le rate=48000 channels=1 sink_properties=device.description=Velto-Microphone-Input"
            echo "load-module module-pipe-source source_name=velto_mic file=$dir/mic.fifo format=float32le rate=48000 channels=1 source_properties=device.description=Velto-Microphone"
        else
            echo "load-module module-null-sink sink_name=velto_speakers format=float32le rate=48000 channels=2 sink_properties=device.description=Velto-Speakers"
            echo "load-module module-null-sink sink_name=velto_mic_in format=float32le rate=48000 channels=1 sink_properties=device.description=Velto-Microphone-Input"
            echo "load-module module-remap-source source_name=velto_mic master=velto_mic_in.monitor format=float32le rate=48000 channels=1 source_properties=device.description=Velto-Microphone"
        fi
        echo "set-default-sink velto_speakers"
        echo "set-default-source velto_mic"
    } >"$dir/sandbox.pa"
}

# --- the paced card's clock ----------------------------------------------------------
build_tool() {  # NAME: scripts/NAME.c, built into the sandbox folder on first use
    local binary="$dir/$1" source_file
    source_file="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/$1.c"
    if [[ ! -x "$binary" || "$source_file" -nt "$binary" ]]; then
        cc -O2 -o "$binary" "$source_file" -lm || { echo "cannot build $source_file" >&2; return 1; }
    fi
    echo "$binary"
}

card_clock_stop() {
    if [[ -f "$dir/card-clock.pid" ]]; then
        kill "$(cat "$dir/card-clock.pid")" 2>/dev/null || true
        rm -f "$dir/card-clock.pid"
    fi
}

card_clock() {  # PPM
    local ppm="${1:-0}" binary
    [[ "$ppm" =~ ^[-+]?[0-9]+([.][0-9]+)?$ ]] || { echo "card-clock: PPM must be a number" >&2; return 2; }
    [[ "$(sandbox_clock)" == paced ]] || { echo "card-clock: the sandbox was not started paced" >&2; return 1; }
    binary="$(build_tool paced-clock)" || return 1
    card_clock_stop
    # The speakers are emptied, and what plays into velto_mic_in reaches velto_mic, at one pace.
    setsid "$binary" 48000 "$ppm" "$dir/speakers.fifo:2" "$dir/mic-in.fifo:$dir/mic.fifo:1" \
        >/dev/null 2>>"$dir/card-clock.log" </dev/null &
    echo $! >"$dir/card-clock.pid"
    echo "$ppm" >"$dir/card-clock.ppm"
}
# --- end of the paced card's clock ---------------------------------------------------

start() {
    if is_running; then
        echo "sound sandbox already running at $server"
        return 0
    fi
    stop_quietly
    mkdir -p "$dir/runtime" "$dir/home" "$dir/state"
    chmod 700 "$dir" "$dir/runtime"
    local clock="${VELTO_SANDBOX_CLOCK:-null}"
    [[ "$clock" == null || "$clock" == paced ]] || { echo "VELTO_SANDBOX_CLOCK must be null or paced" >&2; return 2; }
    echo "$clock" >"$dir/clock"
    write_script "$clock"
    # A user-mode server: root is allowed to run one, it only warns. Its state, cookie
    # and runtime files stay inside the sandbox directory, away from any real server.
    (
        export HOME="$dir/home" XDG_RUNTIME_DIR="$dir/runtime" XDG_CONFIG_HOME="$dir/home/.config"
        export PULSE_RUNTIME_PATH="$dir/runtime/pulse" PULSE_STATE_PATH="$dir/state"
        unset PULSE_SERVER DBUS_SESSION_BUS_ADDRESS
        exec setsid pulseaudio --daemonize=no --system=false --exit-idle-time=-1 --disallow-exit \
            --disallow-module-loading=no --realtime=no --high-priority=no --use-pid-file=no \
            --log-target=stderr --log-level=notice -n -F "$dir/sandbox.pa"
    ) </dev/null >"$logfile" 2>&1 &
    echo $! >"$pidfile"
    for _ in $(seq 1 100); do
        if is_running; then
            if [[ "$clock" == paced ]]; then
                card_clock 0 || { stop_quietly; return 1; }
            fi
            echo "sound sandbox started at $server$([[ "$clock" == paced ]] && echo " (paced clock)")"
            echo "export PULSE_SERVER=$server"
            return 0
        fi
        if ! kill -0 "$(cat "$pidfile")" 2>/dev/null; then break; fi
        sleep 0.1
    done
    echo "sound sandbox failed to start; its log ($logfile):" >&2
    cat "$logfile" >&2 || true
    stop_quietly
    return 1
}

stop_quietly() {
    card_clock_stop
    if [[ -f "$pidfile" ]]; then
        local pid
        pid="$(cat "$pidfile")"
        if kill -0 "$pid" 2>/dev/null; then
            kill "$pid" 2>/dev/null || true
            for _ in $(seq 1 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
            kill -9 "$pid" 2>/dev/null || true
        fi
        rm -f "$pidfile"
    fi
    rm -f "$socket"
}

# --- echo path: loudspeakers heard by the microphone ---------------------------------
# module-loopback from the speakers' monitor into the microphone's feed sink, so that
# whatever plays reaches the virtual microphone as a room would bring it: later and
# quieter, mixed with anything else played into velto_mic_in (the near end). The loop
# keeps its rate (adjust_time=0): both null sinks run on the same clock, and a drifting
# resampler would make the echo path change under a canceller. The requested latency is
# the loop's target; the delay the microphone sees adds the sinks' block latency.
echo_path_module_file() { echo "$dir/echo-path.module"; }

echo_path_off() {
    local file module
    file="$(echo_path_module_file)"
    [[ -f "$file" ]] || return 0
    module="$(cat "$file")"
    PULSE_SERVER="$server" pactl unload-module "$module" 2>/dev/null || true
    rm -f "$file"
}

echo_path() {
    is_running || { echo "sound sandbox not running; start it first" >&2; return 1; }
    case "${1:-}" in
        on)
            local delay_ms="${2:-100}" attenuation_db="${3:-6}" module input
            [[ "$delay_ms" =~ ^[0-9]+$ ]] || { echo "echo-path: DELAY_MS must be whole milliseconds" >&2; return 2; }
            [[ "$attenuation_db" =~ ^[0-9]+([.][0-9]+)?$ ]] || { echo "echo-path: ATTENUATION_DB must be >= 0" >&2; return 2; }
            echo_path_off
            module="$(PULSE_SERVER="$server" pactl load-module module-loopback source=velto_speakers.monitor \
                sink=velto_mic_in latency_msec="$delay_ms" adjust_time=0 source_dont_move=true sink_dont_move=true \
                sink_input_properties=media.name=velto-echo-path source_output_properties=media.name=velto-echo-path)"
            echo "$module" >"$(echo_path_module_file)"
            # The loop's sink input carries the attenuation.
            input="$(PULSE_SERVER="$server" LC_ALL=C pactl list sink-inputs |
                awk -v m="$module" '/^Sink Input #/ { id = substr($3, 2) } /Owner Module:/ && $3 == m { print id; exit }')"
            [[ -n "$input" ]] || { echo "echo-path: the loop has no sink input" >&2; echo_path_off; return 1; }
            # pactl reads a plain decimal as a linear amplitude factor.
            PULSE_SERVER="$server" pactl set-sink-input-volume "$input" \
                "$(awk -v db="$attenuation_db" 'BEGIN { printf "%.6f", exp(-db / 20 * log(10)) }')"
            echo "echo path on: velto_speakers.monitor -> velto_mic_in, ${delay_ms} ms, -${attenuation_db} dB"
            ;;
        off)
            echo_path_off
            echo "echo path off"
            ;;
        *)
            echo "usage: $0 echo-path on [DELAY_MS] [ATTENUATION_DB] | echo-path off" >&2
            return 2
            ;;
    esac
}
# --- end of echo path --------------------------------------------------------------

# --- skewed microphone: a device on a clock of its own ------------------------------
# Null sinks all run on the system clock, so a second clock is made by hand: a pipe
# source hands on whatever its pipe receives, and a writer paces the samples by the
# monotonic clock at a skewed rate. The writer is built on first use.
skewed_mic_off() {
    if [[ -f "$dir/skewed-mic.pid" ]]; then
        kill "$(cat "$dir/skewed-mic.pid")" 2>/dev/null || true
        rm -f "$dir/skewed-mic.pid"
    fi
    if [[ -f "$dir/skewed-mic.module" ]]; then
        PULSE_SERVER="$server" pactl unload-module "$(cat "$dir/skewed-mic.module")" 2>/dev/null || true
        rm -f "$dir/skewed-mic.module"
    fi
    rm -f "$dir/skewed-mic.fifo"
}

skewed_mic() {
    is_running || { echo "sound sandbox not running; start it first" >&2; return 1; }
    case "${1:-}" in
        on)
            local ppm="${2:-}" binary module
            [[ "$ppm" =~ ^[-+]?[0-9]+([.][0-9]+)?$ ]] || { echo "skewed-mic: PPM must be a number" >&2; return 2; }
            binary="$(build_tool paced-source)" || return 1
            skewed_mic_off
            module="$(PULSE_SERVER="$server" pactl load-module module-pipe-source source_name=velto_skewed_mic \
                file="$dir/skewed-mic.fifo" format=float32le rate=16000 channels=1 \
                source_properties=device.description=Velto-Skewed-Microphone)"
            echo "$module" >"$dir/skewed-mic.module"
            # The writer outlives this script; it stops with skewed-mic off or the server.
            setsid "$binary" 16000 "$ppm" >"$dir/skewed-mic.fifo" 2>/dev/null </dev/null &
            echo $! >"$dir/skewed-mic.pid"
            echo "skewed microphone on: velto_skewed_mic, clock ${ppm} ppm off the system clock"
            ;;
        off)
            skewed_mic_off
            echo "skewed microphone off"
            ;;
        *)
            echo "usage: $0 skewed-mic on PPM | skewed-mic off" >&2
            return 2
            ;;
    esac
}
# --- end of skewed microphone -------------------------------------------------------

case "${1:-}" in
    start) start ;;
    echo-path) shift; echo_path "$@" ;;
    skewed-mic) shift; skewed_mic "$@" ;;
    card-clock)
        shift
        is_running || { echo "sound sandbox not running; start it first" >&2; exit 1; }
        card_clock "$@" && echo "card clock: ${1:-0} ppm off the system clock"
        ;;
    stop)
        skewed_mic_off
        stop_quietly
        echo "sound sandbox stopped"
        ;;
    env) echo "export PULSE_SERVER=$server" ;;
    status)
        if is_running; then
            echo "sound sandbox running at $server"
        else
            echo "sound sandbox not running"
            exit 1
        fi
        ;;
    *)
        echo "usage: $0 start|stop|env|status|echo-path|skewed-mic|card-clock" >&2
        exit 2
        ;;
esac
