#!/usr/bin/env bash
# In-place update of one tag of a large MP4 through a job: `qxconvert update
# --set` against AtomicParsley's rewrite (`--overWrite`), measured on the
# same file in the same run.
#
# Makes a ~1 GiB MP4 without room after its movie box (ffmpeg -c copy of a
# looped 10 s source, moov at the end), then times
#   - qxconvert update FILE --set name=...   (opens the movie, edits in place)
#   - AtomicParsley FILE --title ... --overWrite
# and prints the medians and the ratio.
#
# usage: bench/bench_update.sh [QXCONVERT] [SIZE_MIB]
#   QXCONVERT  path of the qxconvert tool (default build/tools/qxconvert)
#   SIZE_MIB   size of the test file (default 1024)
# WORK=dir keeps the generated files there (default: a temporary folder,
# removed at the end).
set -euo pipefail

QXCONVERT=${1:-build/tools/qxconvert}
SIZE_MIB=${2:-1024}
RUNS=${RUNS:-5}
AP_RUNS=${AP_RUNS:-3}

. "$(dirname "$0")/bench_common.sh"
require bench_update ffmpeg AtomicParsley "$QXCONVERT"
work_folder

src=$WORK/source.mp4
big=$WORK/big.m4v
if [ ! -s "$src" ]; then
  ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=1280x720:rate=30:duration=10 \
    -f lavfi -i sine=frequency=440:duration=10 \
    -c:v libx264 -preset ultrafast -qp 10 -pix_fmt yuv420p -c:a aac -b:a 128k "$src"
fi
if [ ! -s "$big" ]; then
  src_bytes=$(stat -c %s "$src")
  loops=$(( (SIZE_MIB * 1048576 + src_bytes - 1) / src_bytes ))
  ffmpeg -nostdin -y -v error -stream_loop $((loops - 1)) -i "$src" -c copy "$big"
fi
size=$(stat -c %s "$big")

now_ns() { date +%s%N; }
median() { printf '%s\n' "$@" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ms() { awk -v ns="$1" 'BEGIN {printf "%.1f", ns / 1e6}'; }

update_times=()
for i in $(seq "$RUNS"); do
  t0=$(now_ns); "$QXCONVERT" update "$big" --set "name=qxconvert title $i" >/dev/null; t1=$(now_ns)
  update_times+=($((t1 - t0)))
done
AtomicParsley "$big" -t | grep -q "qxconvert title $RUNS" || { echo "bench_update: AtomicParsley does not see the edit" >&2; exit 1; }
size_after=$(stat -c %s "$big")

ap_times=()
for i in $(seq "$AP_RUNS"); do
  cp --reflink=never "$big" "$WORK/ap.m4v"
  sync "$WORK/ap.m4v"
  t0=$(now_ns); AtomicParsley "$WORK/ap.m4v" --title "AtomicParsley title $i" --overWrite >/dev/null; t1=$(now_ns)
  ap_times+=($((t1 - t0)))
done
rm -f "$WORK/ap.m4v"

update_ns=$(median "${update_times[@]}")
ap_ns=$(median "${ap_times[@]}")
echo "file: $(awk -v b="$size" 'BEGIN {printf "%.0f MiB", b / 1048576}') MP4, moov at the end, no room after it"
echo "size after $RUNS updates: $(( size_after - size )) bytes more"
echo "qxconvert update --set (in place):   $(ms "$update_ns") ms (median of $RUNS)"
echo "AtomicParsley --overWrite (rewrite): $(ms "$ap_ns") ms (median of $AP_RUNS)"
awk -v a="$ap_ns" -v q="$update_ns" 'BEGIN {printf "ratio AtomicParsley / qxconvert update: %.1fx\n", a / q}'
