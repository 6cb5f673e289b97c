#!/usr/bin/env bash
# Runs every command of two kroenhance builds on the same inputs and compares
# their outputs byte for byte: the check that a restructuring changed no
# result. Not part of ctest (it needs a second, older binary).
#
#   tests/tools/compare_tool_outputs.sh OLD_KROENHANCE NEW_KROENHANCE
#
# Inputs: the bundled drive crop and still (data/thermal), a demo burst made
# by the old binary, and the first frames of the real 640x512 recording in
# ../shared/data when it is there. The global-motion engine is run with
# --motion global when the new binary knows the option. The phase
# registration's output may differ in the last bits between any two
# processes (FFT plans are timed per process), so it is compared within a
# relative 1e-5 instead of byte for byte. Exit status 0 when all agree.
set -u
old=$1
new=$2
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
crop="$root/data/thermal/drive_crop_160x128x10_u16.raw"
real="$root/../shared/data/fieldscale-drive/converted/seq_640x512x24_u16.raw"
failures=0

global=""
"$new" sr --help | grep -q -- "--motion" && global="--motion global"

# run NAME COMPARE ARGS...: runs both binaries with ARGS (OUT stands for the
# output path) and compares the outputs (COMPARE: bytes or close).
run() {
    local name=$1 compare=$2
    shift 2
    local a=() b=()
    for arg in "$@"; do
        a+=("${arg//OUT/$work/old_$name}")
        b+=("${arg//OUT/$work/new_$name}")
    done
    "$old" "${a[@]}" >/dev/null 2>&1 || { echo "FAIL $name: the old binary failed"; failures=$((failures + 1)); return; }
    local newArgs=("${b[@]}")
    if [ "${b[0]}" = sr ] && [ -n "$global" ]; then
        newArgs=(sr $global "${b[@]:1}")
    fi
    "$new" "${newArgs[@]}" >/dev/null 2>&1 || { echo "FAIL $name: the new binary failed"; failures=$((failures + 1)); return; }
    if [ "$compare" = bytes ]; then
        if cmp -s "$work/old_$name" "$work/new_$name"; then echo "same  $name"; else
            echo "FAIL  $name: outputs differ"; failures=$((failures + 1)); fi
    else
        if /usr/bin/python3 - "$work/old_$name" "$work/new_$name" <<'PY'; then echo "close $name"; else
import sys, numpy as np
a = np.fromfile(sys.argv[1], "<f4"); b = np.fromfile(sys.argv[2], "<f4")
sys.exit(0 if a.shape == b.shape and np.abs(a - b).max() <= 1e-5 * max(1.0, np.abs(a).max()) else 1)
PY
            echo "FAIL  $name: outputs differ beyond float rounding"; failures=$((failures + 1)); fi
    fi
}

raw="--size 160x128 --format u16"
run tnr bytes tnr $raw "$crop" -o OUT
run tnr_hw bytes tnr --hw-units --control-gain 7 $raw "$crop" -o OUT
run snr bytes snr --gain 12 $raw "$crop" -o OUT
run spr bytes spr --threshold 40 $raw "$crop" -o OUT
run cluster bytes cluster --window 4 $raw "$crop" -o OUT
/usr/bin/python3 -c "import numpy as np, sys; np.fromfile(sys.argv[1], '<u2').astype('<f4').tofile(sys.argv[2])" \
    "$crop" "$work/crop.f32"
run unsharp bytes unsharp --amount 1.5 --sigma 2 --size 160x128 --format f32 "$work/crop.f32" -o OUT
run sr_corners bytes sr --engine corners $raw "$crop" -o OUT
run sr_window bytes sr --window 3 --reference-index 0 --tv-weight 200 $raw "$crop" -o OUT
run sr_phase close sr --engine phase $raw "$crop" -o OUT

"$old" demo -o "$work/demo" --crop 320x256 >/dev/null 2>&1 || { echo "FAIL demo: the old binary failed"; exit 1; }
burst="--size 160x128 --format f32 $work/demo/burst_frames_160x128x5_f32.raw"
run burst_corners bytes sr --engine corners $burst -o OUT
run burst_phase close sr --engine phase $burst -o OUT

if [ -f "$real" ]; then
    head -c $((640 * 512 * 2 * 8)) "$real" >"$work/real8.raw"
    real8="--size 640x512 --format u16 $work/real8.raw"
    run real_tnr bytes tnr $real8 -o OUT
    run real_snr bytes snr $real8 -o OUT
    run real_spr bytes spr $real8 -o OUT
    run real_sr_corners bytes sr --engine corners $real8 -o OUT
else
    echo "skip  the real recording ($real is missing)"
fi

[ "$failures" -eq 0 ] && echo "all outputs agree" || echo "$failures comparisons failed"
exit $((failures > 0))
