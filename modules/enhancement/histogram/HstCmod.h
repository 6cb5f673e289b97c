#pragma once

#include <array>
#include <cstdint>

#include "KroLibExport.h"

// Bit-exact model of the camera's histogram measurement block.
//
// The block sees each sample as a 16-bit offset-binary value u (the low 16
// bits of the sample with the top bit flipped); u = 0 and u = 65535 are
// saturated and ignored. Every other sample is mapped through the range of
// the previous frame, t = min(((scale * max(u - low, 0)) >> 8) + pedestal,
// 65535), and split between the bins t >> 8 and t >> 8 + 1 in sixteenths by
// the four bits below the bin (the last bin takes the whole 16).
//
// After the frame the tracked range [low, high] follows the frame's
// extremes, jumping to them on the first frame and afterwards by the
// recursive filter x = (x * (2^s - 1) + target) >> s: s = shiftFast when the
// frame left the range (which also holds the slow adaptation of that side
// for `hold` frames), s = shiftSlow otherwise. The scale stretches the span
// onto 255 bins: scale = min(16711424 / max(span, minSpan), 65535), and the
// pedestal centres it: (65279 - ((scale * span) >> 8)) >> 1.
//
// GetBinData() hands the result out as the hardware transfers it, as whole
// image lines of `cols` ints (BinDataSize() ints in all):
//   [2i], [2i + 1]  low and high (signed) 16 bits of bin i, i < 256
//   [512 .. 517]    curMin, curMax, low, high, scale, pedestal
//   [518 ..]        zeros.
// The first read after construction reports a flat histogram (every bin
// counts 1), whatever was measured.
//
// Arguments are clamped into the ranges below (a frame of less than one
// pixel is refused with velmor::kro::Exception), so no value can make the
// model overrun its bins or divide by zero. One object serves one call at a
// time; copies are independent.
class KROLIB_EXPORT HstCmod {
public:
    static constexpr int kBins = 256;
    static constexpr int kBinDataInts = 518;  // bins, extremes, range, scale, pedestal
    static constexpr int kMinShift = 0, kMaxShift = 16;
    static constexpr int kMinHold = 0, kMaxHold = 65535;
    static constexpr int kMinMinSpan = 1, kMaxMinSpan = 65536;

    HstCmod(int cols, int rows, int shiftFast, int shiftSlow, int hold, int minSpan, int poffdis, int rangedis);

    // Measures one frame of rows x cols samples (row-major).
    void MeasureFrame(const int* in);
    // Writes BinDataSize() ints to `out` (layout above).
    void GetBinData(int* out);
    // 518 ints rounded up to whole rows of `cols` ints.
    int BinDataSize() const { return binDataSize; }

    // The histogram module passes its own range, poffdis and rangedis
    // settings on when they change; the tracked state is kept.
    void SetMinSpan(int minSpan);
    void SetPoffdis(int value) { poffdis = value != 0 ? 1 : 0; }
    void SetRangedis(int value) { rangedis = value != 0 ? 1 : 0; }
    int GetMinSpan() const { return minSpan; }

private:
    void TrackRange();
    void UpdateScale();

    std::array<std::uint32_t, kBins> bins{};  // counts in sixteenths of a pixel
    int curMin = 65535;
    int curMax = 0;
    int low = 0;
    int high = 0;
    int scale = 0;
    int pedestal = 0;
    int cols;
    int rows;
    int shiftFast;
    int shiftSlow;
    int hold;
    int minSpan;
    int poffdis;
    int rangedis;
    int holdLow = 0;
    int holdHigh = 0;
    int first = 1;
    int firstRead = 1;
    int binDataSize;
};
