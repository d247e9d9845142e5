#!/usr/bin/env bash
# In-place tag edit of a large MP4: `qxmp4 set` against AtomicParsley's
# `--overWrite`, measured on the same file in the same run.
#
# Makes a ~1 GiB MP4 (ffmpeg -c copy of a looped 10 s source, with room for
# the movie header reserved after moov), then times
#   - qxmp4 tags FILE            (read only: process start-up and parsing)
#   - qxmp4 set FILE ©nam=...    (edit in place)
#   - AtomicParsley FILE --title ... --overWrite
# and prints the medians and the ratio. `qxmp4 help` is timed too: most of a
# short run is process start-up (loading libqxmedia and its dependencies).
#
# usage: bench/bench_mp4_tags.sh [QXMP4] [SIZE_MIB]
#   QXMP4     path of the qxmp4 tool (default build/tools/qxmp4)
#   SIZE_MIB  size of the test file (default 1024)
# WORK=dir keeps the generated files there (default: a temporary folder,
# removed at the end).
set -euo pipefail

QXMP4=${1:-build/tools/qxmp4}
SIZE_MIB=${2:-1024}
RUNS=${RUNS:-5}
AP_RUNS=${AP_RUNS:-3}

for tool in ffmpeg AtomicParsley "$QXMP4"; do
  command -v "$tool" >/dev/null || { echo "bench_mp4_tags: $tool not found" >&2; exit 2; }
done

if [ -n "${WORK:-}" ]; then
  mkdir -p "$WORK"
else
  WORK=$(mktemp -d)
  trap 'rm -rf "$WORK"' EXIT
fi

src=$WORK/source.mp4
big=$WORK/big.mp4
if [ ! -s "$src" ]; then
  ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=1280x720:rate=30:duration=10 \
    -f lavfi -i sine=frequency=440:duration=10 \
    -c:v libx264 -preset ultrafast -qp 10 -pix_fmt yuv420p -c:a aac -b:a 128k "$src"
fi
if [ ! -s "$big" ]; then
  src_bytes=$(stat -c %s "$src")
  loops=$(( (SIZE_MIB * 1048576 + src_bytes - 1) / src_bytes ))
  # -moov_size puts moov first and reserves room after it (a free box).
  ffmpeg -nostdin -y -v error -stream_loop $((loops - 1)) -i "$src" -c copy -moov_size 4194304 "$big"
fi
size=$(stat -c %s "$big")

now_ns() { date +%s%N; }
# Prints the median of the arguments.
median() { printf '%s\n' "$@" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ms() { awk -v ns="$1" 'BEGIN {printf "%.1f", ns / 1e6}'; }

start_times=()
read_times=()
set_times=()
for i in $(seq "$RUNS"); do
  t0=$(now_ns); "$QXMP4" help >/dev/null; t1=$(now_ns)
  start_times+=($((t1 - t0)))
  t0=$(now_ns); "$QXMP4" tags "$big" >/dev/null; t1=$(now_ns)
  read_times+=($((t1 - t0)))
  t0=$(now_ns); "$QXMP4" set "$big" "©nam=qxmp4 title $i" "©cmt=run $i"; t1=$(now_ns)
  set_times+=($((t1 - t0)))
done
size_after=$(stat -c %s "$big")
if [ "$size_after" != "$size" ]; then
  echo "bench_mp4_tags: qxmp4 set changed the file size ($size -> $size_after): not in place" >&2
fi
AtomicParsley "$big" -t | grep -q "qxmp4 title $RUNS" || { echo "bench_mp4_tags: AtomicParsley does not see the edit" >&2; exit 1; }

ap_times=()
for i in $(seq "$AP_RUNS"); do
  cp --reflink=never "$big" "$WORK/ap.mp4"
  sync "$WORK/ap.mp4"
  t0=$(now_ns); AtomicParsley "$WORK/ap.mp4" --title "AtomicParsley title $i" --overWrite >/dev/null; t1=$(now_ns)
  ap_times+=($((t1 - t0)))
done
rm -f "$WORK/ap.mp4"

start_ns=$(median "${start_times[@]}")
read_ns=$(median "${read_times[@]}")
set_ns=$(median "${set_times[@]}")
ap_ns=$(median "${ap_times[@]}")
echo "file: $(awk -v b="$size" 'BEGIN {printf "%.0f MiB", b / 1048576}') MP4, moov first with room after it"
echo "qxmp4 help (process start-up only):        $(ms "$start_ns") ms (median of $RUNS)"
echo "qxmp4 tags (read only, start-up and parse): $(ms "$read_ns") ms (median of $RUNS)"
echo "qxmp4 set (in-place edit):                 $(ms "$set_ns") ms (median of $RUNS)"
echo "AtomicParsley --overWrite (rewrite):       $(ms "$ap_ns") ms (median of $AP_RUNS)"
awk -v a="$ap_ns" -v q="$set_ns" 'BEGIN {printf "ratio AtomicParsley / qxmp4 set: %.1fx\n", a / q}'
awk -v s="$set_ns" -v r="$start_ns" 'BEGIN {printf "edit beyond process start-up: %.1f ms\n", (s - r) / 1e6}'
