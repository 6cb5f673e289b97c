#include "SuperResolutionMinimization.h"

#include <cmath>
#include <limits>
#include <sstream>

namespace velmor {
namespace kro {

namespace {

// Digits of the traced figures: enough to tell floats apart.
constexpr int kTraceDigits = 9;

std::string withValue(const char* label, double value)
{
    std::ostringstream text;
    text.precision(kTraceDigits);
    text << label << ' ' << value;
    return text.str();
}

} // namespace

SuperResolutionMinimization::SuperResolutionMinimization(int width_, int height_, int nFrames_, float factor_)
    : SrFloatMinimization(width_, height_, nFrames_, factor_),
      traceBuffer(static_cast<std::size_t>(getFullSize()), 0.0f),
      psfTable(static_cast<std::size_t>(2) * nFrames_ * getPsfSize(), 0.0f)
{
    setDebugChannelName("SuperResolution");
    getConvolution().setDebugChannelName("SuperResolution");
}

std::vector<DebugChannel*> SuperResolutionMinimization::getInternalDebugChannelObjects()
{
    return {this, &getConvolution()};
}

void SuperResolutionMinimization::debugMat(const std::string& name, cv::Mat_<float> m)
{
    if (!isDebugActive(kDebugLevelTrace))
        return;
    if (m.empty()) {
        send(name + " - empty", kDebugLevelTrace);
        return;
    }
    float largest = -std::numeric_limits<float>::infinity();
    double sum = 0.0;
    for (int y = 0; y < m.rows; ++y) {
        const float* row = m[y];
        for (int x = 0; x < m.cols; ++x) {
            if (row[x] > largest)
                largest = row[x];
            sum += row[x];
        }
    }
    std::ostringstream text;
    text.precision(kTraceDigits);
    text << name << " - max: " << largest << " - sum: " << sum
         << " - mean: " << sum / (static_cast<double>(m.rows) * m.cols);
    send(text.str(), kDebugLevelTrace);
}

bool SuperResolutionMinimization::wantsStepReports() const
{
    return isDebugActive(kDebugLevelTrace);
}

void SuperResolutionMinimization::traceValue(const char* label, double value)
{
    send(withValue(label, value), kDebugLevelTrace);
}

void SuperResolutionMinimization::traceFull(const char* name, const float* array)
{
    // The estimate and the CG vectors live on the padded grid.
    debugMat(name, cv::Mat_<float>(getFullHeight(), getFullWidth(), const_cast<float*>(array)));
}

void SuperResolutionMinimization::traceFull(const char* name, FullArray which)
{
    traceFull(name, fullArray(which));
}

void SuperResolutionMinimization::traceFrames(const char* name)
{
    for (int i = 0; i < solveFrameCount(); ++i)
        debugMat(name, cv::Mat_<float>(getHeight(), getWidth(), solveFrame(i)));
}

void SuperResolutionMinimization::tracePsfs()
{
    const int frames = solveFrameCount();
    const int taps = getPsfSize();
    for (int i = 0; i < frames; ++i) {
        std::copy(psfXOf(i).begin(), psfXOf(i).end(), psfTable.begin() + static_cast<std::ptrdiff_t>(i) * taps);
        std::copy(psfYOf(i).begin(), psfYOf(i).end(),
                  psfTable.begin() + static_cast<std::ptrdiff_t>(frames + i) * taps);
    }
    debugMat("Psfs", cv::Mat_<float>(2 * frames, taps, psfTable.data()));
}

void SuperResolutionMinimization::fillCentreWeights()
{
    const int w = getFullWidth();
    for (int y = 0; y < getFullHeight(); ++y)
        for (int x = 0; x < w; ++x)
            traceBuffer[static_cast<std::size_t>(y) * w + x] = centreWeightAt(x, y);
}

void SuperResolutionMinimization::fillDenormalizedU()
{
    // The same expression as the output, over the whole padded grid.
    const float* u = fullArray(FullArray::U);
    const float mu = solveMean();
    const float sd = solveSigma();
    for (std::size_t p = 0; p < traceBuffer.size(); ++p)
        traceBuffer[p] = u[p] * sd + mu;
}

void SuperResolutionMinimization::reportStep(SolvePoint point, double value)
{
    const double normB = 1.0 / static_cast<double>(solveInvNormB2());
    switch (point) {
    case SolvePoint::Statistics:
        traceValue("ref mean:", solveMean());
        traceValue("ref sigma:", solveSigma());
        traceFrames("input");
        break;
    case SolvePoint::Normalized:
        traceFrames("normalized input");
        tracePsfs();
        break;
    case SolvePoint::BackProjected:
        traceFull("initialized B", FullArray::B);
        traceValue("NormB:", normB);
        traceFull("initialized U", FullArray::U);
        break;
    case SolvePoint::CgStart:
        traceFull("conjugateGradients input U", FullArray::U);
        break;
    case SolvePoint::CgGradient:
        traceFull("conjugateGradients R (after gradient)", FullArray::R);
        traceFull("conjugateGradients B (before R=B-R)", FullArray::B);
        break;
    case SolvePoint::CgResidual:
        traceFull("conjugateGradients R (after R=B-R)", FullArray::R);
        traceFull("conjugateGradients S (after R=B-R)", FullArray::S);
        traceValue("Pnr   :", value);
        traceValue("NormB :", normB);
        traceValue("RelRes:", std::sqrt(value / normB));
        break;
    case SolvePoint::IterationStart:
        traceFull("iteration S (before gradient)", FullArray::S);
        traceFull("iteration Ldl (before gradient)", FullArray::Ldl);
        traceFull("iteration Ld  (before gradient)", FullArray::Ld);
        traceFull("iteration Ldr (before gradient)", FullArray::Ldr);
        traceFull("iteration Lr  (before gradient)", FullArray::Lr);
        fillCentreWeights();
        traceFull("iteration Lc  (before gradient)", traceBuffer.data());
        break;
    case SolvePoint::Alpha:
        traceFull("iteration Q (after gradient)", FullArray::Q);
        traceValue("alpha :", value);
        traceFull("iteration U (before U=U+alpha*S)", FullArray::U);
        break;
    case SolvePoint::UUpdated:
        traceFull("iteration U (after U=U+alpha*S)", FullArray::U);
        traceFull("iteration R (before R=R-alpha*Q)", FullArray::R);
        break;
    case SolvePoint::RUpdated:
        traceFull("iteration R (after R=R-alpha*Q)", FullArray::R);
        traceValue("nr    :", value);
        traceValue("NormB :", normB);
        traceValue("RelRes:", std::sqrt(value / normB));
        break;
    case SolvePoint::Beta:
        traceValue("beta  :", value);
        traceFull("iteration S (before S=R-beta*S)", FullArray::S);
        break;
    case SolvePoint::SUpdated:
        traceFull("iteration S (after S=R-beta*S)", FullArray::S);
        traceValue("iteration Pnr:", value);
        break;
    case SolvePoint::Solved:
        traceFull("final U", FullArray::U);
        fillDenormalizedU();
        traceFull("denormalized U", traceBuffer.data());
        break;
    case SolvePoint::Output:
        debugMat("output", cv::Mat_<float>(static_cast<int>(getHeight() * getFactor()),
                                           static_cast<int>(getWidth() * getFactor()),
                                           const_cast<float*>(solveOutput())));
        break;
    }
}

} // namespace kro
} // namespace velmor
