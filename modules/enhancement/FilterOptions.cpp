#include "FilterOptions.h"

#include <sstream>

namespace velmor {
namespace kro {

namespace filter_rules {

std::string range(long long value, long long low, long long high)
{
    if (value >= low && value <= high)
        return "";
    std::ostringstream why;
    why << value << " is outside the accepted range " << low << " to " << high;
    return why.str();
}

std::string rangeReal(double value, double low, double high)
{
    if (value >= low && value <= high)
        return "";
    std::ostringstream why;
    why << value << " is outside the accepted range " << low << " to " << high;
    return why.str();
}

} // namespace filter_rules

namespace {

// The first non-empty problem as "<field>: <problem>".
std::string first(std::initializer_list<std::pair<const char*, std::string>> checks)
{
    for (const auto& check : checks)
        if (!check.second.empty())
            return std::string(check.first) + ": " + check.second;
    return "";
}

} // namespace

std::string TemporalNoiseReductionOptions::validate() const
{
    return first({{"control gain", filter_rules::controlGain(controlGain)},
                  {"global threshold", filter_rules::globalThreshold(globalThreshold)},
                  {"feedback factor", filter_rules::feedbackFactor(feedbackFactor)},
                  {"threads", filter_rules::threads(threads)}});
}

std::string SpatialNoiseRemoverOptions::validate() const
{
    return first({{"gain", filter_rules::spatialGain(gain)}, {"threads", filter_rules::threads(threads)}});
}

std::string StaticPatternRemoverOptions::validate() const
{
    return first({{"threshold", filter_rules::patternThreshold(threshold)},
                  {"line limit", filter_rules::patternLimit(lineLimit)},
                  {"frame limit", filter_rules::patternLimit(frameLimit)},
                  {"threads", filter_rules::threads(threads)}});
}

std::string ClusterPatternRemoverOptions::validate() const
{
    return first({{"std-dev limit", filter_rules::clusterLimit(stdDevLimit)},
                  {"alpha damping", filter_rules::alphaDamping(alphaDamping)},
                  {"mean limit", filter_rules::clusterLimit(meanLimit)}});
}

std::string UnsharpMaskOptions::validate() const
{
    return first({{"amount", filter_rules::unsharpAmount(amount)},
                  {"sigma", filter_rules::unsharpSigma(sigma)},
                  {"threshold", filter_rules::unsharpThreshold(threshold)}});
}

} // namespace kro
} // namespace velmor
