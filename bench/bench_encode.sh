#!/usr/bin/env bash
# Encodes a 1080p H.264 source of 60 s (with AAC audio) to the 1080p preset
# through a job (bench_encode_job) and with HandBrakeCLI on the same source,
# at the same size, x264 speed preset (medium, encoderPreset 5), key-frame
# interval and average bit rate (the preset's CRF 22 by the bit-rate rule:
# 130 x 2^((51-22)/5) kbit/s at 1920x1080), the runs of the two alternating.
# Reports frames per second and their ratio, output sizes, SSIM of each
# against the source, and peak resident memory.
#
#   bench/bench_encode.sh [BUILD_DIR]       (default: build)
#
# Environment: QX_BENCH_DIR (default /tmp/qx-bench), QX_BENCH_SECONDS
# (default 60), QX_BENCH_RUNS (default 1: each run is heavy; the best run of
# each program counts).
# Target: our frames per second are at least HandBrakeCLI's, and the peak
# resident size stays within a few hundred MB.
set -euo pipefail

build=${1:-build}
encoder="$build/bench/bench_encode_job"
dir=${QX_BENCH_DIR:-/tmp/qx-bench}
seconds=${QX_BENCH_SECONDS:-60}
runs=${QX_BENCH_RUNS:-1}
timer=/usr/bin/time

[[ -x $encoder ]] || { echo "no $encoder; build the bench_encode_job target first" >&2; exit 1; }
[[ -x $timer ]] || { echo "$timer is missing (Debian package 'time')" >&2; exit 1; }
if ! command -v HandBrakeCLI >/dev/null; then
    apt-get install -y --no-install-recommends handbrake-cli >/dev/null
fi
mkdir -p "$dir"

source="$dir/encode-1080p-${seconds}s.mkv"
if [[ ! -s $source ]]; then
    ffmpeg -nostdin -y -v error -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=$seconds" \
        -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$seconds" \
        -c:v libx264 -preset veryfast -crf 16 -pix_fmt yuv420p -c:a aac -b:a 160k "$source"
fi
frames=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$source")
kbps=$(awk 'BEGIN { printf "%d", 130 * 2 ^ ((51 - 22) / 5) + 0.5 }')

# Prints "seconds peak_kb" of one timed command.
timed() {
    local log="$dir/time.txt"
    "$timer" -f "%e %M" -o "$log" "$@" >/dev/null 2>"$dir/stderr.txt" || { cat "$dir/stderr.txt" >&2; exit 1; }
    cat "$log"
}

ssim() {
    ffmpeg -nostdin -v info -i "$1" -i "$source" \
        -lavfi "[0:v]setpts=PTS-STARTPTS[a];[1:v]setpts=PTS-STARTPTS[b];[a][b]ssim" -f null - 2>&1 |
        grep -o 'All:[0-9.]*' | cut -d: -f2
}

qx_out="$dir/encode-qx.m4v"
hb_out="$dir/encode-hb.m4v"
best_qx=999999 best_hb=999999 rss_qx=0 rss_hb=0
for ((run = 1; run <= runs; run++)); do
    read -r t m < <(timed "$encoder" "$source" "$qx_out" QXPresetApple1080p)
    echo "run $run qxmedia:     ${t} s, peak ${m} kB"
    best_qx=$(awk -v a="$best_qx" -v b="$t" 'BEGIN { print (b < a ? b : a) }')
    ((m > rss_qx)) && rss_qx=$m
    read -r t m < <(timed HandBrakeCLI -i "$source" -o "$hb_out" -f av_mp4 -e x264 --encoder-preset medium \
        --encoder-profile high --encoder-level 4.2 --encopts keyint=60 -b "$kbps" -w 1920 -l 1080 \
        --crop 0:0:0:0 --non-anamorphic --cfr -a 1 -E av_aac -B 160 -6 stereo)
    echo "run $run HandBrakeCLI: ${t} s, peak ${m} kB"
    best_hb=$(awk -v a="$best_hb" -v b="$t" 'BEGIN { print (b < a ? b : a) }')
    ((m > rss_hb)) && rss_hb=$m
done

fps_qx=$(awk -v f="$frames" -v t="$best_qx" 'BEGIN { printf "%.1f", f / t }')
fps_hb=$(awk -v f="$frames" -v t="$best_hb" 'BEGIN { printf "%.1f", f / t }')
echo "source: $frames frames 1920x1080, average bit rate ${kbps} kbit/s, x264 medium"
printf '%-13s %8s %12s %9s %10s\n' "" "fps" "bytes" "SSIM" "peak MB"
printf '%-13s %8s %12s %9s %10d\n' qxmedia "$fps_qx" "$(stat -c %s "$qx_out")" "$(ssim "$qx_out")" $((rss_qx / 1024))
printf '%-13s %8s %12s %9s %10d\n' HandBrakeCLI "$fps_hb" "$(stat -c %s "$hb_out")" "$(ssim "$hb_out")" $((rss_hb / 1024))
awk -v a="$fps_qx" -v b="$fps_hb" 'BEGIN { printf "fps ratio qxmedia / HandBrakeCLI: %.2f\n", a / b }'
