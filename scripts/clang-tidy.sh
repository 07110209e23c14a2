#!/usr/bin/env bash
# Runs clang-tidy with the project's .clang-tidy over the library and the command line
# (not the tests), from the compile commands of a configured build. Exits non-zero when
# it reports anything, so CI can call it as is.
#   scripts/clang-tidy.sh                    every source file (about four minutes on two cores)
#   scripts/clang-tidy.sh --changed [BASE]   only what differs from BASE (default: main),
#                                            committed or not; seconds for a usual change
#   scripts/clang-tidy.sh FILE...            only these
# With --changed, a changed header is checked through the source file of the same name,
# and only findings in the changed files are reported: what was there before is not the
# change's to answer for.
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

changed=()
if [[ "${1:-}" == --changed ]]; then
  base=$(git merge-base "${2:-main}" HEAD)
  mapfile -t changed < <(git diff --name-only --diff-filter=d "$base" -- 'src/*.cpp' 'src/*.hpp' 'cli/*.cpp' 'cli/*.hpp')
  files=()
  for file in "${changed[@]}"; do
    source=${file%.hpp}.cpp
    [[ -f "$source" && " ${files[*]} " != *" $source "* ]] && files+=("$source")
  done
  if ((${#files[@]} == 0)); then
    echo "clang-tidy: no source file changed since $(git rev-parse --short "$base")"
    exit 0
  fi
elif (($#)); then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'src/*.cpp' 'cli/*.cpp')
fi

report=$(mktemp)
trap 'rm -f "$report"' EXIT
started=$SECONDS
printf '%s\n' "${files[@]}" |
  xargs -P "$(nproc)" -n 2 "$tidy" -p "$dir" --quiet 2>/dev/null >"$report" || true
# A header's findings come once per file that includes it, under the link to it in the
# build's include roots (<build>/src/include-roots/<component>/<path under src>).
findings=$(grep -E ': (warning|error):' "$report" | sed -e 's|^.*/include-roots/[^/]*/|src/|' -e "s|^$root/||" |
  sort -u || true)
if ((${#changed[@]})); then
  findings=$(grep -F -f <(printf '%s:\n' "${changed[@]}") <<<"$findings" || true)
fi
if [[ -n "$findings" ]]; then
  echo "$findings"
  echo "clang-tidy: $(wc -l <<<"$findings") findings in ${#files[@]} files ($((SECONDS - started)) s)" >&2
  exit 1
fi
echo "clang-tidy: ${#files[@]} files, no findings ($((SECONDS - started)) s)"
