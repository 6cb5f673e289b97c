#pragma once

#include "KroLibExport.h"
#include "SrFloatOptions.h"

namespace velmor {
namespace kro {

// Settings of the fixed-point super-resolution engine (SrInt), with the
// engine's own defaults. validate() holds the one set of rules that the
// engine's setters, its constructor from options, the command-line tool and
// the Python module apply, so every front end refuses the same values with
// the same message.
struct KROLIB_EXPORT SrIntOptions {
    int windowSize = 5;              // frames per reconstruction, >= 1
    int referenceIndex = 0;          // 0 .. windowSize-1, counted back from the newest frame;
                                     // the frame whose mean and spread normalise the solve
    float weightTV = 400.0f;         // 1 .. 600 (the minimiser keeps it as a 16-bit integer);
                                     // larger smooths less
    float regError = 0.0001f;        // (0, 1]
    float relativeResidue = 0.007f;  // >= 1e-6
    int maxCGIters = 8;              // >= 1 (kept as a 16-bit count: larger values mean 32767)
    float psfSigma = 0.683f;         // > 0, in pixels of the output grid
    float minStructureThreshold = 2.0f;
    bool skipMinimization = false;   // registration and checks only; the output is 0
    int threads = 0;                 // 0: OpenMP's default; n > 0: at most n; >= 0

    // nullptr when every value is acceptable, otherwise the message of the
    // first refused one: the very text the engine's setter (or, for a TV
    // weight above 600, the minimiser) throws.
    const char* validate() const;
};

// The individual rules, which the engine's setters check one at a time;
// each returns the refusal message or nullptr. The two engines share their
// rules and messages except for the residue's message and the TV weight's
// upper bound.
namespace srint_rules {
using srfloat_rules::maxCGIters;
using srfloat_rules::psfSigma;
using srfloat_rules::referenceIndex;
using srfloat_rules::regError;
using srfloat_rules::threads;
using srfloat_rules::weightTV;  // the driver's own rule (>= 1)
using srfloat_rules::windowSize;
// The minimiser keeps the weight as a 16-bit integer: 1 to 600.
KROLIB_EXPORT const char* weightTVRange(float weight);
KROLIB_EXPORT const char* relativeResidue(float residue);
} // namespace srint_rules

} // namespace kro
} // namespace velmor
