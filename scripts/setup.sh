#!/usr/bin/env bash
# Installs every Debian 12 package the project needs to build, test and run its
# tools. Idempotent and quiet: apt is skipped when everything is present.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git clang libclang-rt-14-dev
  libavformat-dev libavcodec-dev libavutil-dev libswresample-dev libswscale-dev ffmpeg
  libicu-dev libplist-dev libpugixml-dev libcld2-dev libsqlite3-dev
  libebml-dev libmatroska-dev libtesseract-dev libleptonica-dev tesseract-ocr tesseract-ocr-eng
  libgtest-dev libgmock-dev libbenchmark-dev libgoogle-perftools-dev time linux-perf
  atomicparsley hyperfine mediainfo mkvtoolnix dvdauthor lsdvd fonts-dejavu-core python3 doxygen
  python3-dev python3-pybind11 pybind11-dev python3-pytest
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "setup: installing ${missing[*]}" >&2
SUDO=
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
