#!/usr/bin/env bash
# Installs, on a Debian bookworm machine, every package VeltoAudio needs to
# build, test and record, but only those that are missing. Safe to run often.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libpulse-dev libsoxr-dev libsndfile1-dev
  libcli11-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libfftw3-dev
  pulseaudio pulseaudio-utils sox espeak-ng flac
)
# Reference tool for the cost comparison drill, and the other echo cancellers the
# echo measurement program compares against; none is needed to build the library.
if [[ "${VELTO_WITH_DRILL_TOOLS:-0}" == 1 ]]; then packages+=(ffmpeg libwebrtc-audio-processing-dev libspeexdsp-dev); fi
# The Clang build (thread-safety analysis, clang-tidy) only: scripts/clang-checks.sh.
if [[ "${VELTO_WITH_CLANG:-0}" == 1 ]]; then packages+=(clang-14 clang-tidy-14 clang-format-14); fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  sudo_cmd=()
  [[ $(id -u) -ne 0 ]] && sudo_cmd=(sudo)
  export DEBIAN_FRONTEND=noninteractive
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
else
  echo "setup: all packages present"
fi
