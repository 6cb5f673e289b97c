#include "cvext.h"

#include <cmath>
#include <cstdint>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// Half away from zero, truncated toward zero, low 16 bits kept.
//  - The half is added in double: float t + 0.5 is exact there, whereas in
//    float 0.49999997f + 0.5f would round up to 1.
//  - The low 16 bits are those of the exact integer. For a result within 32
//    bits that is what a cast to a 32-bit int followed by a cast to short
//    gives; beyond it (a large scale) the wrap simply continues instead of
//    relying on an out-of-range float-to-int conversion, which is undefined.
//  - NaN and the infinities are stored as 0: a NaN passes the range tests
//    and has no integer value, and 0 is the neutral value of every image
//    and PSF the engine builds (infinities are multiples of 2^16 in the
//    limit, so 0 is also their low 16 bits).
short roundToLow16(float t)
{
    if (!std::isfinite(t))
        return 0;
    const double rounded = std::trunc(t >= 0.0f ? double(t) + 0.5 : double(t) - 0.5);
    // The usual case, a result within 32 bits, needs no fmod (which would
    // cost more than the rest of the conversion together).
    if (std::fabs(rounded) < 2147483648.0)
        return static_cast<short>(static_cast<std::uint32_t>(static_cast<std::int32_t>(rounded)) & 0xFFFFu);
    const double low = std::fmod(rounded, 65536.0);  // exact, |low| < 65536
    const std::uint32_t bits = static_cast<std::uint32_t>(static_cast<std::int32_t>(low));
    return static_cast<short>(bits & 0xFFFFu);
}

} // namespace

cv::Mat_<short> convertMatFloatToMatInt(const cv::Mat_<float>& src, float minValue, float maxValue,
                                        float scale, float offset, bool offsetFirst)
{
    cv::Mat_<short> dst(src.rows, src.cols);
    for (int y = 0; y < src.rows; ++y) {
        const float* in = src[y];
        short* out = dst[y];
        for (int x = 0; x < src.cols; ++x) {
            const float v = in[x];
            // Written as "min > v" and "v > max" so that a NaN passes both.
            if (minValue > v)
                KRO_THROW("convertMatFloatToMatInt: value clamped to min");
            if (v > maxValue)
                KRO_THROW("convertMatFloatToMatInt: value clamped to max");
            const float t = offsetFirst ? (v + offset) * scale : v * scale + offset;
            out[x] = roundToLow16(t);
        }
    }
    return dst;
}

cv::Mat_<float> convertMatIntToMatFloat(const cv::Mat_<short>& src, short minValue, short maxValue,
                                        float scale, float offset)
{
    cv::Mat_<float> dst(src.rows, src.cols);
    for (int y = 0; y < src.rows; ++y) {
        const short* in = src[y];
        float* out = dst[y];
        for (int x = 0; x < src.cols; ++x) {
            const short v = in[x];
            if (v < minValue)
                KRO_THROW("convertMatIntToMatFloat: value clamped to min");
            if (v > maxValue)
                KRO_THROW("convertMatIntToMatFloat: value clamped to max");
            out[x] = float(v) * scale + offset;
        }
    }
    return dst;
}

} // namespace kro
} // namespace velmor
