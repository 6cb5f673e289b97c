#include "SrFloatRegistration1.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "SrFloatConvolution.h"
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

// The flow step is solved only when det = A C - B^2 of the gradient tensor is
// above this fraction of (A + C)^2, i.e. its smaller eigenvalue above about
// this fraction of the larger: otherwise the gradients are (nearly) all
// parallel or zero (the aperture problem), the sub-pixel shift is not
// determined and the frame is left unregistered (integer shift, mask all 0)
// instead of getting a made-up or non-finite shift.
constexpr double kMinRelativeDeterminant = 1e-6;

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

// Positions p in [0, n) whose partner p + shift also lies in [0, n):
// [begin, end), empty when |shift| >= n.
void overlapRange(int shift, int n, int& begin, int& end)
{
    begin = std::min(n, std::max(0, -shift));
    end = std::max(begin, std::min(n, n - shift));
}

// The part [flowBegin, flowEnd) of the overlap [begin, end) along an axis
// of n pixels where neither blurred image is limited by its border (the
// first and last `radius` pixels), or the whole overlap for a zero shift.
void flowRange(int shift, int n, int radius, int begin, int end, int& flowBegin, int& flowEnd)
{
    if (shift == 0) {
        flowBegin = begin;
        flowEnd = end;
        return;
    }
    flowBegin = std::max(begin, std::max(radius, radius - shift));
    flowEnd = std::max(flowBegin, std::min(end, std::min(n - radius, n - radius - shift)));
}

// The same for a shift rounded half up, as shiftFrame rounds it (the same
// float expression, so both agree on every value).
void roundedOverlapRange(float shift, int n, int& begin, int& end)
{
    const float rounded = std::floor(shift + 0.5f);
    if (!(rounded > static_cast<float>(-n) && rounded < static_cast<float>(n))) {
        begin = end = 0;
        return;
    }
    overlapRange(static_cast<int>(rounded), n, begin, end);
}

// Double sums over [begin, end) of float products, in kLanes interleaved
// partial sums that are added in a fixed order at the end: the same bits
// for any thread count, without the latency of one long dependency chain.
constexpr int kLanes = 4;

double laneTotal(const double* lanes)
{
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

// sum of a * a, a * b and b * b.
void tensorSums(const float* a, const float* b, int begin, int end, double& aa, double& ab, double& bb)
{
    double saa[kLanes] = {}, sab[kLanes] = {}, sbb[kLanes] = {};
    int x = begin;
    for (; x + kLanes <= end; x += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
            saa[k] += a[x + k] * a[x + k];
            sab[k] += a[x + k] * b[x + k];
            sbb[k] += b[x + k] * b[x + k];
        }
    }
    for (int k = 0; x < end; ++x, ++k) {
        saa[k] += a[x] * a[x];
        sab[k] += a[x] * b[x];
        sbb[k] += b[x] * b[x];
    }
    aa += laneTotal(saa);
    ab += laneTotal(sab);
    bb += laneTotal(sbb);
}

// sum of gx * d and gy * d with d = current[x + offset] - reference[x].
void flowSums(const float* gx, const float* gy, const float* current, int offset, const float* reference,
              int begin, int end, double& bx, double& by)
{
    double sx[kLanes] = {}, sy[kLanes] = {};
    int x = begin;
    for (; x + kLanes <= end; x += kLanes) {
        for (int k = 0; k < kLanes; ++k) {
            const float d = current[x + k + offset] - reference[x + k];
            sx[k] += gx[x + k] * d;
            sy[k] += gy[x + k] * d;
        }
    }
    for (int k = 0; x < end; ++x, ++k) {
        const float d = current[x + offset] - reference[x];
        sx[k] += gx[x] * d;
        sy[k] += gy[x] * d;
    }
    bx = laneTotal(sx);
    by = laneTotal(sy);
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
    : width(checkedWidth(width_, height_)),
      height(height_),
      inputSize(width_ * height_),
      windowSize(checkedWindowSize(windowSize_)),
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

SrFloatRegistration1::SrFloatRegistration1(const SrFloatRegistration1& other)
    : width(other.width),
      height(other.height),
      inputSize(other.inputSize),
      windowSize(other.windowSize),
      framesPrepared(other.framesPrepared),
      spectrumSize(other.spectrumSize),
      regError(other.regError),
      gaussRadius(other.gaussRadius),
      regErrBlurRadius(other.regErrBlurRadius),
      fft(other.fft),
      gaussSpectrum(other.gaussSpectrum.clone()),
      crossSpectrum(other.crossSpectrum.clone()),
      blurredSpectrum(other.blurredSpectrum.clone()),
      correlation(other.correlation.clone()),
      blurredReference(other.blurredReference.clone()),
      blurredCurrent(other.blurredCurrent.clone()),
      gradX(other.gradX.clone()),
      gradY(other.gradY.clone()),
      errorImage(other.errorImage.clone()),
      blurredError(other.blurredError.clone()),
      kernel(other.kernel),
      tensorXX(other.tensorXX),
      tensorXY(other.tensorXY),
      tensorYY(other.tensorYY),
      completeShifts(other.completeShifts),
      rowTensor(other.rowTensor),
      rowFlow(other.rowFlow),
      rowPeakValue(other.rowPeakValue),
      rowPeakIndex(other.rowPeakIndex),
      threadCount(other.threadCount)
{
    spectra.reserve(other.spectra.size());
    for (const cv::Mat& s : other.spectra)
        spectra.push_back(s.clone());
    inverseMagnitudes.reserve(other.inverseMagnitudes.size());
    for (const cv::Mat& m : other.inverseMagnitudes)
        inverseMagnitudes.push_back(m.clone());
    completeShifts.reserve(static_cast<std::size_t>(windowSize));
}

SrFloatRegistration1& SrFloatRegistration1::operator=(const SrFloatRegistration1& other)
{
    if (this != &other)
        *this = SrFloatRegistration1(other);
    return *this;
}

SrFloatRegistration1::~SrFloatRegistration1() = default;

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
    const float(*values)[2] = spectrum(position);
    float* inverse = inverseMagnitudes[static_cast<std::size_t>(position)].ptr<float>();
    for (int b = 0; b < spectrumSize; ++b) {
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

    registerFrames(count, refPos, frames, shifts, masks);

    // The bound is half the height for both axes, the width playing no part;
    // this is intended. Every shift is checked before any work frame is
    // written, so after a throw the work frames are untouched (the masks and
    // the complete shifts are those of the registration). A non-finite shift
    // fails the check too.
    const float bound = static_cast<float>(height / 2);
    for (int i = 0; i < count; ++i) {
        const PointF& s = shifts[i];
        if (!(s.x > -bound && s.x < bound && s.y > -bound && s.y < bound))
            KRO_THROW("Too large displacement");
    }
    // Every work frame is written whole by the cut, so the frames need no
    // copy beforehand.
    for (int i = 0; i < count; ++i)
        shiftFrame(frames[i], shifts[i], workFrames[i]);
    return 0;
}

void SrFloatRegistration1::registerFrames(int count, int refPos, float** frames, PointF* shifts,
                                          char** masks)
{
    // Blurred reference: spectral blur, border band recomputed from the frame.
    {
        const float(*source)[2] = spectrum(refPos);
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
        spectralProducts(refPos, i);
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
        tensorSums(gx, gy, 0, w, xx, xy, yy);
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

void SrFloatRegistration1::spectralProducts(int refPos, int framePos)
{
    const float(*reference)[2] = spectrum(refPos);
    const float(*current)[2] = spectrum(framePos);
    const float(*gauss)[2] = complexData(gaussSpectrum);
    float(*cross)[2] = complexData(crossSpectrum);
    float(*blurred)[2] = complexData(blurredSpectrum);
    const float* inverseReference = inverseMagnitude(refPos);
    const float* inverseCurrent = inverseMagnitude(framePos);
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

PointI SrFloatRegistration1::unwrapPeak(int index, int width, int height)
{
    int row = index / width;
    int column = index % width;
    if (row > height / 2)
        row -= height;
    if (column > width / 2)
        column -= width;
    return PointI(column, row);
}

PointI SrFloatRegistration1::phaseCorrelation(const parallel::Team& team)
{
    // Row maxima, then the rows in order: the first strictly greatest value
    // wins, as in one scan from index 0, whatever the number of threads.
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* row = correlation[y];
            float best = row[0];
            int at = 0;
            for (int x = 1; x < width; ++x) {
                if (row[x] > best) {
                    best = row[x];
                    at = x;
                }
            }
            rowPeakValue[static_cast<std::size_t>(y)] = best;
            rowPeakIndex[static_cast<std::size_t>(y)] = y * width + at;
        }
    });
    float best = rowPeakValue[0];
    int index = rowPeakIndex[0];
    for (int y = 1; y < height; ++y) {
        if (rowPeakValue[static_cast<std::size_t>(y)] > best) {
            best = rowPeakValue[static_cast<std::size_t>(y)];
            index = rowPeakIndex[static_cast<std::size_t>(y)];
        }
    }
    return unwrapPeak(index, width, height);
}

PointF SrFloatRegistration1::opticalFlow(const parallel::Team& team, PointI shift, char* mask)
{
    const int w = width;
    const int h = height;
    const int dx = shift.x;
    const int dy = shift.y;
    // Overlap: reference pixel (x, y) meets the current frame's (x + dx, y + dy).
    int x0, x1, y0, y1;
    overlapRange(dx, w, x0, x1);
    overlapRange(dy, h, y0, y1);
    // The flow is solved on the part of the overlap where the two blurred
    // images are alike: near a frame's border its blur is limited to the
    // frame's own pixels, which moves it towards the inside; where only one
    // of the two is so limited (a non-zero shift along that axis), the
    // difference shows a false motion that would bias the step by up to a
    // tenth of a pixel on smooth shading. With a zero shift along an axis
    // both are limited alike and the whole extent is used.
    int fx0, fx1, fy0, fy1;
    flowRange(dx, w, gaussRadius, x0, x1, fx0, fx1);
    flowRange(dy, h, gaussRadius, y0, y1, fy0, fy1);

    // Per flow row: b = (sum gx d, sum gy d) with d = current(x + D) -
    // reference(x), and the tensor of the columns outside the flow region.
    team.forRows(0, h, [&](int begin, int end) {
    for (int y = begin; y < end; ++y) {
        double* sums = &rowFlow[5 * static_cast<std::size_t>(y)];
        if (y < fy0 || y >= fy1) {
            std::fill(sums, sums + 5, 0.0);
            continue;
        }
        const float* reference = blurredReference[y];
        const float* current = blurredCurrent[y + dy];
        const float* gx = gradX[y];
        const float* gy = gradY[y];
        double bx, by;
        flowSums(gx, gy, current, dx, reference, fx0, fx1, bx, by);
        double xx = 0.0, xy = 0.0, yy = 0.0;
        tensorSums(gx, gy, 0, fx0, xx, xy, yy);
        tensorSums(gx, gy, fx1, w, xx, xy, yy);
        sums[0] = bx;
        sums[1] = by;
        sums[2] = xx;
        sums[3] = xy;
        sums[4] = yy;
    }
    });

    // Tensor of the flow region = whole-image tensor minus the excluded rows
    // and columns; every thread combines the rows in the same order.
    double a = tensorXX, b = tensorXY, c = tensorYY;
    double bx = 0.0, by = 0.0;
    for (int y = 0; y < h; ++y) {
        const std::size_t row = static_cast<std::size_t>(y);
        if (y < fy0 || y >= fy1) {
            a -= rowTensor[3 * row];
            b -= rowTensor[3 * row + 1];
            c -= rowTensor[3 * row + 2];
        } else {
            bx += rowFlow[5 * row];
            by += rowFlow[5 * row + 1];
            a -= rowFlow[5 * row + 2];
            b -= rowFlow[5 * row + 3];
            c -= rowFlow[5 * row + 4];
        }
    }
    // Least squares of sum (gx u + gy v + d)^2: the linearisation of
    // current(x + D) = reference(x - r) is d = -(gx r.x + gy r.y), so (u, v)
    // is the remainder r with the same sign as the integer shift D and the
    // complete shift is D + (u, v).
    const double det = a * c - b * b;
    const double u = (b * by - c * bx) / det;
    const double v = (b * bx - a * by) / det;
    const bool solved =
        det > kMinRelativeDeterminant * (a + c) * (a + c) && std::isfinite(u) && std::isfinite(v);

    PointF result(static_cast<float>(dx), static_cast<float>(dy));
    int cx0 = 0, cx1 = 0, cy0 = 0, cy1 = 0;
    if (solved) {
        result = PointF(static_cast<float>(dx + u), static_cast<float>(dy + v));
        const float uf = static_cast<float>(u);
        const float vf = static_cast<float>(v);
        // Normalised by the overlap's gradient energy, the error does not
        // depend on the intensity scale of the frames.
        const float invEnergy = static_cast<float>(1.0 / (a + c));
        team.forRows(y0, y1, [&](int begin, int end) {
            for (int y = begin; y < end; ++y) {
                const float* reference = blurredReference[y];
                const float* current = blurredCurrent[y + dy];
                const float* gx = gradX[y];
                const float* gy = gradY[y];
                float* e = errorImage[y];
                for (int x = x0; x < x1; ++x) {
                    const float r = gx[x] * uf + gy[x] * vf + (current[x + dx] - reference[x]);
                    e[x] = r * r * invEnergy;
                }
            }
        });
        // The error exists on the overlap only, so the mean runs over that
        // rectangle (its window clipped at the rectangle's border, the radius
        // limited to what the rectangle holds).
        team.single([&] {
            try {
                const cv::Rect overlap(x0, y0, x1 - x0, y1 - y0);
                cv::Mat_<float> source = errorImage(overlap);
                cv::Mat_<float> target = blurredError(overlap);
                const int radius =
                    std::min(regErrBlurRadius, std::min((overlap.width - 1) / 2, (overlap.height - 1) / 2));
                SrFloatConvolution::blurImageMeanFilter(source, radius, target);
            } catch (...) {
                regionFailure = std::current_exception();
            }
        });
        // Mask cells: the pixels of the work frame that the cut fills
        // (rounded complete shift, as shiftFrame rounds it) and for which the
        // error was measured. Their coordinates are those of the reference
        // grid, which is also the work frame's.
        int rx0, rx1, ry0, ry1;
        roundedOverlapRange(result.x, w, rx0, rx1);
        roundedOverlapRange(result.y, h, ry0, ry1);
        cx0 = std::max(x0, rx0);
        cx1 = std::max(cx0, std::min(x1, rx1));
        cy0 = std::max(y0, ry0);
        cy1 = std::max(cy0, std::min(y1, ry1));
        if (regionFailure)
            cx1 = cx0;
    }

    team.forRows(0, h, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            char* m = mask + static_cast<std::size_t>(y) * w;
            if (y < cy0 || y >= cy1 || cx0 == cx1) {
                std::memset(m, 0, static_cast<std::size_t>(w));
                continue;
            }
            const float* e = blurredError[y];
            std::memset(m, 0, static_cast<std::size_t>(cx0));
            for (int x = cx0; x < cx1; ++x)
                m[x] = e[x] < regError ? 1 : 0;
            std::memset(m + cx1, 0, static_cast<std::size_t>(w - cx1));
        }
    });
    return result;
}

void SrFloatRegistration1::shiftFrame(float* frame, PointF& shift, float* out)
{
    detail::shiftFrame(frame, width, height, shift, out);
}

} // namespace kro
} // namespace velmor
