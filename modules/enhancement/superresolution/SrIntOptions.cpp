#include "SrIntOptions.h"

namespace velmor {
namespace kro {

namespace srint_rules {

// The message for an empty window is the reference-index one on purpose, as
// in the float engine: callers match on these texts.
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

const char* weightTVRange(float weight)
{
    return weight >= 1.0f && weight <= 600.0f ? nullptr
                                              : "invalid value given for setWeightTV (allowed: 1-600)";
}

const char* regError(float error)
{
    return error > 0.0f && error <= 1.0f ? nullptr : "Invalid maximum registration error specified.";
}

// Compared in double against the bound as a float: a caller's 1e-6 (the
// float nearest to it, 9.99999997e-7) is the smallest accepted value, while
// the double 1e-6 would refuse it.
const char* relativeResidue(float residue)
{
    return static_cast<double>(residue) >= static_cast<double>(1e-6f) ? nullptr
                                                                       : "Invalid total-variation term residue specified.";
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

} // namespace srint_rules

const char* SrIntOptions::validate() const
{
    // In the order the engine applies them, so that the first refusal is the
    // one a caller of the setters would meet first.
    const char* checks[] = {srint_rules::windowSize(windowSize),
                            srint_rules::referenceIndex(referenceIndex, windowSize),
                            srint_rules::weightTV(weightTV),
                            srint_rules::weightTVRange(weightTV),
                            srint_rules::regError(regError),
                            srint_rules::relativeResidue(relativeResidue),
                            srint_rules::maxCGIters(maxCGIters),
                            srint_rules::psfSigma(psfSigma),
                            srint_rules::threads(threads)};
    for (const char* message : checks)
        if (message)
            return message;
    return nullptr;
}

} // namespace kro
} // namespace velmor
