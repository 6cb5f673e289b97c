#pragma once

#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Settings of the float super-resolution engine, with the C interface's
// defaults. validate() holds the one set of rules: the engine's setters,
// its constructor from options, the C interface and the command-line tool
// all apply it, so every front end refuses the same values with the same
// message.
struct KROLIB_EXPORT SrFloatOptions {
    int windowSize = 5;              // frames per reconstruction, >= 1
    int referenceIndex = 3;          // 0 .. windowSize-1, counted back from the newest frame
    float weightTV = 400.0f;         // >= 1; larger smooths less
    float regError = 0.0001f;        // (0, 1]
    float relativeResidue = 0.007f;  // >= 1e-6
    int maxCGIters = 8;              // >= 1
    float psfSigma = 0.683f;         // > 0, in pixels of the output grid
    std::string camera;              // a camera and lens description ("k57 FOV 25"); when it
                                     // decodes, its blur replaces psfSigma (see effectivePsfSigma)
    float minStructureThreshold = 2.0f;
    int threads = 0;                 // 0: OpenMP's default; n > 0: at most n; >= 0

    // nullptr when every value is acceptable, otherwise the message of the
    // first refused one, the very text the engine's setter throws.
    const char* validate() const;
    // psfSigma, or the blur of `camera` when that description decodes.
    float effectivePsfSigma() const;
};

// The individual rules, which the engine's setters check one at a time;
// each returns the refusal message or nullptr.
namespace srfloat_rules {
KROLIB_EXPORT const char* windowSize(int windowSize);
KROLIB_EXPORT const char* referenceIndex(int index, int windowSize);
KROLIB_EXPORT const char* weightTV(float weight);
KROLIB_EXPORT const char* regError(float error);
KROLIB_EXPORT const char* relativeResidue(float residue);
KROLIB_EXPORT const char* maxCGIters(int iterations);
KROLIB_EXPORT const char* psfSigma(float sigma);
KROLIB_EXPORT const char* threads(int threads);
} // namespace srfloat_rules

} // namespace kro
} // namespace velmor
