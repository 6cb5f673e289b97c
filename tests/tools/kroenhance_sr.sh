#!/usr/bin/env bash
# kroenhance sr: help of every command, the report's JSON, option values the
# engine refuses, bad inputs, exit statuses, and nothing left behind by a
# failed run. (Input errors that sr shares with the filter commands are
# checked in kroenhance_filters.sh.)
set -u
tool=$1
source_dir=$2
data="$source_dir/data/thermal/drive_crop_160x128x10_u16.raw"
raw="--size 160x128 --format u16"
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
    err=$(cd "$out" && "$tool" "$@" 2>&1 >/dev/null)
    status=$?
    [ "$status" -eq "$want" ] || fail "kroenhance $* exited with $status, expected $want ($err)"
    grep -qE -- "$pattern" <<<"$err" || fail "kroenhance $*: message '$err' does not match '$pattern'"
    if [ "$want" -ne 0 ] && [ -n "$(ls -A "$out")" ]; then
        fail "kroenhance $* failed but left $(ls -A "$out")"
    fi
}

# --help of every command listed by the overview: status 0, its own usage
# (not the overview) with an example on standard output, the input options
# for every command that reads frames, nothing on standard error.
commands=$("$tool" --help | sed -n '/^Commands:/,/^$/p' | awk 'NR > 1 && NF { print $1 }')
for command in sr demo tnr snr spr unsharp cluster; do
    grep -qx "$command" <<<"$commands" || fail "the overview does not list $command: $commands"
done
for command in $commands; do
    out=$("$tool" "$command" --help 2>"$work/err") || fail "$command --help exited with $?"
    grep -q "^Usage: kroenhance $command" <<<"$out" || fail "$command --help shows no usage: $out"
    [ -s "$work/err" ] && fail "$command --help wrote to standard error: $(cat "$work/err")"
    grep -A2 "^Examples:" <<<"$out" | grep -q "kroenhance $command" || fail "$command --help has no example"
    grep -q "kroenhance --help" <<<"$out" && fail "$command --help shows the overview"
    [ "$command" = demo ] || grep -q -- "--size WxH" <<<"$out" || fail "$command --help does not describe the input options"
done
"$tool" sr -h | grep -q -- "--reference-index N" || fail "sr -h does not list the engine options"

# The report: valid JSON with every field, for a run with the phase engine
# and a camera description.
"$tool" sr --motion global $raw "$data" --engine phase --camera "camera k57 FOV 25" --quiet \
    -o "$work/sr.raw" --report "$work/sr.json" 2>"$work/err" || fail "sr exited with $? ($(cat "$work/err"))"
[ -s "$work/err" ] && fail "a clean run wrote to standard error: $(cat "$work/err")"
python3 - "$work/sr.json" <<'PY' || fail "the report does not hold what it should"
import json, sys
report = json.load(open(sys.argv[1]))
settings = report["settings"]
assert settings["motion"] == "global" and settings["engine"] == "phase", settings
assert abs(settings["psf_sigma"] - 0.35) < 1e-6, settings      # k57 with 25 degrees
assert settings["camera_model"] == "mk57", settings
assert (settings["window"], settings["reference_index"], settings["iterations"]) == (5, 3, 8), settings
assert (settings["tv_weight"], settings["reg_error"], settings["rel_residue"]) == (400, 0.0001, 0.007), settings
assert report["input"] == {"width": 160, "height": 128, "frames": 10}, report["input"]
assert report["output"]["width"] == 320 and report["output"]["height"] == 256
frames = report["frames"]
assert len(frames) == report["output"]["frames"] == 6
assert report["reconstructed"] + report["fallbacks"] == 6
for k, f in enumerate(frames):
    assert f["output_index"] == k and f["input_index"] == k + 4 and f["reference_input_index"] == k + 1, f
    assert isinstance(f["code"], int)
    if not f["fallback"]:
        assert f["failure"] is None and f["quality"] == f["engine_value"] and 0 < f["quality"] <= 2, f
        assert f["registration_ms"] > 0 and f["minimization_ms"] > 0, f
    assert f["total_ms"] >= f["registration_ms"] + f["minimization_ms"], f
    assert [w["input_index"] for w in f["window"]] == list(range(k, k + 5)), f
    reference = f["window"][1]
    assert reference["shift"] == [0, 0] and reference["masked_fraction"] == 0, reference
    for w in f["window"]:
        assert len(w["shift"]) == 2 and 0 <= w["masked_fraction"] <= 1, w
PY
[ "$(stat -c %s "$work/sr.raw")" -eq $((6 * 320 * 256 * 4)) ] || fail "sr.raw is not 6 frames of 320x256 f32"

# Local motion (the default): the report's own fields, its refusals, and
# non-finite input replaced with a warning instead of refused.
"$tool" sr $raw "$data" --quiet -o "$work/local.raw" --report "$work/local.json" 2>"$work/err" ||
    fail "sr with local motion exited with $? ($(cat "$work/err"))"
[ -s "$work/err" ] && fail "a clean local run wrote to standard error: $(cat "$work/err")"
python3 - "$work/local.json" <<'PY' || fail "the local-motion report does not hold what it should"
import json, sys
report = json.load(open(sys.argv[1]))
assert report["settings"] == {"motion": "local", "window": 5, "reference_index": 3, "psf_sigma": 0}, report["settings"]
assert report["fallbacks"] == 0 and len(report["frames"]) == 6
for f in report["frames"]:
    assert 0 <= f["rejected_fraction"] <= 1 and 0 <= f["reference_only_fraction"] <= 1, f
    assert f["warnings"] == [] and f["code"] == 0 and f["engine_value"] is None, f
    assert f["window"][1]["shift"] == [0, 0] and f["window"][1]["masked_fraction"] == 0, f
PY
expect 2 "option --tv-weight belongs to the global-motion engine: add --motion global" sr --tv-weight 400 $raw "$data" -o o.raw
expect 2 "option --engine belongs to the global-motion engine" sr --motion local --engine phase $raw "$data" -o o.raw
expect 2 "unknown motion \"rigid\"" sr --motion rigid $raw "$data" -o o.raw
expect 2 "option --window: window size 33 out of range 1..32" sr --window 33 $raw "$data" -o o.raw
expect 2 "option --psf-sigma: PSF sigma -1 out of range \[0, 10\]" sr --psf-sigma -1 $raw "$data" -o o.raw
expect 2 "option --reference-index: reference index 3 out of range 0..2" sr --window 3 $raw "$data" -o o.raw

head -c $((5 * 160 * 128 * 4)) /dev/zero | tr '\0' '\377' >"$work/nan.raw"   # all bytes 0xff: NaN floats

# The fixed-point engine: --engine alone means global motion; the report
# gives its status, iterations and shifts against the newest frame.
"$tool" sr $raw "$data" --engine fixed --quiet -o "$work/fixed.raw" --report "$work/fixed.json" 2>"$work/err" ||
    fail "sr --engine fixed exited with $? ($(cat "$work/err"))"
[ -s "$work/err" ] && fail "a clean fixed-engine run wrote to standard error: $(cat "$work/err")"
python3 - "$work/fixed.json" <<'PY' || fail "the fixed-engine report does not hold what it should"
import json, sys
report = json.load(open(sys.argv[1]))
s = report["settings"]
assert (s["motion"], s["engine"], s["window"], s["reference_index"]) == ("global", "fixed", 5, 3), s
assert report["fallbacks"] == 0 and len(report["frames"]) == 6, report["fallbacks"]
for k, f in enumerate(report["frames"]):
    assert f["code"] == f["engine_value"] == 0 and f["quality"] is None, f
    assert f["reference_input_index"] == f["input_index"] == k + 4, f   # aligned with the newest frame
    assert 1 <= f["iterations"] <= 8 and f["warnings"] == [], f
    assert f["window"][4]["shift"] == [0, 0] and f["window"][4]["masked_fraction"] == 0, f
    # The camera moves: every older frame has a shift of its own.
    assert all(abs(w["shift"][0]) + abs(w["shift"][1]) > 0.1 for w in f["window"][:4]), f
PY
[ "$(stat -c %s "$work/fixed.raw")" -eq $((6 * 320 * 256 * 4)) ] || fail "fixed.raw is not 6 frames of 320x256 f32"
# Samples beyond 16 bits signed are saturated, with one warning.
/usr/bin/python3 - "$data" "$work/bright.raw" <<'PY'
import sys, numpy
frames = numpy.fromfile(sys.argv[1], dtype="<u2").astype("<f4") * 10.0   # up to about 56000
frames.tofile(sys.argv[2])
PY
"$tool" sr --engine fixed --size 160x128 --format f32 "$work/bright.raw" -o "$work/bright-sr.raw" --quiet 2>"$work/err" ||
    fail "sr --engine fixed on bright frames exited with $? ($(cat "$work/err"))"
[ "$(grep -c "input samples beyond -32768..32767 were saturated" "$work/err")" -eq 1 ] ||
    fail "expected one saturation warning: $(cat "$work/err")"
expect 2 "option --tv-weight: invalid value given for setWeightTV \(allowed: 1-600\) \(got 700; accepted: 1 to 600" \
    sr --engine fixed --tv-weight 700 $raw "$data" -o o.raw
expect 2 "option --rel-residue: Invalid total-variation term residue specified" sr --engine fixed --rel-residue 1e-7 $raw "$data" -o o.raw
expect 1 "input frame 0 holds NaN or infinite samples" sr --engine fixed --size 160x128 --format f32 "$work/nan.raw" -o o.raw

# The reference engine with the example's synthetic two-point calibration:
# radiance out, the report's calibration and 3x3 phase maps, what is missing
# or of the wrong kind, and flat frames (the engine's fallback every time).
cal="$work/cal"
/usr/bin/python3 "$source_dir/examples/reference_calibration/make_calibration.py" --size 160x128 --out "$cal" \
    >/dev/null || fail "make_calibration.py failed"
/usr/bin/python3 "$source_dir/examples/reference_calibration/make_calibration.py" --size 80x64 --out "$work/small" \
    >/dev/null || fail "make_calibration.py failed"
calibration="--cal-raw-low $cal/raw_low.raw --cal-radiance-low $cal/radiance_low.pfm"
calibration="$calibration --cal-raw-high $cal/raw_high.raw --cal-radiance-high $cal/radiance_high.pfm"
"$tool" sr --engine reference $raw "$data" $calibration --quiet -o "$work/ref.raw" --report "$work/ref.json" \
    2>"$work/err" || fail "sr --engine reference exited with $? ($(cat "$work/err"))"
[ -s "$work/err" ] && fail "a clean reference-engine run wrote to standard error: $(cat "$work/err")"
/usr/bin/python3 - "$work/ref.json" "$work/ref.raw" "$data" "$cal" <<'PY' || fail "the reference engine's run is not what it should be"
import json, sys, numpy
report = json.load(open(sys.argv[1]))
s = report["settings"]
assert (s["motion"], s["engine"], s["window"], s["reference_index"]) == ("global", "reference", 5, 3), s
assert s["calibration"]["radiance_high"].endswith("radiance_high.pfm"), s
assert report["fallbacks"] == 0 and len(report["frames"]) == 6, report["fallbacks"]
for k, f in enumerate(report["frames"]):
    assert f["code"] == 0 and 0 < f["quality"] <= 2 and f["warnings"] == [], f
    assert f["reference_input_index"] == k + 1 and f["window"][1]["shift"] == [0, 0], f
    q = numpy.array(f["quality_map"])
    assert q.shape == (3, 3) and (q >= 0).all() and abs(q.sum() - 1) < 1e-5, q
# The output is radiance: each frame's mean is the calibrated mean of its
# reference frame (the pixels of equal raw values take their neighbours').
def pfm(path):
    with open(path, "rb") as f:
        f.readline(); width, height = map(int, f.readline().split()); f.readline()
        return numpy.flipud(numpy.fromfile(f, "<f4").reshape(height, width))
cal = sys.argv[4]
raw_low = numpy.fromfile(cal + "/raw_low.raw", "<u2").reshape(128, 160).astype(float)
raw_high = numpy.fromfile(cal + "/raw_high.raw", "<u2").reshape(128, 160).astype(float)
rad_low, rad_high = pfm(cal + "/radiance_low.pfm"), pfm(cal + "/radiance_high.pfm")
live = raw_high != raw_low
gain = numpy.where(live, (rad_high - rad_low) / numpy.where(live, raw_high - raw_low, 1), numpy.nan)
offset = rad_low - gain * raw_low
frames = numpy.fromfile(sys.argv[3], "<u2").reshape(10, 128, 160).astype(float)
out = numpy.fromfile(sys.argv[2], "<f4").reshape(6, 256, 320)
for k in range(6):
    radiance = frames[k + 1] * gain + offset
    assert abs(out[k].mean() - numpy.nanmean(radiance)) < 0.05, (k, out[k].mean(), numpy.nanmean(radiance))
PY
cal_args() {  # the four calibration options, any of them replaced by NAME=FILE arguments
    local raw_low="$cal/raw_low.raw" rad_low="$cal/radiance_low.pfm" raw_high="$cal/raw_high.raw"
    local rad_high="$cal/radiance_high.pfm" arg
    for arg in "$@"; do eval "${arg%%=*}=\"${arg#*=}\""; done
    echo "--cal-raw-low $raw_low --cal-radiance-low $rad_low --cal-raw-high $raw_high --cal-radiance-high $rad_high"
}
expect 2 "needs a two-point calibration .*missing --cal-radiance-low, --cal-raw-high and --cal-radiance-high" \
    sr --engine reference $raw "$data" --cal-raw-low "$cal/raw_low.raw" -o o.raw
expect 2 "option --cal-raw-low belongs to --engine reference" sr --engine phase $raw "$data" $calibration -o o.raw
expect 1 "option --cal-raw-low: \"[^\"]*radiance_low.pfm\" holds 160x128 f32 samples; raw values must be 16-bit" \
    sr --engine reference $raw "$data" $(cal_args raw_low="$cal/radiance_low.pfm") -o o.raw
expect 1 "option --cal-radiance-high: .*holds a 80x64 f32 frame; the input's frames are single-channel 160x128" \
    sr --engine reference $raw "$data" $(cal_args rad_high="$work/small/radiance_high.pfm") -o o.raw
expect 1 "option --cal-radiance-low: input .*raw_low.raw\" holds 40960 bytes, not a whole number of 160x128 f32" \
    sr --engine reference $raw "$data" $(cal_args rad_low="$cal/raw_low.raw") -o o.raw
expect 1 "input frame 0 holds 160x128 f32 samples; the reference engine takes raw 16-bit frames" \
    sr --engine reference --size 160x128 --format f32 "$work/nan.raw" $calibration -o o.raw
# Flat frames under a uniform calibration: flat radiance, which the engine
# cannot register; every frame is its simple combination, so nothing counts
# as reconstructed.
/usr/bin/python3 - "$work/flat" <<'PY'
import os, sys, numpy
os.makedirs(sys.argv[1])
for name, value in (("raw_low", 1000), ("raw_high", 3000)):
    numpy.full((128, 160), value, "<u2").tofile(os.path.join(sys.argv[1], name + ".raw"))
for name, value in (("radiance_low", 10.0), ("radiance_high", 20.0)):
    with open(os.path.join(sys.argv[1], name + ".pfm"), "wb") as f:
        f.write(b"Pf\n160 128\n-1.0\n")
        numpy.full((128, 160), value, "<f4").tofile(f)
numpy.full((5, 128, 160), 1799, "<u2").tofile(os.path.join(sys.argv[1], "frames.raw"))
PY
expect 1 "the reference frame is constant: nothing to register \(code -4\); it is the simple combination" \
    sr --engine reference $raw "$work/flat/frames.raw" $(cal_args raw_low="$work/flat/raw_low.raw" \
    raw_high="$work/flat/raw_high.raw" rad_low="$work/flat/radiance_low.pfm" rad_high="$work/flat/radiance_high.pfm") \
    -o o.raw

# Values the engine refuses: its own message, exit 2.
expect 2 "option --tv-weight: Invalid total-variation term weight specified. \(got 0.5; accepted: 1 or more\)" \
    sr --motion global --tv-weight 0.5 $raw "$data" -o o.raw
expect 2 "option --rel-residue: Invalid total-variation term weight specified" sr --motion global --rel-residue 1e-7 $raw "$data" -o o.raw
expect 2 "option --reg-error: Invalid maximum registration error specified" sr --motion global --reg-error 1.5 $raw "$data" -o o.raw
expect 2 "option --iterations: Invalid maximum number of iterations specified" sr --motion global --iterations 0 $raw "$data" -o o.raw
expect 2 "option --psf-sigma: Invalid standard deviation of the sensor psf specified" sr --motion global --psf-sigma -1 $raw "$data" -o o.raw
expect 2 "option --reference-index: Invalid reference index specified. \(got 5; accepted: 0 to 4" \
    sr --motion global --reference-index 5 $raw "$data" -o o.raw
expect 2 "option --reference-index: Invalid reference index specified. \(got 3; accepted: 0 to 2 with a window of 3\)" \
    sr --motion global --window 3 $raw "$data" -o o.raw
expect 2 "option --window: Invalid reference index specified" sr --motion global --window 0 $raw "$data" -o o.raw
expect 2 "option --window: 65 frames is more than the 64" sr --motion global --window 65 $raw "$data" -o o.raw
expect 2 "unknown engine \"fft\"" sr --motion global --engine fft $raw "$data" -o o.raw
expect 2 "either --psf-sigma or --camera" sr --motion global --psf-sigma 0.5 --camera "k41 FOV 30" $raw "$data" -o o.raw
expect 2 "not a number" sr --motion global --tv-weight many $raw "$data" -o o.raw
# A refused value is reported before any file is looked at.
expect 2 "option --tv-weight" sr --motion global --tv-weight 0 $raw missing.raw -o o.raw

# Bad command lines and inputs.
expect 2 "-o is required" sr $raw "$data"
expect 2 "no input given" sr -o o.raw
expect 2 "unknown format \"u12\"" sr --size 160x128 --format u12 "$data" -o o.raw
expect 2 "unknown option --bogus" sr --bogus $raw "$data" -o o.raw
expect 2 "report and the output must be different" sr $raw "$data" -o same.json --report same.json
head -c $((4 * 160 * 128 * 2)) "$data" >"$work/four.raw"
expect 1 "the input holds 4 frames; a window of 5 needs at least 5" sr $raw "$work/four.raw" -o o.raw
head -c $((5 * 161 * 128 * 2)) "$data" >"$work/odd.raw"
expect 1 "the phase engine cannot work on 161x128 frames" sr --motion global --engine phase --size 161x128 --format u16 \
    "$work/odd.raw" -o o.raw
expect 1 "cannot create .*nodir/r.json" sr $raw "$data" -o o.raw --report nodir/r.json
expect 1 "holds one image" sr $raw "$data" -o single.png
expect 1 "input frame 0 holds NaN or infinite samples" sr --motion global --size 160x128 --format f32 "$work/nan.raw" -o o.raw

expect 0 "output frame 0: [0-9]+ non-finite samples replaced by the frame median" sr --size 160x128 --format f32 "$work/nan.raw" -o o.raw

# An undecodable camera description keeps the default blur, with a warning.
expect 0 "no camera model and field of view found in \"k99\"; the default sensor blur 0.683" \
    sr --motion global --camera k99 $raw "$data" -o o.raw --quiet
echo "ok"
