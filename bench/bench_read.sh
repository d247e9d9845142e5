#!/usr/bin/env bash
# Reads a ~1 GiB Matroska source (H.264 + AAC) through the whole reading
# pipeline with `qxconvert read` and compares wall time and peak memory with
# ffmpeg demuxing the same file to nothing, in the same run; then copies it
# into an M4V with `qxconvert remux` against ffmpeg's stream copy into MP4
# (QX_BENCH_REMUX=0 leaves that out).
#
#   bench/bench_read.sh [BUILD_DIR]       (default: build)
#
# Environment: QX_BENCH_DIR (where the source is made and kept, default
# /tmp/qx-bench), QX_BENCH_SIZE_MB (default 1024), QX_BENCH_RUNS (default 5;
# the runs of the two programs alternate, the best run of each counts and the
# median is shown beside it: on a shared virtual machine a second busy
# processor is sometimes much slower, which hurts the pipeline and not the
# single-threaded ffmpeg).
# Target: qxconvert read takes at most 1.25 times ffmpeg's time, and its peak
# memory does not grow with the size of the file.
set -euo pipefail

build=${1:-build}
qxconvert="$build/tools/qxconvert"
dir=${QX_BENCH_DIR:-/tmp/qx-bench}
size_mb=${QX_BENCH_SIZE_MB:-1024}
runs=${QX_BENCH_RUNS:-5}
timer=/usr/bin/time

. "$(dirname "$0")/bench_common.sh"
require bench_read "$qxconvert" "$timer" ffmpeg ffprobe
mkdir -p "$dir"

# A short, busy source, then the same packets looped to the wanted size.
short="$dir/read-short.mkv"
source="$dir/read-${size_mb}m.mkv"
if [[ ! -s $short ]]; then
    ffmpeg -nostdin -y -v error -f lavfi -i testsrc2=size=1280x720:rate=25:duration=30 \
        -f lavfi -i sine=frequency=440:sample_rate=48000:duration=30 \
        -c:v libx264 -preset ultrafast -crf 20 -pix_fmt yuv420p -c:a aac -b:a 128k "$short"
fi
if [[ ! -s $source ]]; then
    short_bytes=$(stat -c %s "$short")
    loops=$(( (size_mb * 1048576 + short_bytes - 1) / short_bytes - 1 ))
    ffmpeg -nostdin -y -v error -stream_loop "$loops" -i "$short" -map 0 -c copy "$source.partial.mkv"
    mv "$source.partial.mkv" "$source"
fi
bytes=$(stat -c %s "$source")
packets=$(ffprobe -v error -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$source" | paste -sd+ | bc)
echo "source: $source, $((bytes / 1048576)) MiB, $packets packets"
cat "$source" >/dev/null # both programs read from the page cache

# Prints "seconds peak_kib" of one run.
measure() {
    local out
    out=$(mktemp)
    "$timer" -f '%e %M' -o "$out" "$@" >/dev/null 2>&1 || { echo "failed: $*" >&2; cat "$out" >&2; exit 1; }
    tail -n 1 "$out"
    rm -f "$out"
}

if ldd "$qxconvert" 2>/dev/null | grep tcmalloc >/dev/null; then
    echo "qxconvert allocator: tcmalloc_minimal"
else
    echo "qxconvert allocator: the C library's"
fi

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
best() { tr ' ' '\n' | sed '/^$/d' | sort -n | head -n 1; }

# compare LABEL TARGET QX_COMMAND... : alternates runs of ffmpeg (its stream
# copy to TARGET) and of qxconvert, and prints best, median and peak memory.
compare() {
    local label=$1 target=$2
    shift 2
    local times_ff= times_qx= rss_ff=0 rss_qx=0 t t2 m
    for ((i = 1; i <= runs; i++)); do
        read -r t m < <(measure ffmpeg -nostdin -y -v error -i "$source" -map 0 -c copy $target)
        times_ff+="$t "
        (( m > rss_ff )) && rss_ff=$m
        read -r t2 m < <(measure "$@")
        times_qx+="$t2 "
        (( m > rss_qx )) && rss_qx=$m
        echo "$label run $i: ffmpeg ${t}s, qxconvert ${t2}s"
    done
    local best_ff best_qx median_ff median_qx
    best_ff=$(echo "$times_ff" | best)
    best_qx=$(echo "$times_qx" | best)
    median_ff=$(echo "$times_ff" | median)
    median_qx=$(echo "$times_qx" | median)
    echo "$label: ffmpeg ${best_ff}s (peak RSS $((rss_ff / 1024)) MiB), qxconvert ${best_qx}s (peak RSS $((rss_qx / 1024)) MiB)"
    echo "$label time ratio qxconvert/ffmpeg: $(echo "scale=3; $best_qx / $best_ff" | bc) (medians: $(echo "scale=3; $median_qx / $median_ff" | bc))"
    last_rss_qx=$rss_qx
}

# Reading: the target is 1.25 times ffmpeg's demuxing to nothing.
compare read "-f null -" "$qxconvert" read "$source" --json
rss_whole=$last_rss_qx
# Memory that does not grow with the file: the same read of the 30 s source.
read -r _ rss_short < <(measure "$qxconvert" read "$short" --json)
echo "qxconvert read peak RSS, whole file / 30 s source: $((rss_whole / 1024)) / $((rss_short / 1024)) MiB"

# Copying into an MP4 (no target yet): the whole pipeline with the copying
# outputs (which decode audio for its durations), the sync, the inputs and
# the muxer, against ffmpeg's stream copy into MP4.
if [[ ${QX_BENCH_REMUX:-1} != 0 ]]; then
    out_dir=$(mktemp -d)
    compare remux "-f mp4 $out_dir/ffmpeg.mp4" "$qxconvert" remux "$source" -o "$out_dir/qxconvert.m4v"
    rm -rf "$out_dir"
fi
