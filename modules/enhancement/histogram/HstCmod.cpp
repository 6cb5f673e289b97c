#include "HstCmod.h"

#include <algorithm>

#include "detail/Throw.h"

namespace {

// x = (x * 2^s - x + target) >> s, without a rounding term (as the hardware
// adds). x and target are 16-bit values, so 64 bits hold every shift.
int followRange(int x, int target, int s)
{
    const std::int64_t wide = x;
    return static_cast<int>(((wide << s) - wide + target) >> s);
}

} // namespace

HstCmod::HstCmod(int cols_, int rows_, int shiftFast_, int shiftSlow_, int hold_, int minSpan_, int poffdis_,
                 int rangedis_)
    : cols(cols_),
      rows(rows_),
      shiftFast(std::clamp(shiftFast_, kMinShift, kMaxShift)),
      shiftSlow(std::clamp(shiftSlow_, kMinShift, kMaxShift)),
      hold(std::clamp(hold_, kMinHold, kMaxHold)),
      minSpan(std::clamp(minSpan_, kMinMinSpan, kMaxMinSpan)),
      poffdis(poffdis_ != 0 ? 1 : 0),
      rangedis(rangedis_ != 0 ? 1 : 0)
{
    if (cols_ < 1 || rows_ < 1)
        KRO_THROW("invalid frame size " << cols_ << "x" << rows_ << " for the histogram measurement");
    binDataSize = ((cols + kBinDataInts - 1) / cols) * cols;
}

void HstCmod::SetMinSpan(int minSpan_) { minSpan = std::clamp(minSpan_, kMinMinSpan, kMaxMinSpan); }

void HstCmod::MeasureFrame(const int* in)
{
    bins.fill(0);
    curMin = 65535;
    curMax = 0;
    bool seen = false;
    const std::int64_t count = static_cast<std::int64_t>(rows) * cols;
    for (std::int64_t i = 0; i < count; ++i) {
        const int u = (in[i] & 0xFFFF) ^ 0x8000;
        if (u == 0 || u == 65535)
            continue;
        curMin = seen ? std::min(curMin, u) : u;
        curMax = seen ? std::max(curMax, u) : u;
        seen = true;
        const std::int64_t d = std::max(u - low, 0);
        const std::int64_t t = std::clamp<std::int64_t>(((scale * d) >> 8) + pedestal, 0, 65535);
        const int bin = static_cast<int>(t >> 8);
        if (bin < kBins - 1) {
            const int frac = static_cast<int>((t >> 4) & 15);
            bins[bin] += 16 - frac;
            bins[bin + 1] += frac;
        } else {
            bins[bin] += 16;
        }
    }
    TrackRange();
    UpdateScale();
    first = 0;
}

void HstCmod::TrackRange()
{
    if (first) {
        low = curMin;
        high = curMax;
        return;
    }
    const bool lowOut = low > curMin;
    if (holdLow == 0 || lowOut)
        low = followRange(low, curMin, lowOut ? shiftFast : shiftSlow);
    if (holdLow != 0)
        --holdLow;
    if (lowOut)
        holdLow = hold;

    // Not strict on this side: a frame reaching the tracked high counts as
    // leaving the range (as the hardware compares), which reloads its hold.
    const bool highOut = high <= curMax;
    if (holdHigh == 0 || highOut)
        high = followRange(high, curMax, highOut ? shiftFast : shiftSlow);
    if (holdHigh != 0)
        --holdHigh;
    if (highOut)
        holdHigh = hold;
}

void HstCmod::UpdateScale()
{
    if (rangedis) {
        scale = 256;
        pedestal = 0;
        return;
    }
    // Without any unsaturated sample the span is negative; max() with
    // minSpan (at least 1) keeps the division defined.
    const std::int64_t span = static_cast<std::int64_t>(high) - low + 1;
    scale = static_cast<int>(std::min<std::int64_t>(16711424 / std::max<std::int64_t>(span, minSpan), 65535));
    pedestal = poffdis ? 0 : static_cast<int>((65279 - ((scale * span) >> 8)) >> 1);
}

void HstCmod::GetBinData(int* out)
{
    for (int i = 0; i < kBins; ++i) {
        if (firstRead) {
            out[2 * i] = 1;
            out[2 * i + 1] = 0;
        } else {
            out[2 * i] = static_cast<int>(bins[i] & 0xFFFFu);
            out[2 * i + 1] = static_cast<std::int16_t>(bins[i] >> 16);
        }
    }
    const int tail[6] = {curMin, curMax, low, high, scale, pedestal};
    std::copy(tail, tail + 6, out + 2 * kBins);
    std::fill(out + kBinDataInts, out + binDataSize, 0);
    firstRead = 0;
}
