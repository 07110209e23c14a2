# Shared by the drill scripts (sourced, not run): builds velto once in release mode,
# gives the drill a private sandbox sound server and private preference/recording
# folders, and cleans all of it up when the drill exits.
#
# VELTO=/path/to/velto skips the build and drills that program instead.
# Provides: $root, $velto, $work, play_into SINK SECONDS [FREQUENCY] [AMPLITUDE], sandbox_pid,
#           restart_sandbox, last_progress_seconds EVENTS_FILE, note "text".
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
work=$(mktemp -d /tmp/velto-drill.XXXXXX)
export VELTO_SANDBOX_DIR="$work/sandbox"
export XDG_CONFIG_HOME="$work/config" XDG_DATA_HOME="$work/data"
drill_background=()

drill_cleanup() {
    local pid
    for pid in "${drill_background[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    bash "$root/scripts/sound-sandbox.sh" stop >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap drill_cleanup EXIT

note() { echo "[$(date -u +%H:%M:%S)] $*" >&2; }

if [[ -z ${VELTO:-} ]]; then
    note "building velto (RelWithDebInfo) in build-drill"
    cmake -S "$root" -B "$root/build-drill" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELTO_BUILD_TESTS=OFF \
        -DVELTO_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$root/build-drill" -j2 --target velto >/dev/null
    velto="$root/build-drill/cli/velto"
else
    velto=$VELTO
fi

bash "$root/scripts/sound-sandbox.sh" start >/dev/null
eval "$(bash "$root/scripts/sound-sandbox.sh" env)"

sandbox_pid() { cat "$VELTO_SANDBOX_DIR/pulseaudio.pid"; }
restart_sandbox() {
    bash "$root/scripts/sound-sandbox.sh" stop >/dev/null 2>&1 || true
    bash "$root/scripts/sound-sandbox.sh" start >/dev/null
}

# play_into SINK SECONDS [FREQUENCY] [AMPLITUDE]: a sine tone (by default at -12 dBFS)
# into SINK, in the background.
play_into() {
    local sink=$1 seconds=$2 frequency=${3:-440} amplitude=${4:-0.25}
    (sox -q -n -t raw -r 48000 -e float -b 32 -c 1 - synth "$seconds" sine "$frequency" vol "$amplitude" |
        pacat --playback --device="$sink" --rate=48000 --channels=1 --format=float32le 2>/dev/null) &
    drill_background+=($!)
}

# The recorded time of the last progress event in a --json event file.
last_progress_seconds() {
    grep '"event":"progress"' "$1" | tail -1 | sed -n 's/.*"elapsed":\([0-9.]*\).*/\1/p'
}
