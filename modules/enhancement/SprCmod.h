#pragma once

#include <cstdint>
#include <vector>

#include "KroLibExport.h"

// Bit-exact model of the camera's static pattern block: the pattern learning
// and removal of velmor::kro::StaticPatternRemover on int32 frames of a size
// fixed at construction, strictly in raster order, with the line pattern
// written back through a pipeline delay as the hardware does.
//
// Per pixel: the output is the input less Div9LessAccurate of the frame
// correction (F >> 5) and of the line correction (L >> 10) of its column.
// Where the 3x3 block or the 1x9 run around the pixel is flat (spread below
// the threshold) the frame pattern F and the column's line pattern L learn
// the pixel's deviation; both are then bounded by their limits (frame limit
// in units of 256, line limit in units of 8192) and leak toward zero.
//
// Differences from the filter: the new line value of a column is held in
// delay registers and written back one column later (delay 1) or two
// columns later (delay 0 or 2; delay 0 behaves as 2), the rest at the end of
// each row; so a pixel sees the previous row's line values in the last one
// or two columns on its left. During the first row of the first frame every
// line correction reads as 0. There is no saturation marker, and mode 0
// writes values that are not wrapped to 16 bits.
//
// Modes: 0 reads signed 16-bit values (low 16 bits) and writes signed
// values; 1 copies the frame (bypass; the patterns are zeroed once and never
// learn); any other value (2 in use) reads unsigned 16-bit values, copies
// negative values (markers) and writes unsigned 16-bit values. The learning
// sees every value, markers included, as its low 16 bits in offset binary.
//
// Threshold, line limit and frame limit are read at every pixel through
// references to the caller's ints, which must outlive the model; values
// outside [kMinThreshold, kMaxThreshold] and [kMinLimit, kMaxLimit] are
// clamped into them where read. Copies are deep (own patterns) and refer to
// the same parameters.
class KROLIB_EXPORT SprCmod {
public:
    static constexpr int kMinThreshold = 0;  // 0 stops the learning
    static constexpr int kMaxThreshold = 100;
    static constexpr int kMinLimit = 0;
    static constexpr int kMaxLimit = 31;
    static constexpr int kMaxDelay = 2;
    static constexpr int kModeSigned = 0;
    static constexpr int kModeBypass = 1;
    static constexpr int kModeUnsigned = 2;

    // A delay outside 0..2 prints "ERROR: illegal delay value\n" to standard
    // output and aborts the process: the hardware has no such pipeline and
    // there is no recoverable error. Throws velmor::kro::Exception for a
    // frame smaller than 1 x 1 or of more than 2^31 - 1 pixels.
    SprCmod(int cols, int rows, int& threshold, int& lineLimit, int& frameLimit, int delay, int mode);

    // `in` and `out` hold cols x rows values; they must not share memory
    // (neighbourhoods would read outputs), except in bypass. Throws
    // velmor::kro::Exception for null or overlapping frames.
    void ProcessFrame(const int* in, int* out);
    // One pixel of the frame given to the last ProcessFrame (whose arrays
    // must still be alive), with the learning and the delayed write-back.
    // Throws for a position outside the frame or when no frame was given.
    void ProcessPel(int x, int y);

    int cols() const { return mCols; }
    int rows() const { return mRows; }
    int delay() const { return mDelay; }
    int mode() const { return mMode; }
    // The learnt accumulators: one per column, one per pixel (raster order).
    const std::vector<std::int32_t>& linePattern() const { return mLinePattern; }
    const std::vector<std::int32_t>& framePattern() const { return mFramePattern; }

private:
    int Div9LessAccurate(int x) const;
    void GetInput3x3(int x, int y, int* nine) const;
    void GetInput1x9(int x, int y, int* nine) const;
    void GetLine1x9s10(int x, int* nine) const;
    int Max(int a, int b) const;
    int Max(int* nine) const;
    int Min(int* nine) const;
    int Sum8(int* nine) const;
    int Th07() const;
    void step(int x, int y);
    void flushDelay();

    std::vector<std::int32_t> mLinePattern;
    std::vector<std::int32_t> mFramePattern;
    int* mThreshold;
    int mTh07 = 0;
    int* mLineLimit;
    int* mFrameLimit;
    int mCols;
    int mRows;
    int mDelay;
    int mMode;
    bool mFirstFrame = true;
    const int* mIn = nullptr;
    int* mOut = nullptr;
    std::int32_t mDelay1 = 0;  // delay registers of the line write-back
    std::int32_t mDelay2 = 0;
};
