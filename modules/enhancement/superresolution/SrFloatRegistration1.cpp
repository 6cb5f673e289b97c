#include "SrFloatRegistration1.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "SrFloatConvolution.h"
#include "detail/FlowRowSums.h"
#include "detail/Parallel.h"
#include "detail/ShiftFrame.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

constexpr int kDefaultGaussRadius = 5;
constexpr int kDefaultRegErrBlurRadius = 3;
constexpr float kDefaultRegError = 0.0001f;
// The border repair of the spectral blur is exact only for a radius below
// half the frame size.
constexpr int kMinFrameSize = 2 * kDefaultGaussRadius + 2;

// Elementary operations per element of the passes, for threadsForWork.
constexpr std::size_t kWorkPerBlurBin = 6;
constexpr std::size_t kWorkPerProductBin = 12;
constexpr std::size_t kWorkPerGradientPixel = 10;
constexpr std::size_t kWorkPerFlowPixel = 24;

int checkedWidth(int width, int height)
{
    if (width < kMinFrameSize || height < kMinFrameSize || width % 2 != 0 ||
        static_cast<long long>(width) * height > INT_MAX / 2)
        KRO_THROW("invalid frame size " << width << "x" << height
                                        << " (even width and both sides at least " << kMinFrameSize
                                        << " needed)");
    return width;
}

int checkedWindowSize(int windowSize)
{
    if (windowSize < 1)
        KRO_THROW("invalid window size " << windowSize);
    return windowSize;
}

// sigma = sqrt(r * 3 * r / 25) = r sqrt(3) / 5.
float gaussSigma(int radius)
{
    return std::sqrt(static_cast<float>(radius) * 3.0f * static_cast<float>(radius) / 25.0f);
}

cv::Mat newSpectrum(int width, int height)
{
    return cv::Mat(height, width / 2 + 1, CV_32FC2, cv::Scalar::all(0));
}

float (*complexData(cv::Mat& spectrum))[2]
{
    return reinterpret_cast<float(*)[2]>(spectrum.ptr<float>());
}

// Rows [0, rows) shared among `threads` threads in fixed blocks.
template <typename RowFunction>
int forEachRow(int rows, int threads, const RowFunction& rowFunction)
{
    return parallel::parallelFor(threads, 0, rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y)
            rowFunction(y);
    });
}

} // namespace

SrFloatRegistration1::SrFloatRegistration1(int width_, int height_, int windowSize_)
    : SrFloatRegistration1(width_, height_, RingSize{checkedWindowSize(windowSize_)})
{
}

SrFloatRegistration1::SrFloatRegistration1(int width_, int height_)
    : SrFloatRegistration1(width_, height_, RingSize{0})
{
}

SrFloatRegistration1::SrFloatRegistration1(int width_, int height_, RingSize ring)
    : width(checkedWidth(width_, height_)),
      height(height_),
      inputSize(width_ * height_),
      windowSize(ring.frames),
      framesPrepared(0),
      spectrumSize((width_ / 2 + 1) * height_),
      regError(kDefaultRegError),
      gaussRadius(kDefaultGaussRadius),
      regErrBlurRadius(kDefaultRegErrBlurRadius),
      fft(width_, height_),
      gaussSpectrum(newSpectrum(width_, height_)),
      crossSpectrum(newSpectrum(width_, height_)),
      blurredSpectrum(newSpectrum(width_, height_)),
      correlation(height_, width_, 0.0f),
      blurredReference(height_, width_, 0.0f),
      blurredCurrent(height_, width_, 0.0f),
      gradX(height_, width_, 0.0f),
      gradY(height_, width_, 0.0f),
      errorImage(height_, width_, 0.0f),
      blurredError(height_, width_, 0.0f),
      kernel(static_cast<std::size_t>(kDefaultGaussRadius) + 1),
      tensorXX(0.0f),
      tensorXY(0.0f),
      tensorYY(0.0f),
      rowTensor(3 * static_cast<std::size_t>(height_)),
      rowFlow(5 * static_cast<std::size_t>(height_)),
      rowPeakValue(static_cast<std::size_t>(height_)),
      rowPeakIndex(static_cast<std::size_t>(height_))
{
    spectra.reserve(static_cast<std::size_t>(windowSize));
    inverseMagnitudes.reserve(static_cast<std::size_t>(windowSize));
    for (int i = 0; i < windowSize; ++i) {
        spectra.push_back(newSpectrum(width, height));
        inverseMagnitudes.push_back(cv::Mat(height, width / 2 + 1, CV_32F, cv::Scalar::all(0)));
    }
    completeShifts.reserve(static_cast<std::size_t>(windowSize));
    fft.gaussFft(gaussRadius, gaussSigma(gaussRadius), complexData(gaussSpectrum), kernel.data());
}

void SrFloatRegistration1::setGaussRadius(int radius)
{
    if (radius < 1 || 2LL * radius + 2 > std::min(width, height))
        KRO_THROW("invalid Gaussian radius " << radius << " for a " << width << "x" << height
                                             << " frame");
    std::vector<float> weights(static_cast<std::size_t>(radius) + 1);
    fft.gaussFft(radius, gaussSigma(radius), complexData(gaussSpectrum), weights.data());
    kernel.swap(weights);
    gaussRadius = radius;
}

bool SrFloatRegistration1::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    fft.setThreads(threads);
    return true;
}

void SrFloatRegistration1::setRegErrBlurRadius(int radius)
{
    if (radius < 0)
        KRO_THROW("invalid registration error blur radius " << radius);
    regErrBlurRadius = radius;
}

float (*SrFloatRegistration1::spectrum(int position))[2]
{
    return complexData(spectra[static_cast<std::size_t>(position)]);
}

const float* SrFloatRegistration1::inverseMagnitude(int position) const
{
    return inverseMagnitudes[static_cast<std::size_t>(position)].ptr<float>();
}

void SrFloatRegistration1::prepareFrame(float* frame)
{
    if (!frame)
        KRO_THROW("null frame");
    if (windowSize == 0)
        KRO_THROW("this registration holds no spectra: it is handed them with every registration");
    // The spectra rotate with the driver's frames: the oldest buffer is
    // reused for the newest frame.
    if (framesPrepared == windowSize) {
        std::rotate(spectra.begin(), spectra.begin() + 1, spectra.end());
        std::rotate(inverseMagnitudes.begin(), inverseMagnitudes.begin() + 1, inverseMagnitudes.end());
    } else {
        ++framesPrepared;
    }
    const int position = framesPrepared - 1;
    fft.forward(frame, spectrum(position));
    computeInverseMagnitudes(spectrum(position), spectrumSize,
                      inverseMagnitudes[static_cast<std::size_t>(position)].ptr<float>());
}

void SrFloatRegistration1::computeInverseMagnitudes(const float (*values)[2], int bins, float* inverse)
{
    for (int b = 0; b < bins; ++b) {
        // A bin of magnitude 0 carries no phase; its 0 makes it add nothing
        // to the correlation (rather than 0/0, which would spoil the whole
        // surface).
        const float magnitude = std::sqrt(values[b][0] * values[b][0] + values[b][1] * values[b][1]);
        inverse[b] = magnitude > 0.0f ? 1.0f / magnitude : 0.0f;
    }
}

int SrFloatRegistration1::doRegistration(int count, int refPos, float** frames, PointF* shifts,
                                         char** masks, float** workFrames)
{
    if (count < 1 || count != framesPrepared)
        KRO_THROW("frame count " << count << " does not match the " << framesPrepared
                                 << " prepared frames");
    if (refPos < 0 || refPos >= count)
        KRO_THROW("invalid reference position " << refPos << " for " << count << " frames");
    if (!frames || !shifts || !masks || !workFrames)
        KRO_THROW("null frame, shift, mask or work frame list");
    for (int i = 0; i < count; ++i) {
        if (!frames[i] || !masks[i] || !workFrames[i])
            KRO_THROW("null frame, mask or work frame " << i);
        if (frames[i] == workFrames[i])
            KRO_THROW("work frame " << i << " is the frame itself");
    }

    registerFramesWith(count, refPos, frames,
                       [this](int frame) { return SpectrumView{spectrum(frame), inverseMagnitude(frame)}; },
                       shifts, masks);

    // Every shift is checked before any work frame is written, so after a
    // throw the work frames are untouched (the masks and the complete shifts
    // are those of the registration).
    if (!shiftsWithinBound(count, shifts))
        KRO_THROW("Too large displacement");
    // Every work frame is written whole by the cut, so the frames need no
    // copy beforehand.
    for (int i = 0; i < count; ++i)
        shiftFrame(frames[i], shifts[i], workFrames[i]);
    return 0;
}

bool SrFloatRegistration1::shiftsWithinBound(int count, const PointF* shifts) const
{
    // The bound is half the height for both axes, the width playing no part;
    // this is intended. A non-finite shift fails the check too.
    const float bound = static_cast<float>(height / 2);
    for (int i = 0; i < count; ++i) {
        const PointF& s = shifts[i];
        if (!(s.x > -bound && s.x < bound && s.y > -bound && s.y < bound))
            return false;
    }
    return true;
}

void SrFloatRegistration1::registerFramesWith(int count, int refPos, float** frames,
                                              const SpectrumSource& spectrumOf, PointF* shifts,
                                              char** masks)
{
    const SpectrumView reference = spectrumOf(refPos);
    // Blurred reference: spectral blur, border band recomputed from the frame.
    {
        const float(*source)[2] = reference.values;
        const float(*gauss)[2] = complexData(gaussSpectrum);
        float(*blurred)[2] = complexData(blurredSpectrum);
        const int bins = width / 2 + 1;
        const int threads = parallel::threadsForWork(threadCount, static_cast<std::size_t>(spectrumSize) * kWorkPerBlurBin);
        forEachRow(height, threads, [&](int y) {
            for (int b = y * bins; b < (y + 1) * bins; ++b) {
                blurred[b][0] = source[b][0] * gauss[b][0] - source[b][1] * gauss[b][1];
                blurred[b][1] = source[b][0] * gauss[b][1] + source[b][1] * gauss[b][0];
            }
        });
    }
    fft.backward(complexData(blurredSpectrum), blurredReference.ptr<float>());
    fft.repairGaussBlur(frames[refPos], blurredReference.ptr<float>(), gaussRadius, kernel.data());

    initialize();
    // Every mask is written whole below (the reference's all ones, the
    // others by their flow step), so none is cleared beforehand.

    completeShifts.resize(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        if (i == refPos) {
            shifts[i] = PointF(0.0f, 0.0f);
            std::memset(masks[i], 1, static_cast<std::size_t>(inputSize));
            continue;
        }
        spectralProducts(reference, spectrumOf(i));
        fft.backward(complexData(crossSpectrum), correlation.ptr<float>());
        fft.backward(complexData(blurredSpectrum), blurredCurrent.ptr<float>());
        fft.repairGaussBlur(frames[i], blurredCurrent.ptr<float>(), gaussRadius, kernel.data());
        shifts[i] = registerFrame(masks[i]);
    }
    for (int i = 0; i < count; ++i)
        completeShifts[static_cast<std::size_t>(i)] = shifts[i];
}

void SrFloatRegistration1::initialize()
{
    const int w = width;
    const int h = height;
    const int threads = parallel::threadsForWork(threadCount, static_cast<std::size_t>(inputSize) * kWorkPerGradientPixel);
    forEachRow(h, threads, [&](int y) {
        // Central differences inside, one-sided differences on the first and
        // last row and column.
        const int previous = y == 0 ? 0 : (y == h - 1 ? h - 2 : y - 1);
        const int next = y == 0 ? 1 : (y == h - 1 ? h - 1 : y + 1);
        const float verticalScale = (y == 0 || y == h - 1) ? 1.0f : 0.5f;
        const float* up = blurredReference[previous];
        const float* down = blurredReference[next];
        const float* row = blurredReference[y];
        float* gx = gradX[y];
        float* gy = gradY[y];
        for (int x = 0; x < w; ++x)
            gy[x] = (down[x] - up[x]) * verticalScale;
        gx[0] = row[1] - row[0];
        for (int x = 1; x < w - 1; ++x)
            gx[x] = (row[x + 1] - row[x - 1]) * 0.5f;
        gx[w - 1] = row[w - 1] - row[w - 2];

        double xx = 0.0, xy = 0.0, yy = 0.0;
        detail::tensorSums(gx, gy, 0, w, xx, xy, yy);
        double* sums = &rowTensor[3 * static_cast<std::size_t>(y)];
        sums[0] = xx;
        sums[1] = xy;
        sums[2] = yy;
    });
    double xx = 0.0, xy = 0.0, yy = 0.0;
    for (int y = 0; y < h; ++y) {
        xx += rowTensor[3 * static_cast<std::size_t>(y)];
        xy += rowTensor[3 * static_cast<std::size_t>(y) + 1];
        yy += rowTensor[3 * static_cast<std::size_t>(y) + 2];
    }
    tensorXX = static_cast<float>(xx);
    tensorXY = static_cast<float>(xy);
    tensorYY = static_cast<float>(yy);
}

void SrFloatRegistration1::spectralProducts(const SpectrumView& referenceView, const SpectrumView& currentView)
{
    const float(*reference)[2] = referenceView.values;
    const float(*current)[2] = currentView.values;
    const float(*gauss)[2] = complexData(gaussSpectrum);
    float(*cross)[2] = complexData(crossSpectrum);
    float(*blurred)[2] = complexData(blurredSpectrum);
    const float* inverseReference = referenceView.inverseMagnitude;
    const float* inverseCurrent = currentView.inverseMagnitude;
    const int bins = width / 2 + 1;
    const int threads = parallel::threadsForWork(threadCount, static_cast<std::size_t>(spectrumSize) * kWorkPerProductBin);
    forEachRow(height, threads, [&](int y) {
        for (int b = y * bins; b < (y + 1) * bins; ++b) {
            const float cr = current[b][0], ci = current[b][1];
            // Both spectra normalised to unit magnitude, factor by factor
            // (|R|^2 |C|^2 would overflow float for the DC bin of large
            // frames of raw counts).
            const float rr = reference[b][0] * inverseReference[b];
            const float ri = reference[b][1] * inverseReference[b];
            const float nr = cr * inverseCurrent[b];
            const float ni = ci * inverseCurrent[b];
            // The frame's spectrum times the conjugate of the reference's:
            // for frame = reference moved by d the correlation then peaks at
            // +d, the engine's sign (the reverse product peaks at -d).
            cross[b][0] = nr * rr + ni * ri;
            cross[b][1] = ni * rr - nr * ri;
            blurred[b][0] = cr * gauss[b][0] - ci * gauss[b][1];
            blurred[b][1] = cr * gauss[b][1] + ci * gauss[b][0];
        }
    });
}

PointF SrFloatRegistration1::registerFrame(char* mask)
{
    const int threads = parallel::threadsForWork(threadCount, static_cast<std::size_t>(inputSize) * kWorkPerFlowPixel);
    regionFailure = nullptr;
    PointF result;
    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        const PointI peak = phaseCorrelation(team);
        const PointF shift = opticalFlow(team, peak, mask);
        if (team.isMaster())
            result = shift;
    });
    if (regionFailure)
        std::rethrow_exception(regionFailure);
    return result;
}

void SrFloatRegistration1::shiftFrame(float* frame, PointF& shift, float* out)
{
    detail::shiftFrame(frame, width, height, shift, out);
}

} // namespace kro
} // namespace velmor
