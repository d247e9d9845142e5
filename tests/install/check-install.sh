#!/usr/bin/env bash
# Installs the build into a temporary prefix and builds a small host program
# against it twice: with find_package(QXMedia) and with pkg-config.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null

mkdir -p "$work/host"
cat > "$work/host/main.cpp" <<'CPP'
#include <cstdio>
#include "qxmedia/core/QXMedia.h"
#include "qxmedia/core/QXVersion.h"
#include "qxmedia/platform/foundation/CMTime.h"
int main()
{
    QXMedia::sharedMedia();
    auto error = QXMedia::errorWithDomain(QXMediaErrorDomain, -13001);
    std::printf("%s %s %s\n", QXMediaVersionString(), error->localizedDescription().c_str(),
                qx::CMTimeCopyDescription(qx::CMTimeMake(1001, 30000)).c_str());
    return 0;
}
CPP
cat > "$work/host/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(host CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(QXMedia 0.1 REQUIRED)
add_executable(host main.cpp)
target_link_libraries(host PRIVATE QXMedia::qxmedia)
CMAKE
cmake -S "$work/host" -B "$work/host/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/host/build" >/dev/null
expected="0.1.0 Failed to open File {1001/30000 = 0.033}"
out=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/host/build/host")
[ "$out" = "$expected" ] || { echo "find_package host printed: $out"; exit 1; }

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
# shellcheck disable=SC2046
c++ -o "$work/host/pc-host" "$work/host/main.cpp" $(pkg-config --cflags --libs qxmedia)
out=$(LD_LIBRARY_PATH="$work/prefix/lib" "$work/host/pc-host")
[ "$out" = "$expected" ] || { echo "pkg-config host printed: $out"; exit 1; }
echo "install: find_package and pkg-config hosts built and ran"
