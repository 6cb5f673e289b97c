#!/usr/bin/env bash
# kroenhance demo on a reduced crop of the bundled still: every file is
# written, the figures are in summary.md, and both reconstructions beat the
# bicubic enlargement; the enhancement pipeline ran over the bundled
# recording; a failed run leaves nothing behind.
set -u
tool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

out=$("$tool" demo -o "$work/demo" --crop 192x160 2>"$work/err") || fail "demo exited with $? ($(cat "$work/err"))"
[ -s "$work/err" ] && fail "demo wrote to standard error: $(cat "$work/err")"
grep -q "Files in $work/demo/" <<<"$out" || fail "demo does not say where the files are: $out"
grep -qE "SR corners +[0-9.]+ dB +0\.[0-9]+ +[0-9.]+" <<<"$out" || fail "demo does not print the figures: $out"
grep -qE "enhancement pipeline on drive_crop_160x128x10_u16.raw: 10 frames, [0-9.]+ ms/frame" <<<"$out" ||
    fail "demo does not report the pipeline: $out"

for file in truth.png reference_nearest.png reference_bicubic.png sr_corners.png sr_phase.png sr_local.png \
            sr_corners.pfm sr_phase.pfm sr_local.pfm comparison.png summary.md burst.json \
            burst_frames_96x80x5_f32.raw burst_truth_192x160_f32.raw pipeline.png; do
    [ -s "$work/demo/$file" ] || fail "demo did not write $file"
done
[ "$(ls -A "$work/demo" | wc -l)" -eq 15 ] || fail "demo left other files: $(ls -A "$work/demo")"
[ "$(stat -c %s "$work/demo/burst_frames_96x80x5_f32.raw")" -eq $((5 * 96 * 80 * 4)) ] ||
    fail "the burst is not 5 frames of 96x80 f32"

python3 - "$work/demo" <<'PY' || fail "summary.md or the images are not what they should be"
import re, struct, sys, zlib
folder = sys.argv[1]
summary = open(folder + "/summary.md").read()
rows = {}
for line in summary.splitlines():
    m = re.match(r"\| (Reference frame, [a-z ]+|Super-resolution, [a-z ,]+) \| ([0-9.]+) \| ([0-9.]+) \| ([-0-9.]+) \|", line)
    if m:
        rows[m.group(1)] = (float(m.group(2)), float(m.group(3)), m.group(4))
bicubic = rows["Reference frame, bicubic"]
nearest = rows["Reference frame, pixel replication"]
assert bicubic[0] > nearest[0], rows
for engine in ("corners", "phase"):
    psnr, ssim, ms = rows["Super-resolution, global motion, %s registration" % engine]
    assert psnr > bicubic[0] + 0.5, (engine, psnr, bicubic)
    assert ssim > bicubic[1], (engine, ssim, bicubic)
    assert float(ms) > 0, (engine, ms)
psnr, ssim, ms = rows["Super-resolution, local motion"]
assert psnr >= bicubic[0] and float(ms) > 0, (psnr, bicubic)
assert "failed" not in summary, summary

def png_header(path):
    data = open(path, "rb").read(33)
    assert data[:8] == b"\x89PNG\r\n\x1a\n", path
    width, height, depth, colour = struct.unpack(">IIBB", data[16:26])
    return width, height, depth, colour
for name in ("truth", "reference_nearest", "reference_bicubic", "sr_corners", "sr_phase", "sr_local"):
    assert png_header("%s/%s.png" % (folder, name)) == (192, 160, 16, 0), name
width, height, depth, colour = png_header(folder + "/comparison.png")
assert depth == 8 and colour == 0 and width >= 6 * 192 and height > 2 * 160, (width, height)
# Recorded, filtered and enhanced frame of the 160x128 recording, enlarged 3x.
width, height, depth, colour = png_header(folder + "/pipeline.png")
assert depth == 8 and colour == 0 and width >= 3 * 480 and height > 384, (width, height)
assert re.search(r"## Enhancement pipeline\n\n.*10 frames of 160x128, 16-bit\): [0-9.]+ ms per frame", summary), summary
PY

# Failures leave no folder behind.
err=$("$tool" demo -o "$work/missing" --scene "$work/none.png" 2>&1 >/dev/null); status=$?
[ $status -eq 1 ] || fail "demo with a missing scene exited with $status"
grep -q "cannot open the scene" <<<"$err" || fail "missing scene message: $err"
[ -e "$work/missing" ] && fail "a failed demo left $work/missing"
err=$("$tool" demo -o "$work/small" --crop 32x32 2>&1 >/dev/null); status=$?
[ $status -eq 2 ] || fail "demo --crop 32x32 exited with $status"
grep -q "at least 64x64" <<<"$err" || fail "small crop message: $err"
err=$("$tool" demo -o "$work/big" --crop 1280x1024 2>&1 >/dev/null); status=$?
[ $status -eq 2 ] || fail "demo --crop 1280x1024 exited with $status"
[ -e "$work/big" ] && fail "a refused demo left $work/big"
echo "ok"
