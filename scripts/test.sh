#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, and runs every test in a
# normal build (then clang-tidy over the files changed since main), under
# ThreadSanitizer (the library is threads and callbacks) and under AddressSanitizer +
# UndefinedBehaviorSanitizer. With CI=true (as .ci/run sets it) the normal build's tests
# are followed by the Clang build, whose thread-safety analysis turns a violated
# VELTO_GUARDED_BY into an error, and clang-tidy checks the whole tree.
#   scripts/test.sh            all three
#   scripts/test.sh --quick    normal build only
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

with_tsan=1
with_asan=1
for arg in "$@"; do
  case "$arg" in
    --quick) with_tsan=0; with_asan=0 ;;
    *) echo "usage: scripts/test.sh [--quick]" >&2; exit 2 ;;
  esac
done

bash scripts/setup.sh

jobs=$(nproc)
run_suite() {  # name, cmake args...
  local name=$1; shift
  local dir="$root/build-test-$name"
  echo "== $name build"
  cmake -S "$root" -B "$dir" -DVELTO_BUILD_BENCHMARKS=OFF "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== $name tests"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs")
}

run_suite normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
if [[ "${CI:-}" == true ]]; then
  # GCC ignores the annotations: only a Clang build checks them.
  echo "== clang build (thread-safety analysis)"
  bash scripts/clang-checks.sh --build
fi
# clang-tidy: in CI over the whole tree (a clean checkout of main has no change to
# look at; a few minutes on two cores), elsewhere over what this branch changed
# (VELTO_TIDY_BASE, default main), under a minute for a usual change.
tidy_base=${VELTO_TIDY_BASE:-main}
if [[ "${CI:-}" == true ]]; then
  command -v clang-tidy-14 >/dev/null || VELTO_WITH_CLANG=1 bash scripts/setup.sh
  echo "== clang-tidy (whole tree)"
  VELTO_TIDY_BUILD_DIR="$root/build-test-normal" bash scripts/clang-tidy.sh
elif git rev-parse -q --verify "$tidy_base^{commit}" >/dev/null; then
  command -v clang-tidy-14 >/dev/null || VELTO_WITH_CLANG=1 bash scripts/setup.sh
  echo "== clang-tidy (changes since $tidy_base)"
  VELTO_TIDY_BUILD_DIR="$root/build-test-normal" bash scripts/clang-tidy.sh --changed "$tidy_base"
else
  echo "== clang-tidy skipped: no $tidy_base to compare with (set VELTO_TIDY_BASE)"
fi
if ((with_tsan)); then
  # Halt on the first report so a race fails the run instead of scrolling by.
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$root/tests/tsan.supp ${TSAN_OPTIONS:-}" \
    run_suite tsan -DCMAKE_BUILD_TYPE=Debug -DVELTO_SANITIZE=thread
fi
if ((with_asan)); then
  ASAN_OPTIONS="detect_leaks=1 ${ASAN_OPTIONS:-}" UBSAN_OPTIONS="print_stacktrace=1 ${UBSAN_OPTIONS:-}" \
    run_suite asan -DCMAKE_BUILD_TYPE=Debug -DVELTO_SANITIZE=address
fi
echo "== all test runs passed"
