#!/usr/bin/env bash
# The shared library exports the public interface and nothing else: every exported name
# is the library's own and is declared in the installed headers; no platform layer, no
# internal type, no C symbol such as the permission shims' TCCAccessPreflight.
#   exported-symbols.sh LIBRARY PUBLIC_HEADER_DIR
set -euo pipefail
library=$1
headers=$2

symbols=$(nm -D --defined-only "$library" | awk '{ $1 = ""; $2 = ""; sub(/^ +/, ""); print }')
demangled=$(printf '%s\n' "$symbols" | c++filt)
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# The identifiers of the installed headers, comments left out.
declared=$(sed -e 's://.*$::' "$headers"/*.hpp | grep -oE '[A-Za-z_][A-Za-z0-9_]*' | sort -u)

while IFS= read -r symbol; do
    [[ -z $symbol ]] && continue
    name=${symbol#typeinfo name for }
    name=${name#typeinfo for }
    name=${name#vtable for }
    if [[ $name != velto::* ]]; then
        fail "exported but not the library's: $symbol"
        continue
    fi
    # The qualified name, without its parameters, ABI tags or template arguments.
    qualified=${name%%(*}
    qualified=${qualified//\[abi:cxx11\]/}
    qualified=${qualified%%<*}
    IFS=':' read -ra parts <<<"${qualified//::/:}"
    for part in "${parts[@]:1}"; do
        part=${part#\~}
        [[ -z $part || $part == operator* ]] && continue
        if ! grep -qxF "$part" <<<"$declared"; then
            fail "exported but not in the installed headers ($part): $symbol"
            break
        fi
    done
done <<<"$demangled"

if grep -q 'TCCAccess' <<<"$symbols"; then fail "the permission shims' C symbols are exported"; fi
if grep -q 'velto::platform' <<<"$demangled"; then fail "platform-layer symbols are exported"; fi
# Guards against a check that passes because it saw nothing.
for needed in 'velto::RecordingService::startRecording(' 'typeinfo for velto::RecordingError' 'velto::setLogSink('; do
    grep -qF "$needed" <<<"$demangled" || fail "missing from the exports: $needed"
done

count=$(printf '%s\n' "$demangled" | grep -c .)
if ((failures > 0)); then
    echo "$failures problem(s) in the $count exported symbols of $library"
    exit 1
fi
echo "$count exported symbols, all of the public interface"
