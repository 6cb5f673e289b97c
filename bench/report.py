#!/usr/bin/env python3
"""Writes bench/results/latest.md from the results of scripts/bench.

Reads the Google Benchmark outputs (bench/results/*Bench.json) and the
quality comparison (bench/results/sr_quality.json), checks the published
targets, and writes the tables with the machine and the commit they were
measured on. Run by scripts/bench; it can be re-run on saved results:

    python3 bench/report.py --results bench/results --build build/bench --source .
"""

import argparse
import datetime
import glob
import json
import os
import platform
import re
import subprocess

import numpy as np

SIZES = ["160x120", "320x240", "640x512"]
CORNERS = "SrFloat corners (C defaults)"
PHASE = "SrFloat phase (C defaults)"
TUNED = "SrFloat corners (tuned)"
BICUBIC = "bicubic (reference frame)"
BTV = "BTV-L1 (OpenCV superres, 8-bit)"
ENGINES = [CORNERS, PHASE, TUNED]


def run(command, cwd=None):
    try:
        return subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return ""


def cpu_model():
    try:
        with open("/proc/cpuinfo") as f:
            for line in f:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return platform.processor() or "unknown"


def compiler(build):
    cache = os.path.join(build, "CMakeCache.txt")
    path = "c++"
    flags = ""
    if os.path.exists(cache):
        with open(cache) as f:
            for line in f:
                if line.startswith("CMAKE_CXX_COMPILER:"):
                    path = line.split("=", 1)[1].strip()
                elif line.startswith("CMAKE_CXX_FLAGS_RELEASE:"):
                    flags = line.split("=", 1)[1].strip()
    version = run([path, "--version"]).splitlines()
    return (version[0] if version else path), flags


def load_benchmarks(results):
    """{program: {benchmark name: record}} and the first context seen."""
    programs, context = {}, None
    for path in sorted(glob.glob(os.path.join(results, "*Bench.json"))):
        with open(path) as f:
            data = json.load(f)
        context = context or data.get("context")
        name = os.path.basename(path)[: -len(".json")]
        programs[name] = {b["name"]: b for b in data.get("benchmarks", []) if b.get("run_type") != "aggregate"}
    return programs, context


def ms(record):
    """Real time of a benchmark record in milliseconds."""
    scale = {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[record.get("time_unit", "ns")]
    return record["real_time"] * scale


def find(programs, program, pattern):
    """The records of one program whose names match a regular expression."""
    return {k: v for k, v in programs.get(program, {}).items() if re.search(pattern, k)}


def one(programs, program, pattern):
    found = find(programs, program, pattern)
    return next(iter(found.values())) if found else None


def fmt(value, digits=1, unit=""):
    if value is None or (isinstance(value, float) and not np.isfinite(value)):
        return "n/a"
    return f"{value:.{digits}f}{unit}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows]
    return "\n".join(lines)


def yes(flag):
    return "yes" if flag else "**no**"


class Quality:
    def __init__(self, data):
        self.data = data
        self.rows = data.get("rows", [])

    def select(self, method, size=None, noise=None, source=None, seeds=None):
        out = []
        for r in self.rows:
            if r["method"] != method:
                continue
            if size and r["size"] != size or noise is not None and r["noise"] != noise:
                continue
            if source and r["source"] != source:
                continue
            if seeds is not None and (r["source"], r["size"], r["noise"], r["seed"]) not in seeds:
                continue
            out.append(r)
        return out

    def keys(self, method, **kw):
        return {(r["source"], r["size"], r["noise"], r["seed"]) for r in self.select(method, **kw)}

    def mean(self, method, field, **kw):
        values = [r[field] for r in self.select(method, **kw) if r[field] is not None]
        return float(np.mean(values)) if values else float("nan")

    def median(self, method, field, **kw):
        values = [r[field] for r in self.select(method, **kw) if r[field] is not None]
        return float(np.median(values)) if values else float("nan")

    def gain(self, method, against, **kw):
        """Mean PSNR difference on the bursts both methods ran on."""
        mine = {(r["source"], r["size"], r["noise"], r["seed"]): r["psnr"] for r in self.select(method, **kw)}
        theirs = {(r["source"], r["size"], r["noise"], r["seed"]): r["psnr"] for r in self.select(against, **kw)}
        common = sorted(set(mine) & set(theirs))
        if not common:
            return float("nan"), 0
        return float(np.mean([mine[k] - theirs[k] for k in common])), len(common)


def speed_section(programs):
    lines = ["## Speed: `computeSR` per output frame", ""]
    lines.append(
        "Steady state: the window slides by one frame per output (`addFrame` + `computeSR`, as the C interface "
        "does from its fifth image on), C interface settings (window 5, reference index 3, TV weight 400, "
        "registration error 0.0001, relative residue 0.007), generated 14-bit bursts with noise 8 "
        "(`SrFloatBench`). The split: `addFrame` (bad-pixel check and preparation of the newest frame), and the "
        "registration and minimisation inside `computeSR` as the engine measures them; the rest of `computeSR` "
        "is its checks, bad-pixel refill and copies.")
    lines.append("")
    rows = []
    for reg, label in (("SrFloatRegistration2", "corners"), ("SrFloatRegistration1", "phase")):
        for threads in (1, 2):
            for size in SIZES:
                w, h = size.split("x")
                r = one(programs, "SrFloatBench", rf"^BM_ComputeSR<{reg}>/w:{w}/h:{h}/threads:{threads}/")
                if not r:
                    continue
                t = ms(r)
                rows.append([label, size, threads, fmt(t, 2), fmt(1000.0 / t, 0), fmt(r.get("ms_add_frame"), 2),
                             fmt(r.get("ms_registration"), 2), fmt(r.get("ms_minimize"), 2)])
    lines.append(table(["registration", "input", "threads", "ms per output", "outputs/s", "addFrame (ms)",
                        "registration (ms)", "minimisation (ms)"], rows))
    return lines


def fixed_section(programs):
    """The fixed-point engine beside the float engine (SrIntBench: same bursts, same settings, same run)."""
    rows = []
    for threads in (1, 2):
        for size in SIZES:
            w, h = size.split("x")
            fl = one(programs, "SrIntBench", rf"^Float/OutputFrame/w:{w}/h:{h}/threads:{threads}/")
            fx = one(programs, "SrIntBench", rf"^Fixed/OutputFrame/w:{w}/h:{h}/threads:{threads}/")
            if not fl or not fx:
                continue
            rows.append([size, threads, fmt(ms(fl), 2), fmt(ms(fx), 2), fmt(ms(fx) / ms(fl), 2),
                         f"{fmt(fl.get('ms_registration'), 2)} / {fmt(fx.get('ms_registration'), 2)}",
                         f"{fmt(fl.get('ms_minimize'), 2)} / {fmt(fx.get('ms_minimize'), 2)}",
                         f"{fmt(fl.get('psnr_db'), 2)} / {fmt(fx.get('psnr_db'), 2)} / {fmt(fx.get('psnr_bicubic_db'), 2)}"])
    if not rows:
        return []
    return ["## The fixed-point engine beside the float engine", "",
            "`SrIntBench`: per output frame in steady state, both engines on the same generated bursts with the "
            "same settings (window 5, reference index 0, TV weight 400, registration error 0.0001, relative "
            "residue 0.007, 8 iterations, PSF sigma 0.683); PSNR of the first output against the truth.", "",
            table(["input", "threads", "float (ms)", "fixed (ms)", "fixed / float", "registration float / fixed (ms)",
                   "minimisation float / fixed (ms)", "PSNR float / fixed / bicubic (dB)"], rows), ""]


def components_section(programs):
    lines = ["## Components", ""]
    rows = []
    for pattern, label in (("BM_FullConvFromSparse", "PSF model, sparse to full grid"),
                           ("BM_ValidCorrToSparse", "PSF transpose, full to sparse grid"),
                           ("BM_Operator", "one operator application"),
                           ("BM_Minimize", "`minimize` (5 frames)")):
        for size in SIZES:
            w, h = size.split("x")
            cells = []
            for threads in (1, 2):
                r = one(programs, "SrFloatSolveBench", rf"^{pattern}/w:{w}/h:{h}/threads:{threads}/")
                cells.append(f"{fmt(ms(r), 3)} ms, {fmt(r.get('Mpix/s'), 0)} MP/s" if r else "n/a")
            rows.append([label, size] + cells)
    if rows:
        lines += ["Solve (`SrFloatSolveBench`; MP/s counts output pixels):", "",
                  table(["step", "input", "1 thread", "2 threads"], rows), ""]

    rows = []
    for size in SIZES:
        w, h = size.split("x")
        for threads in (1, 2):
            r = one(programs, "SrFloatFftBench", rf"^BM_SrFloatFftPair/w:{w}/h:{h}/threads:{threads}/offset:0")
            if r:
                rows.append([size, threads, fmt(r.get("ms_pair"), 3), fmt(r.get("ratio_estimate"), 2),
                             fmt(r.get("ratio_measure"), 2)])
    if rows:
        lines += ["FFT pair (forward + backward) against a bare FFTW plan pair in the same loop "
                  "(`SrFloatFftBench`; ratio = our time / FFTW's, so below 1 is faster):", "",
                  table(["input", "threads", "ms per pair", "ratio vs FFTW_ESTIMATE", "ratio vs FFTW_MEASURE"],
                        rows), ""]

    rows = []
    for size in SIZES:
        w, h = size.split("x")
        for threads in (1, 2):
            r1 = one(programs, "SrFloatRegistration1Bench", rf"^BM_Registration1Window/w:{w}/h:{h}/threads:{threads}/")
            r2 = one(programs, "SrFloatRegistration2Bench", rf"^BM_DoRegistration/w:{w}/h:{h}/threads:{threads}/")
            cv = one(programs, "SrFloatRegistration2Bench",
                     rf"^BM_CornerSearchAndTrackingOnly/w:{w}/h:{h}/threads:{threads}/")
            if r1 or r2:
                rows.append([size, threads, fmt(r1.get("ms_window") if r1 else None, 2),
                             fmt(ms(r2) if r2 else None, 2), fmt(ms(cv) if cv else None, 2)])
    if rows:
        lines += ["Registration of a 5-frame window (`SrFloatRegistration1Bench`, `SrFloatRegistration2Bench`; "
                  "the last column is OpenCV's corner search and four pyramidal Lucas-Kanade calls alone, "
                  "the share of the corner registration that the image library does):", "",
                  table(["input", "threads", "phase correlation (ms)", "corners (ms)",
                         "of which OpenCV corners + tracking (ms)"], rows), ""]

    rows = []
    copy = one(programs, "FiltersBench", r"^BM_FrameCopy")
    for name, r in find(programs, "FiltersBench", r"^BM_").items():
        if name.startswith("BM_FrameCopy"):
            continue
        parts = name.split("/")
        threads = parts[1] if len(parts) > 2 else "1"
        rows.append([parts[0][3:], threads, fmt(ms(r), 2), fmt(r.get("MP/s"), 0)])
    if rows:
        lines += ["Filters on 640x512 frames (`FiltersBench`; live 640x512 video at 60 frames/s needs about "
                  f"20 MP/s; a plain frame copy runs at {fmt(copy.get('MP/s') if copy else None, 0)} MP/s):", "",
                  table(["filter", "threads", "ms per frame", "MP/s"], rows), ""]
    return lines


def quality_sections(q):
    lines = []
    data = q.data
    lines += ["## Quality against bicubic and BTV-L1", ""]
    lines.append(
        "PSNR (dB) and SSIM against the truth over the image minus a {b}-pixel border, after aligning each output "
        "to the truth's sampling grid; mean over the bursts (procedural: one scene and burst per seed; real still: "
        "the bundled 640x512 still, one burst per seed). In brackets: PSNR gain over bicubic on the same bursts. "
        "Bursts: 5 frames (reference at position 1, shift 0), shifts uniform in [-1, 1] low-resolution pixel, "
        "sensor blur 0.683 low-resolution pixels, x2 decimation, Gaussian read noise, 14-bit counts."
        .format(b=data.get("border", 16)))
    lines.append("")
    methods = ENGINES + [BICUBIC]
    header = ["data", "input", "noise", "bursts"] + [m for m in methods]
    rows = []
    for source in ("procedural", "real still"):
        for size in SIZES:
            for noise in (8.0, 32.0):
                base = q.select(BICUBIC, size=size, noise=noise, source=source)
                if not base:
                    continue
                cells = []
                for m in methods:
                    p = q.mean(m, "psnr", size=size, noise=noise, source=source)
                    s = q.mean(m, "ssim", size=size, noise=noise, source=source)
                    g, _ = q.gain(m, BICUBIC, size=size, noise=noise, source=source)
                    cells.append(f"{fmt(p, 2)} / {fmt(s, 3)}" + ("" if m == BICUBIC else f" ({g:+.2f})"))
                rows.append([source, size, fmt(noise, 0), len(base)] + cells)
    lines += [table(header, rows), ""]

    lines += ["### Against BTV-L1 on the same frames", ""]
    lines.append(
        "OpenCV's BTV-L1 (`cv::superres::createSuperResolution_BTVL1`, {d}) gets the same five frames through a "
        "custom frame source. It works on 8-bit frames: the five frames' range is mapped linearly to 0..255 and "
        "its output mapped back, so its figures include that 8-bit quantisation. It leaves out a border of 7 "
        "output pixels, which is put back by replication (inside the {b}-pixel border that is not measured). "
        "It runs on fewer bursts than the others at the larger sizes to keep the benchmark within its time "
        "budget; every figure here is over the bursts it ran on.".format(d=data.get("btv_defaults", "defaults"),
                                                                     b=data.get("border", 16)))
    lines.append("")
    rows = []
    for source in ("procedural", "real still"):
        for size in SIZES:
            for noise in (8.0, 32.0):
                seeds = q.keys(BTV, size=size, noise=noise, source=source)
                if not seeds:
                    continue
                cells = []
                for m in (BICUBIC, CORNERS, PHASE, TUNED, BTV):
                    cells.append(f"{fmt(q.mean(m, 'psnr', seeds=seeds), 2)} / {fmt(q.mean(m, 'ssim', seeds=seeds), 3)}")
                d, _ = q.gain(CORNERS, BTV, seeds=seeds)
                dt, _ = q.gain(TUNED, BTV, seeds=seeds)
                rows.append([source, size, fmt(noise, 0), len(seeds)] + cells + [f"{d:+.2f}", f"{dt:+.2f}"])
    lines += [table(["data", "input", "noise", "bursts", "bicubic", "corners (C defaults)", "phase (C defaults)",
                     "corners (tuned)", "BTV-L1 (8-bit)", "C defaults - BTV-L1 (dB)", "tuned - BTV-L1 (dB)"], rows),
              ""]

    lines += ["### Time per output frame and speed-up against BTV-L1 (same run)", ""]
    lines.append(
        "Milliseconds per output frame in the quality run, {t} threads. First: the first output of a fresh engine "
        "(the fifth `addFrame` and the first `computeSR`; for BTV-L1 its first `nextFrame`, which reads its "
        "temporal window and reconstructs the first five outputs). Steady: median per output in a sliding window "
        "(for BTV-L1: the calls after the first on a longer sequence, nine frames per output, its default). "
        "Speed-up = BTV-L1 steady / ours steady."
        .format(t=data.get("threads", 2)))
    lines.append("")
    rows = []
    for size in SIZES:
        cells = [size]
        for m in (CORNERS, PHASE, TUNED, BICUBIC, BTV):
            first = q.median(m, "first_ms", size=size)
            steady = q.median(m, "steady_ms", size=size)
            cells.append(f"{fmt(first, 1 if first < 1000 else 0)} / {fmt(steady, 2 if steady < 10 else 1 if steady < 1000 else 0)}")
        btv = q.median(BTV, "steady_ms", size=size)
        ours = q.median(CORNERS, "steady_ms", size=size)
        tuned = q.median(TUNED, "steady_ms", size=size)
        cells += [fmt(btv / ours, 0) + "x" if np.isfinite(btv) else "n/a",
                  fmt(btv / tuned, 0) + "x" if np.isfinite(btv) else "n/a"]
        rows.append(cells)
    lines += [table(["input", "corners (C defaults) first / steady", "phase (C defaults)", "corners (tuned)",
                     "bicubic", "BTV-L1", "speed-up, C defaults", "speed-up, tuned"], rows), ""]

    tuned = data.get("tuned", {})
    lines += ["### The tuned setting", ""]
    lines.append(
        "Tuned: PSF sigma {p}, TV weight {w}, at most {i} CG iterations, relative residue {r} (corner "
        "registration, window and reference as the C interface). Chosen by `SrQualityCompare --tune` on bursts of "
        "its own (procedural scenes and bursts with seeds 101 to 103, 160x120 and 320x240, noise 8 and 32), never "
        "on the bursts above: the best mean PSNR gain over bicubic among settings of at most 30 CG iterations."
        .format(p=tuned.get("psf_sigma"), w=tuned.get("weight_tv"), i=tuned.get("max_cg_iters"),
                r=tuned.get("relative_residue")))
    lines.append("")

    diag = data.get("diagnosis", [])
    if diag:
        lines += ["### Why the C interface defaults gain less than 1.5 dB: diagnosis", ""]
        lines.append(
            "Corner registration, noise 8, per size and source (mean over the bursts). Registration error: mean "
            "distance between the engine's shift and the generator's, over the four moved frames. Gains are PSNR "
            "gains over bicubic on the same burst with the C defaults changed in one respect: the solve run to "
            "convergence (at most 100 CG iterations, relative residue 0.0001); the PSF sigma set to 1.366 (the "
            "burst's blur of 0.683 low-resolution pixels expressed in output pixels, the unit of the engine's "
            "PSF); both; the defaults on a burst blurred by 0.3415 low-resolution pixels (the blur the default "
            "PSF models); and, for scale, the truth blurred by the sensor's Gaussian alone without sampling or "
            "noise, which is what perfect de-aliasing without deblurring would reach.")
        lines.append("")
        rows = []
        for source in ("procedural", "real still"):
            for size in SIZES:
                ds = [g for g in diag if g["source"] == source and g["size"] == size]
                if not ds:
                    continue

                def m(key):
                    values = [g[key] for g in ds if g[key] is not None]
                    return float(np.mean(values)) if values else float("nan")

                rows.append([source, size, len(ds), fmt(m("registration_error"), 3), fmt(m("gain_defaults"), 2),
                             fmt(m("gain_converged"), 2), fmt(m("gain_matched_psf"), 2), fmt(m("gain_both"), 2),
                             fmt(m("gain_model_burst"), 2), fmt(m("gain_sensor_blur_only"), 2)])
        lines += [table(["data", "input", "bursts", "registration error (px)", "C defaults (dB)",
                         "converged solve", "PSF 1.366", "both", "burst with the default PSF's blur",
                         "sensor blur only"], rows), ""]
    return lines


def targets_section(programs, q):
    rows = []

    def bench_ms(size, threads=2):
        w, h = size.split("x")
        r = one(programs, "SrFloatBench", rf"^BM_ComputeSR<SrFloatRegistration2>/w:{w}/h:{h}/threads:{threads}/")
        return ms(r) if r else float("nan")

    t160, t640 = bench_ms("160x120"), bench_ms("640x512")
    rows.append(["`computeSR`, corners, C settings, 2 threads, 160x120: under 5 ms per output",
                 fmt(t160, 2, " ms"), yes(t160 < 5.0)])
    rows.append(["the same at 640x512: under 50 ms per output", fmt(t640, 1, " ms"), yes(t640 < 50.0)])
    rows.append(["640x512 at 25 output frames/s or better (40 ms)", fmt(1000.0 / t640, 1, " frames/s"),
                 yes(t640 <= 40.0)])
    fl = one(programs, "SrIntBench", r"^Float/OutputFrame/w:640/h:512/threads:2/")
    fx = one(programs, "SrIntBench", r"^Fixed/OutputFrame/w:640/h:512/threads:2/")
    if fl and fx:
        rows.append(["fixed-point engine at 640x512: at most 1.5 times the float engine's time per output",
                     f"{ms(fx) / ms(fl):.2f}x ({fmt(ms(fx), 1)} ms against {fmt(ms(fl), 1)} ms)",
                     yes(ms(fx) <= 1.5 * ms(fl))])
    if q:
        for size in SIZES:
            btv = q.median(BTV, "steady_ms", size=size)
            ours = q.median(CORNERS, "steady_ms", size=size)
            if np.isfinite(btv):
                rows.append([f"at least 100x faster than BTV-L1 per output frame, {size}",
                             f"{btv / ours:.0f}x ({fmt(ours, 2)} ms against {fmt(btv, 0)} ms)", yes(btv / ours >= 100)])
        for size in SIZES:
            for source in ("procedural", "real still"):
                g, n = q.gain(CORNERS, BICUBIC, size=size, noise=8.0, source=source)
                if n:
                    rows.append([f"C defaults gain 1.5 dB or more over bicubic, noise 8, {size}, {source}",
                                 f"{g:+.2f} dB ({n} bursts)", yes(g >= 1.5)])
        for size in SIZES:
            for noise in (8.0, 32.0):
                seeds = q.keys(BTV, size=size, noise=noise)
                if seeds:
                    d, n = q.gain(CORNERS, BTV, seeds=seeds)
                    rows.append([f"C defaults no worse than BTV-L1 on the same frames, {size}, noise {noise:.0f}",
                                 f"{d:+.2f} dB ({n} bursts)", yes(d >= 0.0)])
        for size in SIZES:
            g, n = q.gain(TUNED, BICUBIC, size=size, noise=8.0)
            seeds = q.keys(BTV, size=size)
            d, m = q.gain(TUNED, BTV, seeds=seeds) if seeds else (float("nan"), 0)
            if n:
                rows.append([f"tuned setting, {size}: gain over bicubic at noise 8 / against BTV-L1",
                             f"{g:+.2f} dB / {d:+.2f} dB", "(not a target)"])
    return ["## Targets", "",
            table(["target (2 threads, native build)", "measured", "met"], rows), ""]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--results", required=True)
    parser.add_argument("--build", default="")
    parser.add_argument("--source", default=".")
    parser.add_argument("--load-before", default="")
    parser.add_argument("--load-after", default="")
    parser.add_argument("--build-seconds", type=int, default=None)
    parser.add_argument("--run-seconds", type=int, default=None)
    parser.add_argument("--output", default=None)
    args = parser.parse_args()

    programs, context = load_benchmarks(args.results)
    quality_path = os.path.join(args.results, "sr_quality.json")
    q = None
    if os.path.exists(quality_path):
        with open(quality_path) as f:
            q = Quality(json.load(f))

    commit = run(["git", "rev-parse", "--short=12", "HEAD"], cwd=args.source) or "unknown"
    subject = run(["git", "log", "-1", "--format=%s"], cwd=args.source)
    dirty = run(["git", "status", "--porcelain", "--untracked-files=no"], cwd=args.source)
    cxx, flags = compiler(args.build) if args.build else ("unknown", "")
    opencv = run(["pkg-config", "--modversion", "opencv4"]) or "unknown"
    fftw = run(["pkg-config", "--modversion", "fftw3f"]) or "unknown"
    cores = os.cpu_count()

    out = ["# Benchmark results", ""]
    out.append("Made by `scripts/bench` (one command: installs what is missing, builds with "
               "`-DKROLIB_NATIVE_ARCH=ON`, runs the Google Benchmark programs of `bench/` and the quality "
               "comparison `bench/SrQualityCompare.cpp`, then writes this file and `sr_quality.png`).")
    out.append("")
    out.append(f"- Date: {datetime.datetime.now().astimezone().strftime('%Y-%m-%d %H:%M %Z')}")
    out.append(f"- Commit: `{commit}` ({subject})" + (" with uncommitted changes" if dirty else ""))
    out.append(f"- Machine: {cpu_model()}, {cores} logical cores"
               + (f", {context.get('mhz_per_cpu')} MHz" if context else "") + f", {platform.system()} "
               f"{platform.release()}")
    out.append(f"- Compiler: {cxx}, flags `{flags} -march=native`; OpenCV {opencv}; FFTW {fftw}"
               + (f"; Google Benchmark library built as {context.get('library_build_type')}" if context else ""))
    if args.load_before or args.load_after:
        out.append(f"- Load average (1, 5, 15 min) before the runs: {args.load_before}; after: {args.load_after}. "
                   "The machine may be shared: times with 2 threads suffer most from other load.")
    if args.build_seconds is not None and args.run_seconds is not None:
        out.append(f"- Duration: build {args.build_seconds} s, runs {args.run_seconds} s, "
                   f"total {args.build_seconds + args.run_seconds} s")
    out.append("")

    out += targets_section(programs, q)
    out += speed_section(programs) + [""]
    out += fixed_section(programs)
    if q:
        out += quality_sections(q)
        out += ["## Chart", "", "![PSNR against milliseconds per output frame](sr_quality.png)", ""]
        out.append("One point per method and input size: mean PSNR over the procedural bursts at noise 8 that "
                   "every method ran on, against the median steady-state time per output frame (log scale).")
        out.append("")
    out += components_section(programs)

    # Every benchmark, for reference.
    out += ["## All Google Benchmark results", "", "<details><summary>Every benchmark of this run</summary>", ""]
    for program, records in programs.items():
        rows = []
        for name, r in records.items():
            counters = {k: v for k, v in r.items()
                        if isinstance(v, (int, float)) and k not in (
                            "family_index", "per_family_instance_index", "repetitions", "repetition_index",
                            "threads", "iterations", "real_time", "cpu_time")}
            rows.append([f"`{name}`", fmt(ms(r), 4), r.get("iterations", ""),
                         ", ".join(f"{k}={v:.4g}" for k, v in counters.items())])
        out += [f"### {program}", "", table(["benchmark", "ms", "iterations", "counters"], rows), ""]
    out += ["</details>", ""]

    path = args.output or os.path.join(args.results, "latest.md")
    with open(path, "w") as f:
        f.write("\n".join(out))
    print(f"wrote {path}")


if __name__ == "__main__":
    main()
