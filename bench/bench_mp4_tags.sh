#!/usr/bin/env bash
# qxmp4 against AtomicParsley, measured in the same run with hyperfine
# (medians):
#
#  1. Start-up: `qxmp4 --version` and `qxmp4 tags` of a small file against
#     `AtomicParsley FILE -t`, and the shared objects each program loads.
#  2. One tag set on a ~1 GiB MP4 whose moov comes first with no room after
#     it: `qxmp4 set` against AtomicParsley on a copy of the same file, which
#     rewrites it (--overWrite), and against AtomicParsley's in-place edit of
#     the file it wrote (which it wrote with padding).
#     Targets: at least 100 times faster than the rewrite, and at most twice
#     the time of AtomicParsley's in-place edit.
#
# usage: bench/bench_mp4_tags.sh [QXMP4] [SIZE_MIB]
#   QXMP4     path of the qxmp4 tool (default build/tools/qxmp4)
#   SIZE_MIB  size of the test file (default 1024)
# WORK=dir keeps the generated files there (default: a temporary folder,
# removed at the end). RUNS sets the runs of the edits (default 15).
set -euo pipefail

QXMP4=$(realpath "${1:-build/tools/qxmp4}")
SIZE_MIB=${2:-1024}
RUNS=${RUNS:-15}
AP_RUNS=${AP_RUNS:-3}

. "$(dirname "$0")/bench_common.sh"
require bench_mp4_tags ffmpeg AtomicParsley hyperfine "$QXMP4"
work_folder
cd "$WORK"

if [ ! -s small.mp4 ]; then
  ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=320x240:rate=25:duration=2 \
    -f lavfi -i sine=duration=2 -c:v libx264 -preset veryfast -c:a aac small.mp4
fi
if [ ! -s source.mp4 ]; then
  ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=1280x720:rate=30:duration=10 \
    -f lavfi -i sine=frequency=440:duration=10 \
    -c:v libx264 -preset ultrafast -qp 10 -pix_fmt yuv420p -c:a aac -b:a 128k source.mp4
fi
if [ ! -s big.mp4 ]; then
  src_bytes=$(stat -c %s source.mp4)
  loops=$(( (SIZE_MIB * 1048576 + src_bytes - 1) / src_bytes ))
  ffmpeg -nostdin -y -v error -stream_loop $((loops - 1)) -i source.mp4 -c copy -movflags +faststart big.mp4
fi
sync big.mp4
size=$(stat -c %s big.mp4)

# Prints the median in milliseconds of the run named $2 of the CSV file $1.
median_ms() { awk -F, -v name="$2" '$1 == name {printf "%.2f", $4 * 1000}' "$1"; }
# The same as "median ms (min ms, processor ms)": on a busy machine the
# median of a short run is mostly waiting for a processor.
timing() { awk -F, -v name="$2" '$1 == name {printf "%.2f ms (min %.2f ms, processor %.2f ms)", $4 * 1000, $7 * 1000, ($5 + $6) * 1000}' "$1"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }
objects() { LD_DEBUG=files "$@" 2>&1 >/dev/null | grep -c 'calling init:' || true; }

echo "== start-up"
hyperfine -N -w 20 -r 200 --export-csv start.csv \
  -n qxmp4-version "$QXMP4 --version" \
  -n qxmp4-tags "$QXMP4 tags small.mp4" \
  -n atomicparsley-t "AtomicParsley small.mp4 -t" >/dev/null
tags_ms=$(median_ms start.csv qxmp4-tags)
ap_read_ms=$(median_ms start.csv atomicparsley-t)
echo "qxmp4 --version:        $(timing start.csv qxmp4-version), $(objects "$QXMP4" --version) shared objects initialised"
echo "qxmp4 tags small.mp4:   $(timing start.csv qxmp4-tags), $(objects "$QXMP4" tags small.mp4) shared objects initialised"
echo "AtomicParsley small -t: $(timing start.csv atomicparsley-t), $(objects AtomicParsley small.mp4 -t) shared objects initialised"
echo "ratio qxmp4 tags / AtomicParsley -t: $(ratio "$tags_ms" "$ap_read_ms")"

echo "== one tag set on a $(awk -v b="$size" 'BEGIN {printf "%.0f MiB", b / 1048576}') MP4, moov first, no padding"
cp --reflink=never big.mp4 ap.mp4
hyperfine -N -r "$AP_RUNS" --export-csv rewrite.csv --prepare "sh -c 'cp --reflink=never big.mp4 ap.mp4 && sync ap.mp4'" \
  -n atomicparsley-rewrite "AtomicParsley ap.mp4 --title 'AtomicParsley title' --overWrite" >/dev/null
# ap.mp4 is now AtomicParsley's own rewrite, with padding after its moov.
ap_inode=$(stat -c %i ap.mp4)
hyperfine -N -w 2 -r "$RUNS" --export-csv inplace.csv \
  -n atomicparsley-inplace "AtomicParsley ap.mp4 --title 'AtomicParsley edit' --overWrite" >/dev/null
# qxmp4 syncs before it returns; AtomicParsley does not: the same edit
# followed by a sync of the file, for a comparison at equal durability.
hyperfine -N -w 2 -r "$RUNS" --export-csv inplace-sync.csv \
  -n atomicparsley-inplace-sync "sh -c 'AtomicParsley ap.mp4 --title \"AtomicParsley edit\" --overWrite && sync ap.mp4'" >/dev/null
[ "$(stat -c %i ap.mp4)" = "$ap_inode" ] || echo "bench_mp4_tags: AtomicParsley did not edit in place" >&2
# big.mp4 stays as made; qxmp4 edits a copy (its first edit is the one onto
# a file without room, the later ones find the room the earlier ones left).
cp --reflink=never big.mp4 edit.mp4
sync edit.mp4
hyperfine -N -r "$RUNS" --export-csv set.csv \
  -n qxmp4-set "$QXMP4 set edit.mp4 ©nam=qxmp4-title" >/dev/null
AtomicParsley edit.mp4 -t | grep -q "qxmp4-title" || { echo "bench_mp4_tags: AtomicParsley does not see the edit" >&2; exit 1; }
ffmpeg -nostdin -v error -i edit.mp4 -map 0 -c copy -f null - || { echo "bench_mp4_tags: edited file unreadable" >&2; exit 1; }
rm -f edit.mp4

rewrite_ms=$(median_ms rewrite.csv atomicparsley-rewrite)
inplace_ms=$(median_ms inplace.csv atomicparsley-inplace)
inplace_sync_ms=$(median_ms inplace-sync.csv atomicparsley-inplace-sync)
set_ms=$(median_ms set.csv qxmp4-set)
echo "qxmp4 set (no padding):                  $(timing set.csv qxmp4-set), $RUNS runs"
echo "AtomicParsley --overWrite (rewrite):     $rewrite_ms ms (median of $AP_RUNS)"
echo "AtomicParsley in-place edit (padded):    $inplace_ms ms (median of $RUNS)"
echo "AtomicParsley in-place edit and sync:    $inplace_sync_ms ms (median of $RUNS)"
echo "ratio AtomicParsley rewrite / qxmp4 set: $(ratio "$rewrite_ms" "$set_ms") (target >= 100)"
echo "ratio qxmp4 set / AtomicParsley in-place: $(ratio "$set_ms" "$inplace_ms") (target <= 2)"
echo "ratio qxmp4 set / AtomicParsley in-place and sync: $(ratio "$set_ms" "$inplace_sync_ms")"
