#include "SuperResolution.h"

#include <limits>

#include "detail/Parallel.h"
#include "detail/Throw.h"

// The reference engine's two-point calibration from raw NUC values to
// radiance, and the one-call path from a raw frame to the result.

namespace velmor {
namespace kro {

namespace {

// Elementary operations per pixel of the conversion, for threadsForWork.
constexpr std::size_t kWorkPerConvertedPixel = 4;

bool isCalibrationValue(float v)
{
    // Strictly inside (-1000, 1000): neither the marker nor an absurd gain
    // or offset, and not NaN.
    return v > SuperResolution::kNucToRadInvalid && v < -SuperResolution::kNucToRadInvalid;
}

// Every value outside the valid range becomes the mean of its valid direct
// neighbours, in row-major order and in place: a value repaired earlier
// counts for the later ones, which lets a repair run along a line of equal
// raw values. Without a valid neighbour the value becomes 0/0 (NaN), on
// purpose: it turns the pixel's radiance into NaN, which the bad-pixel
// detector replaces in every frame, instead of an invented calibration.
void repairCalibration(cv::Mat_<float>& m)
{
    for (int y = 0; y < m.rows; ++y) {
        for (int x = 0; x < m.cols; ++x) {
            const float v = m(y, x);
            if (!(v <= SuperResolution::kNucToRadInvalid || v >= -SuperResolution::kNucToRadInvalid))
                continue;
            float sum = 0.0f;
            int count = 0;
            const auto take = [&](int ny, int nx) {
                if (ny < 0 || ny >= m.rows || nx < 0 || nx >= m.cols || !isCalibrationValue(m(ny, nx)))
                    return;
                sum += m(ny, nx);
                ++count;
            };
            take(y, x - 1);
            take(y, x + 1);
            take(y - 1, x);
            take(y + 1, x);
            m(y, x) = count > 0 ? sum / static_cast<float>(count) : std::numeric_limits<float>::quiet_NaN();
        }
    }
}

} // namespace

void SuperResolution::setNucToRad(const cv::Mat_<short>& nuc1, const cv::Mat_<float>& rad1,
                                  const cv::Mat_<short>& nuc2, const cv::Mat_<float>& rad2)
{
    const cv::Size frame(width, height);
    const char* names[] = {"raw values (low)", "radiances (low)", "raw values (high)", "radiances (high)"};
    const cv::Size sizes[] = {nuc1.size(), rad1.size(), nuc2.size(), rad2.size()};
    for (int k = 0; k < 4; ++k)
        if (sizes[k] != frame)
            KRO_THROW("calibration " << names[k] << " of " << sizes[k].width << "x" << sizes[k].height
                                     << " given to an engine built for " << width << "x" << height);

    cv::Mat_<float> gain(height, width);
    cv::Mat_<float> offset(height, width);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float rawLow = nuc1(y, x);
            const float rawHigh = nuc2(y, x);
            if (rawLow == rawHigh) {
                gain(y, x) = kNucToRadInvalid;
                offset(y, x) = kNucToRadInvalid;
                continue;
            }
            const float g = (rad2(y, x) - rad1(y, x)) / (rawHigh - rawLow);
            gain(y, x) = g;
            offset(y, x) = rad1(y, x) - g * rawLow;
        }
    }
    repairCalibration(gain);
    repairCalibration(offset);
    nucToRadGain = gain;
    nucToRadOffset = offset;
}

bool SuperResolution::hasNucToRad() const
{
    return nucToRadGain.rows == height && nucToRadGain.cols == width && nucToRadOffset.rows == height &&
           nucToRadOffset.cols == width;
}

void SuperResolution::getNucToRad(cv::Mat_<float>& gain, cv::Mat_<float>& offset) const
{
    nucToRadGain.copyTo(gain);
    nucToRadOffset.copyTo(offset);
}

void SuperResolution::NucToRad(const cv::Mat_<short>& raw)
{
    radiance.create(raw.rows, raw.cols);
    const int threads = parallel::threadsForWork(threadCount, static_cast<std::size_t>(inputSize) * kWorkPerConvertedPixel);
    parallel::parallelFor(threads, 0, raw.rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* r = raw[y];
            const float* g = nucToRadGain[y];
            const float* o = nucToRadOffset[y];
            float* out = radiance[y];
            for (int x = 0; x < raw.cols; ++x)
                out[x] = static_cast<float>(r[x]) * g[x] + o[x];
        }
    });
}

float SuperResolution::processFrame2(const short* raw, float* result_)
{
    if (!hasNucToRad())
        KRO_THROW("NucToRad() not initialized");
    if (!raw || !result_)
        KRO_THROW("null raw frame or result");
    NucToRad(cv::Mat_<short>(height, width, const_cast<short*>(raw)));
    addFrame<float>(radiance.ptr<float>(0));
    return computeSR<float>(result_);
}

void SuperResolution::getRadiance(cv::Mat_<float>& out) const
{
    radiance.copyTo(out);
}

} // namespace kro
} // namespace velmor
