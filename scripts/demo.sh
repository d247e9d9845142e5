#!/usr/bin/env bash
# Set-up, build, then the most the library does today on a generated sample.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh >/dev/null
mkdir -p sample
sample=sample/sample.mkv
if [ ! -s "$sample" ]; then
  ffmpeg -nostdin -y -v error \
    -f lavfi -i testsrc2=size=640x360:rate=25:duration=5 \
    -f lavfi -i sine=frequency=440:sample_rate=48000:duration=5 \
    -c:v libx264 -preset veryfast -crf 28 -pix_fmt yuv420p -c:a aac -b:a 128k \
    -metadata title="QXMedia sample" "$sample"
fi
qx=build/tools/qxconvert
"$qx" version
"$qx" encoders
