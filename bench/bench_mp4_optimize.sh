#!/bin/sh
# Times `qxmp4 optimize` of a ~1 GiB MP4 against `cp` of the same file, in
# the same run, and prints both and their ratio (target: at most 1.1).
#
#   bench/bench_mp4_optimize.sh [QXMP4] [WORKDIR]
#
# QXMP4 defaults to build/tools/qxmp4; WORKDIR to a new temporary folder
# (needs ~3 GiB). The test file is made once per WORKDIR with ffmpeg: a
# short noisy H.264 clip, stream-copied in a loop to about 1 GiB, with
# moov at the end (as a muxer writes it before optimising).
set -eu

QXMP4=${1:-build/tools/qxmp4}
WORK=${2:-$(mktemp -d "${TMPDIR:-/tmp}/qxmp4-bench.XXXXXX")}
RUNS=${RUNS:-3}
TARGET=$((1024 * 1024 * 1024))

[ -x "$QXMP4" ] || { echo "bench: no qxmp4 at $QXMP4 (give its path as first argument)" >&2; exit 2; }
command -v ffmpeg >/dev/null || { echo "bench: ffmpeg is needed" >&2; exit 2; }
mkdir -p "$WORK"
SRC="$WORK/source.mp4"

if [ ! -s "$SRC" ]; then
    ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=1280x720:rate=25:duration=8 \
        -f lavfi -i sine=duration=8 -vf noise=alls=30:allf=t -c:v libx264 -preset ultrafast -crf 10 \
        -c:a aac "$WORK/clip.mp4"
    CLIP=$(stat -c %s "$WORK/clip.mp4")
    LOOPS=$(( (TARGET + CLIP - 1) / CLIP - 1 ))
    ffmpeg -nostdin -y -v error -stream_loop "$LOOPS" -i "$WORK/clip.mp4" -c copy "$SRC"
    rm -f "$WORK/clip.mp4"
fi
SIZE=$(stat -c %s "$SRC")

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
less() { awk -v a="$1" -v b="$2" 'BEGIN { exit !(a < b) }'; }

cat "$SRC" > /dev/null # both start from a warm cache
best_cp=""
best_opt=""
i=0
while [ "$i" -lt "$RUNS" ]; do
    rm -f "$WORK/copy.mp4" "$WORK/optimized.mp4"
    t0=$(now); cp "$SRC" "$WORK/copy.mp4"; t1=$(now)
    rm -f "$WORK/copy.mp4"
    t2=$(now); "$QXMP4" optimize "$SRC" "$WORK/optimized.mp4"; t3=$(now)
    c=$(elapsed "$t0" "$t1"); o=$(elapsed "$t2" "$t3")
    echo "run $((i + 1)): cp ${c}s, qxmp4 optimize ${o}s"
    if [ -z "$best_cp" ] || less "$c" "$best_cp"; then best_cp=$c; fi
    if [ -z "$best_opt" ] || less "$o" "$best_opt"; then best_opt=$o; fi
    i=$((i + 1))
done
ffmpeg -nostdin -v error -i "$WORK/optimized.mp4" -map 0 -c copy -f null - || { echo "bench: output unreadable" >&2; exit 1; }
rm -f "$WORK/optimized.mp4"

echo "file: $SIZE bytes"
echo "cp (best of $RUNS): ${best_cp}s"
echo "qxmp4 optimize (best of $RUNS): ${best_opt}s"
echo "ratio optimize/cp: $(awk -v o="$best_opt" -v c="$best_cp" 'BEGIN { printf "%.2f", o / c }')"
