#include "SrFloatOptions.h"

#include "CameraLensTable.h"

namespace velmor {
namespace kro {

namespace srfloat_rules {

// The message for an empty window is the reference-index one on purpose:
// callers match on these texts.
const char* windowSize(int windowSize)
{
    return windowSize <= 0 ? "Invalid reference index specified." : nullptr;
}

const char* referenceIndex(int index, int windowSize)
{
    return index < 0 || index >= windowSize ? "Invalid reference index specified." : nullptr;
}

const char* weightTV(float weight)
{
    return weight >= 1.0f ? nullptr : "Invalid total-variation term weight specified.";
}

const char* regError(float error)
{
    return error > 0.0f && error <= 1.0f ? nullptr : "Invalid maximum registration error specified.";
}

// The weight message for a bad residue is intended: it is the text existing
// callers look for.
const char* relativeResidue(float residue)
{
    return static_cast<double>(residue) >= 1e-6 ? nullptr : "Invalid total-variation term weight specified.";
}

const char* maxCGIters(int iterations)
{
    return iterations >= 1 ? nullptr : "Invalid maximum number of iterations specified.";
}

const char* psfSigma(float sigma)
{
    return sigma > 0.0f ? nullptr : "Invalid standard deviation of the sensor psf specified.";
}

const char* threads(int threads)
{
    return threads >= 0 ? nullptr : "Invalid thread count specified.";
}

} // namespace srfloat_rules

float SrFloatOptions::effectivePsfSigma() const
{
    std::string model;
    int fieldOfView = -1;
    if (!camera.empty() && decodeCameraType(camera, model, fieldOfView))
        return psfSigmaFor(model, fieldOfView);
    return psfSigma;
}

const char* SrFloatOptions::validate() const
{
    // In the order the engine applies them, so that the first refusal is the
    // one a caller of the setters would meet first.
    const char* checks[] = {srfloat_rules::windowSize(windowSize),
                            srfloat_rules::referenceIndex(referenceIndex, windowSize),
                            srfloat_rules::weightTV(weightTV),
                            srfloat_rules::regError(regError),
                            srfloat_rules::relativeResidue(relativeResidue),
                            srfloat_rules::maxCGIters(maxCGIters),
                            srfloat_rules::psfSigma(effectivePsfSigma()),
                            srfloat_rules::threads(threads)};
    for (const char* message : checks)
        if (message)
            return message;
    return nullptr;
}

} // namespace kro
} // namespace velmor
