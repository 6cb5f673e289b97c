#pragma once

// Settings of the bit-exact noise and pattern filters, each with one
// validation whose rules the filter's setters also apply (a setter refuses
// the same values and returns false), so that the library, the command-line
// tool and other front ends accept exactly the same settings. A problem is
// worded "<value> is outside the accepted range <low> to <high>".

#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

namespace filter_rules {
// "" for a value inside [low, high], otherwise the problem.
KROLIB_EXPORT std::string range(long long value, long long low, long long high);
inline std::string controlGain(long long v) { return range(v, 0, 10); }
inline std::string globalThreshold(long long v) { return range(v, 0, 100); }
inline std::string feedbackFactor(long long v) { return range(v, 0, 100); }
inline std::string spatialGain(long long v) { return range(v, 0, 31); }
inline std::string patternThreshold(long long v) { return range(v, 0, 100); }
inline std::string patternLimit(long long v) { return range(v, 0, 31); }
inline std::string threads(long long v) { return range(v, 0, 1024); }
// The same for real values (NaN is outside every range).
KROLIB_EXPORT std::string rangeReal(double value, double low, double high);
inline std::string alphaDamping(double v) { return rangeReal(v, 0.0, 1.0); }
inline std::string clusterLimit(double v) { return rangeReal(v, 0.0, 1e30); }
inline std::string unsharpAmount(double v) { return rangeReal(v, 0.0, 20.0); }
inline std::string unsharpSigma(double v) { return rangeReal(v, 0.1, 50.0); }
inline std::string unsharpThreshold(double v) { return rangeReal(v, 0.0, 1.0); }
} // namespace filter_rules

struct KROLIB_EXPORT TemporalNoiseReductionOptions {
    int controlGain = 10;      // 0..10
    int globalThreshold = 15;  // 0..100; 100 fixes the feedback
    int feedbackFactor = 60;   // 0..100 percent
    bool hwUnits = false;      // gain and factor as raw hardware register values
    int threads = 0;           // 0..1024; 0: OpenMP's default
    // "" when every value is acceptable, else "<field>: <problem>" for the first refused one.
    std::string validate() const;
};

struct KROLIB_EXPORT SpatialNoiseRemoverOptions {
    int gain = 6;     // 0..31
    int threads = 0;  // 0..1024
    std::string validate() const;
};

struct KROLIB_EXPORT StaticPatternRemoverOptions {
    int threshold = 22;   // 0..100
    int lineLimit = 12;   // 0..31
    int frameLimit = 16;  // 0..31
    int threads = 0;      // 0..1024
    std::string validate() const;
};

struct KROLIB_EXPORT ClusterPatternRemoverOptions {
    unsigned clusterWidth = 3;   // stored only (the smoothing is 3x3)
    unsigned clusterHeight = 3;
    float stdDevLimit = 10.0f;   // >= 0: largest temporal deviation of a pixel that is learnt
    float alphaDamping = 0.1f;   // 0..1: weight of each new ratio in the map
    float meanLimit = 100.0f;    // >= 0: largest difference to a neighbour
    std::string validate() const;
};

struct KROLIB_EXPORT UnsharpMaskOptions {
    double amount = 1.0;     // 0..20
    double sigma = 1.0;      // 0.1..50, pixels
    double threshold = 0.0;  // 0..1 of the type's full scale
    std::string validate() const;
};

} // namespace kro
} // namespace velmor
