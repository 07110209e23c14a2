#!/usr/bin/env bash
# Installs the library (and velto) into a prefix and builds the README's embedding example
# against the installation twice, as a host project would: with CMake's find_package, in a
# project that sets no C++ standard of its own (the package must bring C++20), and with
# pkg-config.
#   scripts/drill-install.sh [BUILD_DIR] [PREFIX]   (default build-drill, a fresh temporary prefix)
#   scripts/drill-install.sh --built BUILD_DIR      installs what BUILD_DIR has already built
#                                                   (the `install` test uses this)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
prebuilt=false
if [[ ${1:-} == --built ]]; then
    prebuilt=true
    shift
fi
build=${1:-$root/build-drill}
work=$(mktemp -d /tmp/velto-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=${2:-$work/prefix}

if ! $prebuilt; then
    cmake -S "$root" -B "$build" -DVELTO_BUILD_TESTS=OFF -DVELTO_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$build" -j2 --target veltoaudio velto >/dev/null
fi
cmake --install "$build" --prefix "$prefix" >/dev/null
echo "installed into $prefix: $(cd "$prefix" && find . -type f | sort | tr '\n' ' ')"
if [[ -e $prefix/include/veltoaudio/UserDefaults.hpp ]]; then
    echo "FAIL: an internal header was installed" >&2
    exit 1
fi

# The example is the README's first C++ block.
awk '/^```cpp$/ { inside = 1; next } /^```$/ && inside { exit } inside' "$root/README.md" >"$work/example.cpp"
# No CMAKE_CXX_STANDARD: g++ 12 defaults to C++17, and the headers need C++20.
cat >"$work/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(VeltoExample LANGUAGES CXX)
find_package(VeltoAudio REQUIRED)
add_executable(example example.cpp)
target_link_libraries(example PRIVATE VeltoAudio::veltoaudio)
CMAKE
cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
echo "find_package(VeltoAudio), no standard set by the host: built $(ls "$work/build/example")"

pcdir=$(dirname "$(find "$prefix" -name veltoaudio.pc | head -1)")
libdir=$(dirname "$(find "$prefix" -name 'libveltoaudio.so' | head -1)")
export PKG_CONFIG_PATH="$pcdir"
# shellcheck disable=SC2046
c++ "$work/example.cpp" $(pkg-config --cflags --libs veltoaudio) -Wl,-rpath,"$libdir" \
    -o "$work/example-pkgconfig"
echo "pkg-config veltoaudio: built $work/example-pkgconfig"
if [[ -e $prefix/bin/velto ]]; then
    "$prefix/bin/velto" --help >/dev/null && echo "installed velto runs: $prefix/bin/velto"
fi
