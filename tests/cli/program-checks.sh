#!/usr/bin/env bash
# Runs the built velto program with one kind of user mistake (or --help) and checks the
# exit status and what it prints. Usage: program-checks.sh VELTO CHECK
set -uo pipefail
velto=$1
check=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The preferred-microphone store must not touch the real user's settings.
export XDG_CONFIG_HOME="$work/config" HOME="$work/home"
mkdir -p "$HOME"

fail() { echo "FAIL [$check]: $*" >&2; echo "--- stdout:" >&2; cat "$work/out" >&2; echo "--- stderr:" >&2; cat "$work/err" >&2; exit 1; }

# run EXPECTED_STATUS ARGS...: runs velto, checks the status.
run() {
    local expected=$1; shift
    timeout 60 "$velto" "$@" >"$work/out" 2>"$work/err"
    local status=$?
    [[ $status -eq $expected ]] || fail "velto $* exited $status, expected $expected"
}
one_error_line() {  # the whole complaint is one line on standard error, naming $1
    [[ $(wc -l <"$work/err") -eq 1 ]] || fail "expected exactly one line on standard error"
    grep -q -- "$1" "$work/err" || fail "standard error does not mention '$1'"
    grep -q '^velto: ' "$work/err" || fail "the line does not start with 'velto: '"
}
usage_shown() {
    grep -q 'Usage' "$work/err" || fail "no usage on standard error"
    [[ ! -s "$work/out" ]] || fail "standard output should stay empty"
}

case "$check" in
    help)
        run 0 --help
        grep -q 'record' "$work/out" || fail "help does not list record"
        run 0 record --help
        grep -q -- '--duration' "$work/out" || fail "record help does not show --duration"
        ;;
    version)
        run 0 --version
        grep -Eq '^velto [0-9]+\.[0-9]+\.[0-9]+$' "$work/out" || fail "no version on standard output"
        ;;
    no-sound-server)
        # A headless machine: nothing answers where the client looks. The user is told
        # where that was and what to do, by record and by permissions alike.
        export PULSE_SERVER="unix:$work/no-server-here"
        for sources in microphone system; do
            run 1 record --sources "$sources" --duration 1 --output "$work/take.flac"
            one_error_line "unix:$work/no-server-here"
            grep -q 'PULSE_SERVER' "$work/err" || fail "no word of PULSE_SERVER"
            grep -q -i 'permission' "$work/err" && fail "blames a permission"
            [[ ! -e "$work/take.flac" ]] || fail "a file was created"
        done
        run 1 permissions --sources both
        one_error_line "unix:$work/no-server-here"
        ;;
    bad-arguments)
        # Every kind of bad line takes the same way out, before anything is created; the
        # parser's tests go through the kinds (durations, format and source conflicts).
        run 2
        usage_shown
        run 2 record --sources speakers
        usage_shown
        run 2 record --duration nan --output "$work/never.flac"
        usage_shown
        [[ ! -e "$work/never.flac" ]] || fail "a file was created for a bad duration"
        ;;
    output-path)
        # A path that cannot take the recording ends with one line and touches nothing;
        # the output path check's tests go through the kinds.
        run 1 record --duration 1 --output "$work/no/such/folder/take.flac"
        one_error_line 'does not exist'
        [[ ! -e "$work/no" ]] || fail "the missing folder was created"
        echo "an earlier recording" >"$work/take.flac"
        run 1 record --duration 1 --output "$work/take.flac"
        one_error_line '--overwrite'
        [[ $(cat "$work/take.flac") == "an earlier recording" ]] || fail "the existing file was changed"
        ;;
    *)
        echo "unknown check $check" >&2
        exit 2
        ;;
esac
echo "ok [$check]"
