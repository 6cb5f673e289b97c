#!/usr/bin/python3
"""Super-resolution on real thermal footage, scored against the real frames.

Each 640x512 frame of the real driving recording is binned 2x2 to 320x256
(every input pixel the mean of four sensor pixels), the binned stream is
super-resolved by `kroenhance sr` (local and global motion, default
settings otherwise), and every output is compared with the real frame it
stands for, beside the bicubic enlargement (OpenCV INTER_CUBIC) of the same
binned reference frame. Two scenes:
  moving  the recording itself (forward driving: zoom, parallax, bounce);
  static  one real frame moved by whole sensor pixels, Gaussian noise added
          after binning (a true global shift, the case one shift per frame
          describes exactly).
Also the wall-clock time per output frame of both engines on the real
640x512 frames (tool run divided by the outputs, reading and writing
included).

Writes real.json and real.md into --out and a before/after crop around a
parked car (--picture). PSNR uses a peak of 65535 (16-bit samples); gains
are differences, which do not depend on the peak.
"""
import argparse
import json
import os
import subprocess
import sys
import tempfile
import time

import cv2
import numpy as np

WIDTH, HEIGHT = 640, 512
TILE = 64
PEAK = 65535.0
WINDOW, REFERENCE_INDEX = 5, 3  # the tool's defaults
STATIC_SHIFTS = [(0, 0), (1, 0), (0, 1), (1, 1), (3, 2), (-1, 3), (2, -1), (-2, -2)]
STATIC_NOISE = 2.0  # counts, standard deviation, after binning
CAR = (384, 224, 256, 192)  # x, y, width, height of the crop around a parked car


def load(path):
    data = np.fromfile(path, "<u2")
    frames = data.size // (WIDTH * HEIGHT)
    return data[: frames * WIDTH * HEIGHT].reshape(frames, HEIGHT, WIDTH).astype(np.float32)


def bin2(frame):
    return frame.reshape(frame.shape[0] // 2, 2, frame.shape[1] // 2, 2).mean(axis=(1, 3))


def bicubic(frame):
    return cv2.resize(frame, (frame.shape[1] * 2, frame.shape[0] * 2), interpolation=cv2.INTER_CUBIC)


def psnr(a, b):
    mse = np.mean((a.astype(np.float64) - b) ** 2)
    return 10.0 * np.log10(PEAK ** 2 / max(mse, 1e-12))


def tile_psnrs(a, b):
    return np.array([psnr(a[y:y + TILE, x:x + TILE], b[y:y + TILE, x:x + TILE])
                     for y in range(0, a.shape[0], TILE) for x in range(0, a.shape[1], TILE)])


def run_sr(tool, frames, motion, work):
    """Runs kroenhance sr on float frames; returns outputs, report, seconds."""
    n, h, w = frames.shape
    source = os.path.join(work, "in.raw")
    frames.astype("<f4").tofile(source)
    out = os.path.join(work, "out.raw")
    report = os.path.join(work, "report.json")
    start = time.monotonic()
    subprocess.run([tool, "sr", "--motion", motion, "--size", "%dx%d" % (w, h), "--format", "f32", "--quiet",
                    source, "-o", out, "--report", report], check=True)
    seconds = time.monotonic() - start
    outputs = np.fromfile(out, "<f4").reshape(-1, 2 * h, 2 * w)
    return outputs, json.load(open(report)), seconds


def score(tool, truth, binned, motion, work):
    outputs, report, seconds = run_sr(tool, binned, motion, work)
    frames, tiles = [], []
    for image, record in zip(outputs, report["frames"]):
        ref = record["reference_input_index"]
        base = bicubic(binned[ref])
        frames.append({"reference": ref, "psnr": psnr(image, truth[ref]), "bicubic": psnr(base, truth[ref]),
                       "ms": record["total_ms"]})
        tiles.append(tile_psnrs(image, truth[ref]) - tile_psnrs(base, truth[ref]))
    gains = np.array([f["psnr"] - f["bicubic"] for f in frames])
    tiles = np.concatenate(tiles)
    return {"frames": frames, "gain_mean": float(gains.mean()), "gain_min": float(gains.min()),
            "gain_max": float(gains.max()), "tile_p5": float(np.percentile(tiles, 5)),
            "tile_min": float(tiles.min()), "ms_per_frame_engine": float(np.median([f["ms"] for f in frames])),
            "ms_per_frame_wall": 1000.0 * seconds / len(frames)}, outputs


def static_scene(frame, seed=1):
    rng = np.random.default_rng(seed)
    truth, binned = [], []
    for dx, dy in STATIC_SHIFTS:
        moved = cv2.warpAffine(frame, np.float32([[1, 0, dx], [0, 1, dy]]), (WIDTH, HEIGHT),
                               flags=cv2.INTER_NEAREST, borderMode=cv2.BORDER_REFLECT)
        truth.append(moved)
        binned.append(bin2(moved) + rng.normal(0.0, STATIC_NOISE, (HEIGHT // 2, WIDTH // 2)))
    return np.stack(truth).astype(np.float32), np.stack(binned).astype(np.float32)


def picture(path, truth, binned, local, global_, record_ref):
    x, y, w, h = CAR
    panels = [truth[record_ref], bicubic(binned[record_ref]), global_, local]
    lo, hi = np.percentile(truth[record_ref][y:y + h, x:x + w], [0.5, 99.5])
    crops = []
    for image, label in zip(panels, ["real frame", "bicubic", "SR global motion", "SR local motion"]):
        crop = np.clip((image[y:y + h, x:x + w] - lo) / (hi - lo) * 255.0, 0, 255).astype(np.uint8)
        crop = cv2.resize(crop, (2 * w, 2 * h), interpolation=cv2.INTER_NEAREST)
        cv2.putText(crop, label, (8, 24), cv2.FONT_HERSHEY_SIMPLEX, 0.7, 255, 2, cv2.LINE_AA)
        crops.append(crop)
    cv2.imwrite(path, np.hstack(crops))


def markdown(result):
    lines = ["# Super-resolution on real footage", "",
             "Real 640x512 frames binned 2x2, super-resolved by `kroenhance sr` (window %d, reference index %d), "
             "compared with the real frames; gains are PSNR differences to bicubic enlargement of the same "
             "binned frame (dB). Tiles: 64x64 of every output frame." % (WINDOW, REFERENCE_INDEX), "",
             "| scene | motion | mean gain | worst frame | best frame | tile 5th pct | worst tile | ms/frame (engine) |",
             "|---|---|---:|---:|---:|---:|---:|---:|"]
    for scene in ("moving", "static"):
        for motion in ("local", "global"):
            r = result[scene][motion]
            lines.append("| %s | %s | %+.2f | %+.2f | %+.2f | %+.2f | %+.2f | %.0f |" % (
                scene, motion, r["gain_mean"], r["gain_min"], r["gain_max"], r["tile_p5"], r["tile_min"],
                r["ms_per_frame_engine"]))
    speed = result["speed_640x512"]
    lines += ["", "Wall clock per output frame at 640x512 input (the tool, reading and writing included): "
              "local %.0f ms, global %.0f ms (ratio %.2f)." % (speed["local"], speed["global"],
                                                              speed["local"] / speed["global"]), ""]
    return "\n".join(lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--tool", required=True, help="the kroenhance binary")
    parser.add_argument("--data", required=True, help="seq_640x512x24_u16.raw of the real recording")
    parser.add_argument("--out", required=True, help="folder for real.json and real.md")
    parser.add_argument("--picture", help="PNG of the crop around a parked car")
    args = parser.parse_args()
    if not os.path.exists(args.data):
        sys.exit("bench/real: the recording %s is missing" % args.data)

    truth = load(args.data)
    binned = np.stack([bin2(f) for f in truth])
    result = {"moving": {}, "static": {}}
    outputs = {}
    with tempfile.TemporaryDirectory() as work:
        for motion in ("local", "global"):
            print("bench/real: moving scene, %s motion" % motion, flush=True)
            result["moving"][motion], outputs[motion] = score(args.tool, truth, binned, motion, work)
        static_truth, static_binned = static_scene(truth[5])
        for motion in ("local", "global"):
            print("bench/real: static scene, %s motion" % motion, flush=True)
            result["static"][motion], _ = score(args.tool, static_truth, static_binned, motion, work)
        speed = {}
        for motion in ("local", "global"):
            print("bench/real: 640x512 timing, %s motion" % motion, flush=True)
            speed[motion] = score(args.tool, np.repeat(np.repeat(truth[:12], 2, 1), 2, 2), truth[:12], motion,
                                  work)[0]["ms_per_frame_wall"]
        result["speed_640x512"] = speed
    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "real.json"), "w") as f:
        json.dump(result, f, indent=1)
    text = markdown(result)
    with open(os.path.join(args.out, "real.md"), "w") as f:
        f.write(text + "\n")
    print(text)
    if args.picture:
        first = result["moving"]["local"]["frames"][0]["reference"]
        picture(args.picture, truth, binned, outputs["local"][0], outputs["global"][0], first)


if __name__ == "__main__":
    main()
