#!/usr/bin/env python3
"""Super-resolves a raw float sequence through the C interface, with ctypes and NumPy.

    python3 superresolve.py 160 128 frames.f32 result.f32 [--library PATH]

frames.f32 holds frames of WIDTH x HEIGHT float32 values (little-endian, row after row, frames
one after the other). From the fifth frame on, each frame gives one image of twice the width
and height; all of them are written to result.f32.

The library is found through --library, the environment variable KROLIB_LIBRARY, or the
system's library search path (install prefix in LD_LIBRARY_PATH or ldconfig).
"""
import argparse
import ctypes
import ctypes.util
import os
import sys

import numpy as np


def load_library(path=None):
    candidates = [path, os.environ.get("KROLIB_LIBRARY"), ctypes.util.find_library("KroLibEnhancement"),
                  "libKroLibEnhancement.so"]
    for candidate in candidates:
        if candidate:
            try:
                lib = ctypes.CDLL(candidate)
                break
            except OSError:
                continue
    else:
        sys.exit("cannot load libKroLibEnhancement; pass --library PATH")

    float_array = np.ctypeslib.ndpointer(dtype=np.float32, flags="C_CONTIGUOUS")
    lib.SuperResolution_init.argtypes = [ctypes.c_int, ctypes.c_int]
    lib.SuperResolution_release.argtypes = [ctypes.c_int]
    lib.SuperResolution_getErrorMessage.argtypes = [ctypes.c_char_p, ctypes.c_uint]
    lib.SuperResolution_queryOutputImageSize.argtypes = [
        ctypes.c_int, ctypes.POINTER(ctypes.c_int), ctypes.POINTER(ctypes.c_int)]
    lib.SuperResolution_addImage.argtypes = [ctypes.c_int, float_array]
    lib.SuperResolution_getSuperresolutionImage.argtypes = [ctypes.c_int, float_array]
    lib.SuperResolution_setReferenceFrame.argtypes = [ctypes.c_int, ctypes.c_int]
    lib.SuperResolution_setCameraAndLensType.argtypes = [ctypes.c_int, ctypes.c_char_p]
    return lib


def error_text(lib):
    buffer = ctypes.create_string_buffer(256)
    lib.SuperResolution_getErrorMessage(buffer, ctypes.sizeof(buffer) - 1)
    return buffer.value.decode(errors="replace")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("width", type=int)
    parser.add_argument("height", type=int)
    parser.add_argument("input")
    parser.add_argument("output")
    parser.add_argument("--library")
    args = parser.parse_args()
    if args.width < 16 or args.height < 16:
        parser.error("width and height must be at least 16")

    frames = np.fromfile(args.input, dtype="<f4")
    frame_size = args.width * args.height
    if frames.size % frame_size:
        sys.exit(f"{args.input}: {frames.size} values are not a whole number of {args.width}x{args.height} frames")
    frames = frames.reshape(-1, args.height, args.width)

    lib = load_library(args.library)
    handle = lib.SuperResolution_init(args.width, args.height)
    out_w, out_h = ctypes.c_int(), ctypes.c_int()
    lib.SuperResolution_queryOutputImageSize(handle, ctypes.byref(out_w), ctypes.byref(out_h))
    result = np.empty((out_h.value, out_w.value), dtype=np.float32)

    images = []
    try:
        for index, frame in enumerate(frames):
            code = lib.SuperResolution_addImage(handle, np.ascontiguousarray(frame, dtype=np.float32))
            if code == -999:
                sys.exit(f"frame {index}: {error_text(lib)}")
            if code != 0:
                print(f"frame {index}: code {code} ({error_text(lib).strip()})", file=sys.stderr)
            if index >= 4:
                lib.SuperResolution_getSuperresolutionImage(handle, result)
                images.append(result.copy())
    finally:
        lib.SuperResolution_release(handle)

    np.asarray(images, dtype="<f4").tofile(args.output)
    print(f"{len(frames)} frames in, {len(images)} images of {out_w.value}x{out_h.value} out")


if __name__ == "__main__":
    main()
