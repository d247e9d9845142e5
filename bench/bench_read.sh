#!/usr/bin/env bash
# Reads a ~1 GiB Matroska source (H.264 + AAC) through the whole reading
# pipeline with `qxconvert read` and compares wall time and peak memory with
# ffmpeg demuxing the same file to nothing, in the same run.
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

[[ -x $qxconvert ]] || { echo "no $qxconvert; build the qxconvert target first" >&2; exit 1; }
[[ -x $timer ]] || { echo "$timer is missing (Debian package 'time')" >&2; exit 1; }
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

if ldd "$qxconvert" | grep -q tcmalloc; then
    echo "qxconvert allocator: tcmalloc_minimal"
else
    echo "qxconvert allocator: the C library's"
fi

median() { tr ' ' '\n' | sed '/^$/d' | sort -n | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

times_ff=; times_qx=; rss_ff=0; rss_qx=0
for ((i = 1; i <= runs; i++)); do
    read -r t m < <(measure ffmpeg -nostdin -v error -i "$source" -map 0 -c copy -f null -)
    times_ff+="$t "
    (( m > rss_ff )) && rss_ff=$m
    read -r t2 m < <(measure "$qxconvert" read "$source" --json)
    times_qx+="$t2 "
    (( m > rss_qx )) && rss_qx=$m
    echo "run $i: ffmpeg ${t}s, qxconvert read ${t2}s"
done
best_ff=$(echo "$times_ff" | tr ' ' '\n' | sed '/^$/d' | sort -n | head -n 1)
best_qx=$(echo "$times_qx" | tr ' ' '\n' | sed '/^$/d' | sort -n | head -n 1)
median_ff=$(echo "$times_ff" | median)
median_qx=$(echo "$times_qx" | median)

# Memory that does not grow with the file: the same read of the 30 s source.
read -r _ rss_short < <(measure "$qxconvert" read "$short" --json)

ratio=$(echo "scale=3; $best_qx / $best_ff" | bc)
echo "ffmpeg -c copy -f null: ${best_ff}s, peak RSS $((rss_ff / 1024)) MiB"
echo "qxconvert read:         ${best_qx}s, peak RSS $((rss_qx / 1024)) MiB"
echo "time ratio qxconvert/ffmpeg: $ratio (target <= 1.25; medians ${median_qx}s / ${median_ff}s = $(echo "scale=3; $median_qx / $median_ff" | bc))"
echo "peak RSS ratio qxconvert/ffmpeg: $(echo "scale=2; $rss_qx / $rss_ff" | bc)"
echo "qxconvert read peak RSS, whole file / 30 s source: $((rss_qx / 1024)) / $((rss_short / 1024)) MiB"
