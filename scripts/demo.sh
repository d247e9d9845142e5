#!/usr/bin/env bash
# Set-up, build, then the most the library does today on a generated sample:
# what the source holds, a read of the whole source through the pipeline, a
# copy of its tracks into an M4V, and a conversion with an encode preset;
# ffprobe describes each output.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh >/dev/null
mkdir -p sample
sample=sample/sample.mkv
if [ ! -s "$sample" ]; then
  printf '1\n00:00:01,000 --> 00:00:03,000\nHello from QXMedia\n\n2\n00:00:04,000 --> 00:00:06,000\nA second line\n\n' > sample/sample.srt
  printf ';FFMETADATA1\ntitle=QXMedia sample\nartist=QXMedia\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=4000\ntitle=Start\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=4000\nEND=8000\ntitle=End\n' > sample/sample.ffmeta
  ffmpeg -nostdin -y -v error \
    -f lavfi -i testsrc2=size=640x360:rate=25:duration=8 \
    -f lavfi -i sine=frequency=440:sample_rate=48000:duration=8 \
    -i sample/sample.srt -i sample/sample.ffmeta \
    -filter_complex "[1:a]asplit[s][m];[m]aformat=channel_layouts=5.1[a51]" \
    -map 0:v -map "[s]" -map "[a51]" -map 2 -map_metadata 3 -map_chapters 3 \
    -c:v libx264 -preset veryfast -crf 28 -pix_fmt yuv420p \
    -c:a:0 aac -b:a:0 128k -c:a:1 ac3 -b:a:1 384k -c:s srt \
    -metadata:s:a:0 language=eng -metadata:s:a:1 language=eng -metadata:s:s:0 language=eng \
    "$sample"
fi
qx=build/tools/qxconvert
describe() {
  ffprobe -v error -show_entries stream=index,codec_name,codec_type,width,height,duration:format_tags=title \
    -of compact=p=0 "$1"
}
"$qx" version | head -n 1
echo
"$qx" info "$sample"
echo
"$qx" read "$sample"
echo
"$qx" remux "$sample" -o sample/sample.m4v
describe sample/sample.m4v
echo
"$qx" convert "$sample" -o sample/sample-720p.m4v --preset 720p --plan
echo
"$qx" convert "$sample" -o sample/sample-720p.m4v --preset 720p
describe sample/sample-720p.m4v
echo
# Fast start and the hand-over to a media library kept in a temporary
# XDG_DATA_HOME: the library files the video in a media-server layout.
library_home=$(mktemp -d)
trap 'rm -rf "$library_home"' EXIT
cp sample/sample.m4v sample/sample-library.m4v
XDG_DATA_HOME="$library_home" "$qx" convert sample/sample-library.m4v -o sample/sample-library-out.m4v \
  --optimize --add-to-library tv
rm -f sample/sample-library.m4v
XDG_DATA_HOME="$library_home" "$qx" library list
