#!/usr/bin/env bash
# kroenhance pipeline: --set errors, parameter files (unreadable ones too, and
# their order against --set), bad inputs, samples the pipeline cannot take,
# the output in each input format, --preview and --help. Every failed run
# must leave its folder empty.
set -u
tool=$1
source_dir=$2
data="$source_dir/data/thermal/drive_crop_160x128x10_u16.raw"
raw="--size 160x128 --format u16"
frame_bytes=$((160 * 128 * 2))
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# expect STATUS PATTERN ARGS...: runs the tool in an empty folder, checks the
# exit status, that standard error matches PATTERN, and that the folder is
# still empty when the run failed (no output, no temporary file).
expect() {
    local want=$1 pattern=$2
    shift 2
    local out="$work/out" err status
    rm -rf "$out" && mkdir "$out"
    err=$(cd "$out" && "$tool" pipeline "$@" 2>&1 >/dev/null)
    status=$?
    [ "$status" -eq "$want" ] || fail "kroenhance pipeline $* exited with $status, expected $want ($err)"
    grep -qE -- "$pattern" <<<"$err" || fail "kroenhance pipeline $*: message '$err' does not match '$pattern'"
    if [ "$want" -ne 0 ] && [ -n "$(ls -A "$out")" ]; then
        fail "kroenhance pipeline $* failed but left $(ls -A "$out")"
    fi
}

# --set: every malformed setting is a usage error naming the argument.
expect 2 "--set tnr.strength=1: unknown key \"tnr.strength\"" --set tnr.strength=1 $raw "$data" -o o.raw
expect 2 "--set color.gain=1: unknown key" --set color.gain=1 $raw "$data" -o o.raw
expect 2 "--set gain=3: the key \"gain\" names no module" --set gain=3 $raw "$data" -o o.raw
expect 2 "--set peak.gain: missing '='" --set peak.gain $raw "$data" -o o.raw
for value in 1.5 0x10 "" " 3" 3a 2147483648 -2147483649 ++1; do
    literal=$(sed 's/[].[*^$+?(){}|\\]/\\&/g' <<<"$value")
    expect 2 "--set peak.gain=$literal: the value \"$literal\" of peak.gain is not a whole decimal integer" \
        --set "peak.gain=$value" $raw "$data" -o o.raw
done
expect 2 "--set peak.gain=1.5" --set peak.coring=3 --set=peak.gain=1.5 $raw "$data" -o o.raw
expect 2 "option --set needs a value" $raw "$data" -o o.raw --set

# Bad inputs.
head -c $((10 * frame_bytes - 1)) "$data" >"$work/ragged.raw"
expect 1 "not a whole number of 160x128 u16 frames" $raw "$work/ragged.raw" -o o.raw
expect 1 "cannot open input .*missing.raw.*no such file" $raw "$work/missing.raw" -o o.raw
expect 2 "--size: width and height must be between 1 and 65536" --size 0x0 --format u16 "$data" -o o.raw
expect 2 "unknown|use s16, u16, s32 or f32" --size 160x128 --format u8 "$data" -o o.raw
expect 2 "needs both --size" --size 160x128 "$data" -o o.raw

# Samples the pipeline cannot take (it reads signed 16-bit values): the
# frame, the value and the place are named, nothing is written.
python3 - "$data" "$work" <<'PY' || fail "cannot make the test recordings"
import array, sys
data, work = sys.argv[1], sys.argv[2]
u16 = array.array("H", open(data, "rb").read())
frame = 160 * 128
def save(name, code, values):
    array.array(code, values).tofile(open(work + "/" + name, "wb"))
save("rec_s16.raw", "h", u16)
save("rec_s32.raw", "i", u16)
save("rec_f32.raw", "f", u16)
high = list(u16); high[frame + 5 * 160 + 7] = 40000          # frame 1, x 7, y 5
save("high_u16.raw", "H", high)
wide = list(u16); wide[2 * frame] = -40000                   # frame 2, x 0, y 0
save("wide_s32.raw", "i", wide)
nan = [float(v) for v in u16]; nan[3] = float("nan")
save("nan_f32.raw", "f", nan)
PY
expect 1 "frame 1 holds the sample 40000 at x 7, y 5, outside the range 0 to 32767" $raw "$work/high_u16.raw" -o o.raw
expect 1 "frame 2 holds the sample -40000 at x 0, y 0, outside the range -32768 to 32767" \
    --size 160x128 --format s32 "$work/wide_s32.raw" -o o.raw
expect 1 "frame 0 holds the sample nan at x 3, y 0" --size 160x128 --format f32 "$work/nan_f32.raw" -o o.raw
expect 1 "cannot create output" $raw "$data" -o no/such/dir/o.raw

# A run writes the input's format, frame for frame, and says nothing on a
# non-terminal; every format gives the same values.
for format in u16 s16 s32 f32; do
    input=$data
    [ $format = u16 ] || input="$work/rec_$format.raw"
    err=$("$tool" pipeline --size 160x128 --format $format "$input" -o "$work/out_$format.raw" 2>&1 >/dev/null) ||
        fail "pipeline --format $format failed: $err"
    [ -z "$err" ] || fail "pipeline --format $format printed '$err'"
    bytes=2
    [ $format = s32 ] || [ $format = f32 ] && bytes=4
    [ "$(stat -c %s "$work/out_$format.raw")" -eq $((10 * 160 * 128 * bytes)) ] ||
        fail "the $format output is not 10 frames of 160x128 $format"
done
python3 - "$work" <<'PY' || fail "the outputs of the four formats differ"
import array, sys
work = sys.argv[1]
def load(format, code):
    values = array.array(code)
    values.frombytes(open("%s/out_%s.raw" % (work, format), "rb").read())
    return list(values)
u16 = load("u16", "H")
assert max(u16) <= 32766 and min(u16) >= 0, (min(u16), max(u16))
assert load("s16", "h") == u16 and load("s32", "i") == u16 and load("f32", "f") == u16
PY
cmp -s "$data" "$work/out_u16.raw" && fail "the pipeline output equals its input"

# Parameter files: applied before the --set options, in their order; an
# unreadable one is reported by its model and the run goes on with defaults.
printf '[Peaking_Parameter]\nenable=0\ngain=99\n[Histogram_Parameter]\nmode=4\n' >"$work/enhancer.ini"
run() {  # run NAME ARGS...: output $work/NAME.raw, standard output in $work/NAME.log
    local name=$1
    shift
    "$tool" pipeline $raw "$data" -o "$work/$name.raw" "$@" >"$work/$name.log" 2>&1 ||
        fail "pipeline $* failed: $(cat "$work/$name.log")"
}
run file --peaking-params "$work/enhancer.ini" --histogram-params "$work/enhancer.ini"
run sets --set peak.enable=0 --set hist.mode=4 --set peak.gain=99
cmp -s "$work/file.raw" "$work/sets.raw" || fail "the parameter files differ from the same --set values"
cmp -s "$work/file.raw" "$work/out_u16.raw" && fail "the parameter files changed nothing"
run order --peaking-params "$work/enhancer.ini" --histogram-params "$work/enhancer.ini" \
    --set peak.enable=1 --set peak.gain=14
run histonly --histogram-params "$work/enhancer.ini"
cmp -s "$work/order.raw" "$work/histonly.raw" || fail "--set did not override the parameter file"
run last --set peak.gain=5 --set peak.gain=14
cmp -s "$work/last.raw" "$work/out_u16.raw" || fail "the last --set of a key does not win"
run missing --histogram-params "$work/none.ini" --peaking-params "$work/none2.ini"
grep -qx "histo: Cannot read $work/none.ini" "$work/missing.log" || fail "no histogram message: $(cat "$work/missing.log")"
grep -qx "peak: Cannot read $work/none2.ini" "$work/missing.log" || fail "no peaking message: $(cat "$work/missing.log")"
cmp -s "$work/missing.raw" "$work/out_u16.raw" || fail "unreadable parameter files changed the output"

# --preview: every stage of the first frames as 8-bit PNG of the frame size.
run preview --preview "$work/preview" --preview-frames 2
python3 - "$work/preview" <<'PY' || fail "the preview is not what it should be"
import os, struct, sys
folder = sys.argv[1]
stages = ["input", "tnr", "spr", "snr", "histogram", "peaking"]
want = sorted("frame%04d_%d_%s.png" % (f, s, name) for f in range(2) for s, name in enumerate(stages))
assert sorted(os.listdir(folder)) == want, os.listdir(folder)
for name in want:
    data = open(os.path.join(folder, name), "rb").read(26)
    assert data[:8] == b"\x89PNG\r\n\x1a\n", name
    assert struct.unpack(">IIBB", data[16:26]) == (160, 128, 8, 0), name
PY
printf 'x' >"$work/afile"
expect 1 "the preview folder .* exists and is not a folder" --preview "$work/afile" $raw "$data" -o o.raw

# --help lists every key with its setter and range.
help=$("$tool" pipeline --help) || fail "pipeline --help failed"
grep -qE "^  snr\.gain +snrSetGain +0 to 31, else clamped$" <<<"$help" || fail "--help does not list snr.gain with its range"
grep -qE "^  tnr\.enable +tnrSetBypass +any$" <<<"$help" || fail "--help does not list tnr.enable"
[ "$(grep -cE '^  (tnr|spr|snr|hist|peak)\.[a-z_0-9]+ +[a-z]+Set[A-Za-z0-9]+ ' <<<"$help")" -eq 32 ] ||
    fail "--help does not list the 32 keys"
echo "ok"
