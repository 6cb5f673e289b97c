#!/usr/bin/env bash
# kroenhance tnr, snr, spr, unsharp, cluster: option ranges, bad inputs and
# bad output names of the shared frame input and output, exit statuses, and no
# output left behind by a failed run. (The help of every command is checked in
# kroenhance_sr.sh, the option and format errors common to sr there too.)
set -u
tool=$1
source_dir=$2
data="$source_dir/data/thermal/drive_crop_160x128x10_u16.raw"
raw="--size 160x128 --format u16"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# expect STATUS PATTERN ARGS...: runs the tool, checks the exit status and
# that standard error matches PATTERN.
expect() {
    local want=$1 pattern=$2
    shift 2
    local err status
    err=$("$tool" "$@" 2>&1 >/dev/null)
    status=$?
    [ "$status" -eq "$want" ] || fail "kroenhance $* exited with $status, expected $want ($err)"
    grep -qE -- "$pattern" <<<"$err" || fail "kroenhance $*: message '$err' does not match '$pattern'"
}

# Values outside a filter's range: exit 2, the message names option and range.
expect 2 "--control-gain: 11 is outside the accepted range 0 to 10" tnr --control-gain 11 $raw "$data" -o "$work/o.raw"
expect 2 "--global-threshold: 101 is outside the accepted range 0 to 100" tnr --global-threshold 101 $raw "$data" -o "$work/o.raw"
expect 2 "--feedback-factor: 101 is outside the accepted range 0 to 100" tnr --feedback-factor 101 $raw "$data" -o "$work/o.raw"
expect 2 "--gain: 32 is outside the accepted range 0 to 31" snr --gain 32 $raw "$data" -o "$work/o.raw"
expect 2 "--threshold: 101 is outside the accepted range 0 to 100" spr --threshold 101 $raw "$data" -o "$work/o.raw"
expect 2 "--line-limit: 32 is outside the accepted range 0 to 31" spr --line-limit 32 $raw "$data" -o "$work/o.raw"
expect 2 "--frame-limit: -1 is outside the accepted range 0 to 31" spr --frame-limit -1 $raw "$data" -o "$work/o.raw"
expect 2 "--threshold: 1.5 is outside the accepted range 0 to 1" unsharp --threshold 1.5 --size 160x128 --format f32 x.raw -o "$work/o.raw"
expect 2 "--sigma: 0 is outside" unsharp --sigma 0 --size 160x128 --format f32 x.raw -o "$work/o.raw"
expect 2 "--alpha: 2 is outside the accepted range 0 to 1" cluster --alpha 2 $raw "$data" -o "$work/o.raw"
expect 2 "--window: 1 is outside the accepted range 2 to 1000" cluster --window 1 $raw "$data" -o "$work/o.raw"
expect 2 "--mode: \"box\"" cluster --mode box $raw "$data" -o "$work/o.raw"
expect 2 "not an integer" snr --gain six $raw "$data" -o "$work/o.raw"

# Bad command lines and files.
expect 2 "--size: width and height must be between 1 and 65536" snr --size 0x128 --format u16 "$data" -o "$work/o.raw"
expect 2 "needs both --size" snr --size 160x128 "$data" -o "$work/o.raw"
expect 1 "not a whole number of 161x128 u16 frames" tnr --size 161x128 --format u16 "$data" -o "$work/o.raw"
expect 1 "cannot open input .*missing.raw.*no such file" snr $raw "$work/missing.raw" -o "$work/o.raw"
expect 1 "cannot open input .*missing.png.*no such file" tnr "$work/missing.png" -o "$work/o.raw"
printf 'not an image' >"$work/fake.png"
expect 1 "cannot read image" tnr "$work/fake.png" -o "$work/o.raw"
expect 1 "unsharp works on 8-bit or float frames" unsharp $raw "$data" -o "$work/o.raw"
expect 1 "holds one image" snr $raw "$data" -o "$work/single.png"
expect 1 "cannot create output" tnr $raw "$data" -o "$work/no/such/dir/o.raw"

leftovers=$(ls -A "$work" | grep -v '^fake.png$')
[ -z "$leftovers" ] || fail "failed runs left files behind: $leftovers"

# A run that succeeds writes the output and says nothing on a non-terminal.
err=$("$tool" spr $raw "$data" -o "$work/ok.raw" 2>&1 >/dev/null) || fail "spr failed: $err"
[ -z "$err" ] || fail "spr printed '$err' to a non-terminal"
[ "$(stat -c %s "$work/ok.raw")" -eq 409600 ] || fail "spr output has the wrong size"
cmp -s "$data" "$work/ok.raw" && fail "spr output equals its input"

# A failed run does not touch an existing output.
cp "$work/ok.raw" "$work/keep.raw"
expect 1 "not a whole number" tnr --size 160x127 --format u16 "$data" -o "$work/keep.raw"
cmp -s "$work/ok.raw" "$work/keep.raw" || fail "a failed run changed the existing output"

# Gain 0 passes the recording through unchanged.
"$tool" snr --gain 0 $raw "$data" -o "$work/same.raw" || fail "snr --gain 0 failed"
cmp -s "$data" "$work/same.raw" || fail "snr --gain 0 changed the recording"
echo "ok"
