#pragma once

// The JSON report of kroenhance sr (--report FILE.json).
//
// {
//   "command": "kroenhance sr", "version": "0.1.0",
//   "settings": {"engine": "corners", "window": 5, "reference_index": 3,
//                "tv_weight": 400, "reg_error": 0.0001, "rel_residue": 0.007,
//                "iterations": 8, "psf_sigma": 0.683, "camera": null},
//   "input":  {"width": 160, "height": 128, "frames": 10},
//   "output": {"path": "out.raw", "width": 320, "height": 256, "frames": 6},
//   "reconstructed": 6, "fallbacks": 0, "seconds": 1.25,
//   "frames": [
//     {"output_index": 0, "input_index": 4, "reference_input_index": 1,
//      "engine_value": 1.98, "code": 0, "quality": 1.98,
//      "fallback": false, "failure": null,
//      "window": [{"input_index": 0, "shift": [0.41, -0.2], "masked_fraction": 0.01}, ...],
//      "registration_ms": 12.5, "minimization_ms": 80.1, "total_ms": 95.3},
//     ...]
// }
//
// "engine_value" is computeSR's value (null when the library threw), "code"
// the C interface's code for the frame, "quality" the engine value when it is
// a quality figure (else null), "failure" null or {"kind", "message"} for a
// frame replaced by the bicubic enlargement of its reference frame; "shift"
// and "masked_fraction" are null when the registration did not run.
//
// With the fixed engine (--engine fixed) "engine_value" and "code" are
// computeSr's status (0, -3, -6, -998 or the minimiser's code), "quality" is
// null, the reference is the newest frame (the result is aligned with it),
// "shift" is each frame's shift against the newest frame (rounded plus
// sub-pixel part), and every frame adds "iterations" (the solver's) and
// "warnings" (saturated input samples, a restarted window).
//
// With the reference engine (--engine reference) "settings" adds
// "calibration" (the four file names), "engine_value" is computeSR's value
// (a quality, or -3, -6 and the engine's codes -4, -7, -10), "code" the
// engine's code (0 for a quality), a fallback frame is the engine's simple
// combination, and every frame adds "quality_map" (the 3x3 coverage of the
// sub-pixel phases, rows of y phase -1/2, 0, +1/2 and columns of x phase,
// summing to 1; zeros when the engine stopped before registering) and
// "warnings" (saturated raw samples, errors while the window filled).

#include <ostream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "SrSession.h"

namespace kroenhance {

struct SrRunSummary {
    SrSettings settings;
    cv::Size inputSize;
    long long inputFrames = 0;
    std::string outputPath;
    cv::Size outputSize;
    double seconds = 0.0;
};

void writeSrReport(std::ostream& out, const SrRunSummary& run, const std::vector<SrFrameRecord>& records);

// `text` as a JSON string literal, quotes included.
std::string jsonString(const std::string& text);

} // namespace kroenhance
