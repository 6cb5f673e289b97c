#include "SrIntConvolution.h"

#include <algorithm>

#include "cvext.h"
#include "detail/IntConvRows.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

using namespace detail::intconv;

namespace {

constexpr int kMaxLowSize = 8192;
// Rows of zeros above and below the samples in paddedSamples.
constexpr int kRowsAbove = 2;
constexpr int kRowsBelow = 3;

int checkedSize(int size)
{
    if (size < 1 || size > kMaxLowSize)
        KRO_THROW("invalid frame size " << size);
    return size;
}

} // namespace

SrIntConvolution::SrIntConvolution(int lowWidth_, int lowHeight_)
    : DebugChannel("SrInt"), lowWidth(checkedSize(lowWidth_)), lowHeight(checkedSize(lowHeight_)),
      fullWidth(2 * lowWidth_ + kPsfSize - 1), fullHeight(2 * lowHeight_ + kPsfSize - 1)
{
    filtered.assign(static_cast<std::size_t>(fullHeight) * lowWidth, 0);
    paddedSamples.assign(static_cast<std::size_t>(lowHeight + kRowsAbove + kRowsBelow) * lowWidth, 0);
    spreadRow.assign(static_cast<std::size_t>(fullWidth) / 2 + 1 + 2 * kSpreadGuard, 0);
}

void SrIntConvolution::quantizePsf(const float* psf, short* taps)
{
    cv::Mat_<float> row(1, kPsfSize);
    for (int k = 0; k < kPsfSize; ++k)
        row(0, k) = psf[k];
    const cv::Mat_<short> q16 = convertMatFloatToMatInt(row, 0.0f, 0.5f, 65536.0f, 0.0f, false);
    for (int k = 0; k < kPsfSize; ++k) {
        // Unsigned Q16: a tap of 0.5 arrives wrapped to -32768.
        const int unsignedQ16 = static_cast<unsigned short>(q16(0, k));
        taps[k] = static_cast<short>((unsignedQ16 + 1) >> 1);
    }
}

void SrIntConvolution::validCorrToSparse(const short* full, const short* psfX, const short* psfY,
                                         short* sparse)
{
    trace("start SrInt_Convolution.validCorrToSparse");
    for (int r = 0; r < fullHeight; ++r)
        correlatePairs(full + static_cast<std::size_t>(r) * fullWidth, psfX, lowWidth,
                       filtered.data() + static_cast<std::size_t>(r) * lowWidth);
    for (int i = 0; i < lowHeight; ++i) {
        const short* rows[kPsfSize];
        for (int k = 0; k < kPsfSize; ++k)
            rows[k] = filtered.data() + static_cast<std::size_t>(2 * i + k) * lowWidth;
        sumRows(rows, psfY, kPsfSize, kTapBits, lowWidth, nullptr,
                sparse + static_cast<std::size_t>(i) * lowWidth);
    }
    trace("end SrInt_Convolution.validCorrToSparse");
}

void SrIntConvolution::fullConvFromSparse(const short* sparse, const short* psfX, const short* psfY,
                                          const signed char* mask, int* full)
{
    trace("start SrInt_Convolution.fullConvFromSparse");
    short* samples = paddedSamples.data() + static_cast<std::size_t>(kRowsAbove) * lowWidth;
    const std::size_t count = static_cast<std::size_t>(lowWidth) * lowHeight;
    for (std::size_t p = 0; p < count; ++p)
        samples[p] = mask[p] ? sparse[p] : 0;

    short* v = spreadRow.data() + kSpreadGuard;
    short vTaps[3];
    for (int r = 0; r < fullHeight; ++r) {
        // Full row r = 2n + q gathers taps q, q+2, q+4 from sample rows
        // n, n-1, n-2 (zero rows outside the frame).
        const int n = r / 2;
        const int q = r % 2;
        const short* rows[3];
        for (int m = 0; m < 3; ++m) {
            rows[m] = samples + static_cast<std::ptrdiff_t>(n - m) * lowWidth;
            vTaps[m] = psfY[q + 2 * m];
        }
        sumRows(rows, vTaps, 3, kTapBits - kSpreadFractionBits, lowWidth, nullptr, v);
        int* out = full + static_cast<std::size_t>(r) * fullWidth;
        std::fill(out, out + fullWidth, 0);
        spreadPairsAdd(v, psfX, fullWidth, out);
    }
    trace("end SrInt_Convolution.fullConvFromSparse");
}

} // namespace kro
} // namespace velmor
