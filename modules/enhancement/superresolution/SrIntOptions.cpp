#include "SrIntOptions.h"

namespace velmor {
namespace kro {

namespace srint_rules {

const char* weightTVRange(float weight)
{
    return weight >= 1.0f && weight <= 600.0f ? nullptr
                                              : "invalid value given for setWeightTV (allowed: 1-600)";
}

// Compared in double against the bound as a float: a caller's 1e-6 (the
// float nearest to it, 9.99999997e-7) is the smallest accepted value, while
// the double 1e-6 would refuse it.
const char* relativeResidue(float residue)
{
    return static_cast<double>(residue) >= static_cast<double>(1e-6f) ? nullptr
                                                                       : "Invalid total-variation term residue specified.";
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
