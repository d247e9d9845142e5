#!/usr/bin/env bash
# Installs the build into a temporary prefix, checks that only public headers
# went there, and builds the converter and tag editor examples against it
# twice (find_package(QXMedia) and pkg-config); each build converts a
# generated source and tags the result.
set -euo pipefail
build=$1
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null

installed=$(cd "$work/prefix/include" && find qxmedia -name '*.h' ! -name version.h | sort)
expected=$(sort "$build/public-headers.txt")
[ "$installed" = "$expected" ] || { echo "installed headers differ from the public list:"; diff <(echo "$expected") <(echo "$installed"); exit 1; }

ffmpeg -loglevel error -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 \
  -f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 \
  -c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac "$work/source.mkv"

# Converts the source with the given converter and tag editor, then reads the tag back.
convert_and_tag() {
  local convert=$1 tags=$2 output="$work/out-$3.m4v"
  LD_LIBRARY_PATH="$work/prefix/lib" "$convert" "$work/source.mkv" "$output" >/dev/null 2>"$work/err" ||
    { echo "$3: convert failed: $(cat "$work/err")"; exit 1; }
  LD_LIBRARY_PATH="$work/prefix/lib" "$tags" "$output" "name=Made by $3"
  local shown
  shown=$(LD_LIBRARY_PATH="$work/prefix/lib" "$tags" "$output")
  [ "$shown" = "name=Made by $3" ] || { echo "$3: tags read back: $shown"; exit 1; }
}

cmake -S "$source_dir/examples" -B "$work/cmake-build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake-build" --target example_convert example_tags >/dev/null
convert_and_tag "$work/cmake-build/convert" "$work/cmake-build/tags" find_package

export PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig"
for example in convert tags; do
  # shellcheck disable=SC2046
  c++ -o "$work/pc-$example" "$source_dir/examples/$example.cpp" $(pkg-config --cflags --libs qxmedia) -pthread
done
convert_and_tag "$work/pc-convert" "$work/pc-tags" pkg-config
echo "install: public headers only; examples built with find_package and pkg-config converted and tagged"
