#!/usr/bin/env bash
# Runs clang-tidy with the project's .clang-tidy over the library and the command line
# (not the tests), from the compile commands of a configured build. Exits non-zero when
# it reports anything, so CI can call it as is.
#   scripts/clang-tidy.sh                 every source file
#   scripts/clang-tidy.sh FILE...         only these (e.g. the files a change touches)
# Environment: VELTO_TIDY_BUILD_DIR (default build-tidy; configured here if missing).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
dir=${VELTO_TIDY_BUILD_DIR:-$root/build-tidy}
tidy=$(command -v clang-tidy-14 || command -v clang-tidy)

if [[ ! -f "$dir/compile_commands.json" ]]; then
  # Configuring is enough: nothing the checked files include is generated.
  cmake -S "$root" -B "$dir" -DVELTO_BUILD_BENCHMARKS=OFF -DVELTO_BUILD_TESTS=OFF >/dev/null
fi

if (($#)); then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'src/*.cpp' 'cli/*.cpp')
fi

report=$(mktemp)
trap 'rm -f "$report"' EXIT
printf '%s\n' "${files[@]}" |
  xargs -P "$(nproc)" -n 4 "$tidy" -p "$dir" --quiet 2>/dev/null >"$report" || true
if grep -E ': (warning|error):' "$report"; then
  echo "clang-tidy: $(grep -cE ': (warning|error):' "$report") findings" >&2
  exit 1
fi
echo "clang-tidy: ${#files[@]} files, no findings"
