#!/usr/bin/env bash
# The Clang build: compiles the library and the command line with clang-14, where the
# thread-safety analysis turns an unguarded use of a VELTO_GUARDED_BY member into an
# error, then runs clang-tidy on the same compile commands.
#   scripts/clang-checks.sh            build, then clang-tidy
#   scripts/clang-checks.sh --build    build only
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
VELTO_WITH_CLANG=1 bash scripts/setup.sh
dir=$root/build-clang
cmake -S "$root" -B "$dir" -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=Debug \
  -DVELTO_BUILD_BENCHMARKS=OFF -DVELTO_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j"$(nproc)"
[[ "${1:-}" == --build ]] && exit 0
VELTO_TIDY_BUILD_DIR=$dir bash scripts/clang-tidy.sh
