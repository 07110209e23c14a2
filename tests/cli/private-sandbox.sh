# Sourced by the program's tests: gives them a sound server of their own (a sandbox in
# a private folder), so they neither depend on nor disturb any other server, and a
# private preferences folder. Stops it again when the sourcing script exits.
#   source private-sandbox.sh PROJECT_ROOT
velto_root=$1
velto_sandbox_work=$(mktemp -d /tmp/velto-cli-test.XXXXXX)
export VELTO_SANDBOX_DIR="$velto_sandbox_work/sandbox"
export XDG_CONFIG_HOME="$velto_sandbox_work/config"
stop_private_sandbox() {
    bash "$velto_root/scripts/sound-sandbox.sh" stop >/dev/null 2>&1 || true
    rm -rf "$velto_sandbox_work"
}
trap stop_private_sandbox EXIT
if ! bash "$velto_root/scripts/sound-sandbox.sh" start >/dev/null; then
    echo "SKIP: the sound sandbox cannot start here" >&2
    exit 0
fi
eval "$(bash "$velto_root/scripts/sound-sandbox.sh" env)"
