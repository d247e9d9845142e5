#!/usr/bin/env bash
# The Python module's overhead: the same conversions through a Python script
# (qxmedia.Job.run with a progress callback) and through `qxconvert convert`,
# runs of the two alternating, best wall time of each and their ratio.
#
#   bench/bench_python.sh [BUILD_DIR]       (default: build)
#
# Two cases: a remux of 120 s of 1080p H.264 and AAC (the pipeline's own cost
# shows), and an encode of 20 s of it with the 720p preset. qxconvert links
# tcmalloc; the Python interpreter gets it by LD_PRELOAD, as a host that
# runs jobs should (QX_BENCH_PRELOAD= runs it on glibc's allocator).
# Environment: QX_BENCH_DIR (default /tmp/qx-bench), QX_BENCH_RUNS (default 3),
# QX_BENCH_ENCODE=0 to leave out the (slow) encode case.
# Target: Python takes at most 1.05 times qxconvert's wall time.
set -euo pipefail

build=$(realpath "${1:-build}")
dir=${QX_BENCH_DIR:-/tmp/qx-bench}
runs=${QX_BENCH_RUNS:-3}
preload=${QX_BENCH_PRELOAD-$(ls /usr/lib/*/libtcmalloc_minimal.so.4 2>/dev/null | head -1)}
qxconvert="$build/tools/qxconvert"
python=/usr/bin/python3

[[ -x $qxconvert ]] || { echo "no $qxconvert; build the qxconvert target first" >&2; exit 1; }
ls "$build"/python/qxmedia*.so >/dev/null 2>&1 || { echo "no Python module in $build/python" >&2; exit 1; }
mkdir -p "$dir"

make_source() { # NAME SECONDS
    local path="$dir/$1"
    if [[ ! -s $path ]]; then
        ffmpeg -nostdin -y -v error -f lavfi -i "testsrc2=size=1920x1080:rate=25:duration=$2" \
            -f lavfi -i "sine=frequency=440:sample_rate=48000:duration=$2" \
            -c:v libx264 -preset veryfast -crf 20 -pix_fmt yuv420p -c:a aac -b:a 160k "$path"
    fi
    echo "$path"
}

script="$dir/convert.py"
cat >"$script" <<'PY'
import sys
import qxmedia

source, output, preset = sys.argv[1:]
job = qxmedia.Job(qxmedia.Movie(source), preset, output)
job.run(progress=lambda fraction: None)
PY

seconds_of() { # COMMAND...: wall seconds
    local start end
    start=$(date +%s.%N)
    "$@" >/dev/null 2>"$dir/stderr.txt" || { cat "$dir/stderr.txt" >&2; exit 1; }
    end=$(date +%s.%N)
    awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", b - a }'
}

compare() { # LABEL SOURCE PRESET
    local label=$1 source=$2 preset=$3 best_py=999999 best_cli=999999 t
    for ((run = 1; run <= runs; run++)); do
        rm -f "$dir/out-cli.m4v" "$dir/out-py.m4v"
        t=$(seconds_of "$qxconvert" convert "$source" -o "$dir/out-cli.m4v" --preset "$preset")
        best_cli=$(awk -v a="$best_cli" -v b="$t" 'BEGIN { print (b < a ? b : a) }')
        echo "  run $run qxconvert $t s"
        t=$(seconds_of env PYTHONPATH="$build/python" LD_PRELOAD="$preload" "$python" "$script" "$source" \
            "$dir/out-py.m4v" "$preset")
        best_py=$(awk -v a="$best_py" -v b="$t" 'BEGIN { print (b < a ? b : a) }')
        echo "  run $run python    $t s"
    done
    awk -v l="$label" -v p="$best_py" -v c="$best_cli" \
        'BEGIN { printf "%s: python %.2f s, qxconvert %.2f s, ratio %.3f (target <= 1.05)\n", l, p, c, p / c }'
}

echo "allocator for Python: ${preload:-glibc}"
compare "remux 120 s 1080p" "$(make_source bench-python-120s.mkv 120)" Passthrough
[[ ${QX_BENCH_ENCODE:-1} == 0 ]] || compare "encode 20 s 1080p to 720p" "$(make_source bench-python-20s.mkv 20)" 720p
