#!/usr/bin/env bash
# Installs the library and velto into a prefix and builds the README's embedding example
# against the installation twice: with CMake's find_package and with pkg-config.
#   scripts/drill-install.sh [BUILD_DIR] [PREFIX]   (default build-drill, /tmp/velto-prefix)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build-drill}
prefix=${2:-/tmp/velto-prefix}
work=$(mktemp -d /tmp/velto-install.XXXXXX)
trap 'rm -rf "$work"' EXIT

cmake -S "$root" -B "$build" -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2 --target veltoaudio velto >/dev/null
cmake --install "$build" --prefix "$prefix" >/dev/null
echo "installed into $prefix: $(cd "$prefix" && find . -type f | sort | tr '\n' ' ')"

# The example is the README's first C++ block.
awk '/^```cpp$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$root/README.md" >"$work/example.cpp"
cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(VeltoExample LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(VeltoAudio REQUIRED)
add_executable(example example.cpp)
target_link_libraries(example PRIVATE VeltoAudio::veltoaudio)
CMAKE
cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
echo "find_package(VeltoAudio): built $(ls "$work/build/example")"

pcdir=$(dirname "$(find "$prefix" -name veltoaudio.pc | head -1)")
libdir=$(dirname "$(find "$prefix" -name 'libveltoaudio.so' | head -1)")
export PKG_CONFIG_PATH="$pcdir"
# shellcheck disable=SC2046
c++ -std=c++20 "$work/example.cpp" $(pkg-config --cflags --libs veltoaudio) -Wl,-rpath,"$libdir" \
    -o "$work/example-pkgconfig"
echo "pkg-config veltoaudio: built $work/example-pkgconfig"
"$prefix/bin/velto" --help >/dev/null && echo "installed velto runs: $prefix/bin/velto"
