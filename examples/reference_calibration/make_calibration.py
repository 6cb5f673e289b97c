#!/usr/bin/env python3
"""A synthetic two-point calibration for `kroenhance sr --engine reference`.

The reference engine turns the camera's raw (non-uniformity-corrected)
values into radiance pixel by pixel, from two reference scenes seen by
every pixel: raw value and radiance at a low and at a high temperature.
This script makes such a calibration for frames of a given size, as a
camera would record it in front of two uniform blackbodies:

  raw_low.raw,  raw_high.raw         16-bit raw frames (the recording's format)
  radiance_low.pfm, radiance_high.pfm float radiance images (W m^-2 sr^-1)

Every pixel has a responsivity (counts per radiance unit) that varies
smoothly by a few percent over the sensor, and an offset with a fixed
pattern. A few pixels are dead (the same raw value at both temperatures):
the engine marks them and takes their neighbours' calibration.

Needs numpy only. Example:
  python3 make_calibration.py --size 160x128 --format u16 --out cal
"""

import argparse
import os
import sys

import numpy

# In-band radiance of the two blackbodies (about 10 and 40 degrees Celsius
# over 8 to 14 micrometres).
RADIANCE_LOW = 26.0
RADIANCE_HIGH = 38.0
# Raw counts per radiance unit in the middle of the sensor, and the raw
# value that corresponds to RADIANCE_LOW there.
RESPONSIVITY = 250.0
RAW_AT_LOW = 2000.0
DEAD_PIXELS = ((3, 5), (40, 17), (41, 17))  # (row, column), where the frame holds them


def write_pfm(path, image):
    """One-channel PFM: little-endian floats, rows from the bottom up."""
    height, width = image.shape
    with open(path, "wb") as out:
        out.write(b"Pf\n%d %d\n-1.0\n" % (width, height))
        numpy.flipud(image).astype("<f4").tofile(out)


def calibration(width, height, seed):
    rng = numpy.random.default_rng(seed)
    y, x = numpy.mgrid[0:height, 0:width]
    # Smooth responsivity: a few percent lower towards the corners (the
    # optics' vignetting), plus a little pixel-to-pixel scatter.
    r2 = ((x - width / 2) / width) ** 2 + ((y - height / 2) / height) ** 2
    responsivity = RESPONSIVITY * (1.0 - 0.08 * r2) * (1.0 + 0.01 * rng.standard_normal((height, width)))
    # Offset: column stripes and pixel scatter, in counts.
    offset = RAW_AT_LOW - RESPONSIVITY * RADIANCE_LOW
    offset = offset + 15.0 * rng.standard_normal(width)[numpy.newaxis, :] + 5.0 * rng.standard_normal((height, width))
    raw_low = numpy.rint(offset + responsivity * RADIANCE_LOW)
    raw_high = numpy.rint(offset + responsivity * RADIANCE_HIGH)
    for row, column in DEAD_PIXELS:
        if row < height and column < width:
            raw_high[row, column] = raw_low[row, column]
    radiance_low = numpy.full((height, width), RADIANCE_LOW, dtype=numpy.float32)
    radiance_high = numpy.full((height, width), RADIANCE_HIGH, dtype=numpy.float32)
    return raw_low, raw_high, radiance_low, radiance_high


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--size", default="160x128", help="frame size WxH (default 160x128)")
    parser.add_argument("--format", choices=("u16", "s16"), default="u16",
                        help="sample format of the raw frames, the recording's (default u16)")
    parser.add_argument("--out", default=".", help="folder for the four files (created if needed)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the pixel scatter")
    args = parser.parse_args()
    try:
        width, height = (int(v) for v in args.size.lower().split("x"))
    except ValueError:
        sys.exit("--size: expected WxH, got %r" % args.size)
    if width < 1 or height < 1:
        sys.exit("--size: both sides must be positive")

    raw_low, raw_high, radiance_low, radiance_high = calibration(width, height, args.seed)
    dtype = "<u2" if args.format == "u16" else "<i2"
    os.makedirs(args.out, exist_ok=True)
    raw_low.astype(dtype).tofile(os.path.join(args.out, "raw_low.raw"))
    raw_high.astype(dtype).tofile(os.path.join(args.out, "raw_high.raw"))
    write_pfm(os.path.join(args.out, "radiance_low.pfm"), radiance_low)
    write_pfm(os.path.join(args.out, "radiance_high.pfm"), radiance_high)
    print("wrote raw_low.raw, raw_high.raw (%s), radiance_low.pfm, radiance_high.pfm (%dx%d) to %s"
          % (args.format, width, height, args.out))


if __name__ == "__main__":
    main()
