#pragma once

#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "SrFloatMinimization.h"

namespace velmor {
namespace kro {

// The reference engine's total-variation minimiser: the float engine's
// solver (SrFloatMinimization: the same model, parameters, defaults and
// results to the bit) with a detailed trace of the solve on its debug
// channel, named "SuperResolution".
//
// When the channel listens at the trace level (kDebugLevelTrace) a solve
// sends, in this order, besides the float engine's step traces ("start
// minimize", "start large iteration: ", "start gradient", ...):
//
//   minimize:            "ref mean: m", "ref sigma: s", "input" (each frame,
//                        before normalisation), "normalized input" (each
//                        frame), "Psfs" (psfX of every frame, then psfY of
//                        every frame, one row each), "initialized B",
//                        "NormB: ||B||^2", "initialized U"; after the large
//                        loop "final U", "denormalized U" (U * sigma + mean
//                        over the whole padded grid), "output";
//   each large iteration: "conjugateGradients input U", "conjugateGradients R
//                        (after gradient)", "conjugateGradients B (before
//                        R=B-R)", "conjugateGradients R (after R=B-R)",
//                        "conjugateGradients S (after R=B-R)", "Pnr   : p",
//                        "NormB : ||B||^2", "RelRes: sqrt(p / ||B||^2)";
//   each CG step:        "iteration S (before gradient)", the TV weights
//                        "iteration Ldl/Ld  /Ldr/Lr  /Lc  (before gradient)",
//                        "iteration Q (after gradient)", "alpha : a",
//                        "iteration U (before/after U=U+alpha*S)",
//                        "iteration R (before/after R=R-alpha*Q)",
//                        "nr    : n", "NormB : ||B||^2", "RelRes:
//                        sqrt(n / ||B||^2)", and unless the step converged
//                        "beta  : b", "iteration S (before/after
//                        S=R-beta*S)", "iteration Pnr: n".
//
// Pnr is the squared residual norm |R|^2 that a CG step starts from, nr the
// one it ends with (the next step's Pnr); RelRes is the relative residual
// |R| / |B| that the solve compares with the relative residue. Matrices are
// traced by debugMat. Tracing makes the solve wait for the master thread at
// every point and copies nothing but the centre weights and the
// denormalised estimate (into a buffer of the object); without a listener
// the solve runs exactly as the float engine's.
class KROLIB_EXPORT SuperResolutionMinimization : public SrFloatMinimization {
public:
    // As SrFloatMinimization (same arguments, defaults and refusals).
    SuperResolutionMinimization(int width, int height, int nFrames, float factor);

    // Sends "<name> - max: <largest> - sum: <sum> - mean: <mean>" at the
    // trace level (sum in double, in row order; NaN samples make sum and
    // mean NaN and are passed over by the maximum), or "<name> - empty" for
    // an empty matrix. Builds nothing when nobody listens.
    void debugMat(const std::string& name, cv::Mat_<float> m);

    // The debug channels this object owns: itself and its convolution.
    std::vector<DebugChannel*> getInternalDebugChannelObjects();

protected:
    bool wantsStepReports() const override;
    void reportStep(SolvePoint point, double value) override;

private:
    void traceValue(const char* label, double value);
    void traceFull(const char* name, FullArray which);
    void traceFull(const char* name, const float* array);
    void traceFrames(const char* name);
    void tracePsfs();
    void fillCentreWeights();
    void fillDenormalizedU();

    // fullSize floats: the centre weights or the denormalised estimate of
    // the trace; 2 * nFrames * psfSize floats: the PSF table.
    std::vector<float> traceBuffer;
    std::vector<float> psfTable;
};

} // namespace kro
} // namespace velmor
