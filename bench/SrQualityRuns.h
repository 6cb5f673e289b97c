#pragma once

// The methods the quality comparison measures, each on one generated burst:
// the float engine (either registration, any settings), bicubic enlargement
// of the reference frame, and OpenCV's BTV-L1; with the constants and small
// helpers the comparison shares.

#include <chrono>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "BurstGenerator.h"
#include "SrFloat.h"

namespace srquality {

using Clock = std::chrono::steady_clock;
using velmor::kro::PointF;
using velmor::kro::SrFloat;
using velmor::kro::SrFloatRegistration1;
using velmor::kro::SrFloatRegistration2;

constexpr int kWindow = 5;
constexpr int kReferenceIndex = 3;                                 // the C interface's
constexpr int kReferencePosition = kWindow - kReferenceIndex - 1;  // position 1 of 5
constexpr int kBorder = 16;
constexpr int kSteadyFrames = 8;  // outputs timed after the first, sliding window
constexpr double kSensorSigma = 0.683;  // the generator's blur, low-resolution pixels
constexpr int kBtvRadius = 4;           // BTV-L1's default temporal radius

inline double msSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

inline double median(std::vector<double> values)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

inline double mean(const std::vector<double>& values)
{
    if (values.empty())
        return NAN;
    double sum = 0.0;
    for (double v : values)
        sum += v;
    return sum / static_cast<double>(values.size());
}

inline std::string sizeText(cv::Size s)
{
    return std::to_string(s.width) + "x" + std::to_string(s.height);
}


struct Output {
    cv::Mat_<float> image;  // the first output: reference position 1 of the first kWindow frames
    double firstMs = NAN;   // the first output of a fresh engine
    double steadyMs = NAN;  // median per output in the sliding window
    std::vector<PointF> shifts;  // the engine's complete shifts of the first output
    std::string note;
};

struct EngineSettings {
    std::string name;
    bool corners = true;  // SrFloatRegistration2, else SrFloatRegistration1
    float weightTV = 400.0f;
    float regError = 0.0001f;
    float relativeResidue = 0.007f;
    float psfSigma = 0.683f;
    int maxCGIters = 8;
};

// BTV-L1 on the first `count` frames of the burst. Its first nextFrame()
// reads its whole temporal window (radius 4: up to 9 frames) and
// reconstructs the first five outputs; every later call reads one frame and
// reconstructs one output. With exactly the five frames of our window,
// output 1 (the reference position) is made from the same five frames as
// our engine's. With a longer sequence, the calls after the first give the
// steady-state cost (nine frames per output, its default).
struct BtvRun {
    cv::Mat_<float> reference;  // output at the reference position, mapped back
    double firstMs = NAN;
    std::vector<double> laterMs;  // calls that each reconstructed one output
};

// Settings found by tune() on bursts the comparison never uses.
EngineSettings tunedSettings();

// Threads every engine of this run gets (--threads).
extern int engineThreads;

// The engine on `burst` (the first output; with `steady`, also the median
// time of kSteadyFrames further outputs of a sliding window).
Output runEngine(const EngineSettings& s, const krotools::Burst& burst, bool steady);
Output runBicubic(const krotools::Burst& burst);
double bicubicPsnr(const krotools::Burst& burst);
// BTV-L1 on `count` frames, `calls` timed calls.
BtvRun runBtv(const krotools::Burst& burst, int count, int calls);
// BTV-L1's settings as OpenCV reports them.
std::string btvDefaults();

} // namespace srquality
