#pragma once

#include "KroLibExport.h"

// Bit-exact model of the camera's spatial noise block: the edge-preserving
// 3x3 smoothing of velmor::kro::SpatialNoiseRemover on int32 frames.
//
// For each pixel, on the offset-binary samples u of its 3x3 block (the low
// 16 bits of each value with the top bit flipped, borders replicated):
//   mean = Div9(sum u),  sad = sum |u - mean|,
//   k    = min(sad / gain + 13, 32), 32 with gain 0,
//   r    = mean + (((u_centre - mean) * k + 16) >> 5).
// Modes: 0 reads signed 16-bit values and writes r - 32768; 1 copies the
// frame (bypass); any other value (2 in use) reads unsigned 16-bit values,
// passes negative values (markers) unchanged and writes
// (r & 0xFFFF) ^ 0x8000. In mode 0 and with gain 0 a pixel is returned
// unchanged.
//
// The gain is read at every pixel through a reference to the caller's int,
// which must outlive the model; a change takes effect at once, with no call
// on the model. Values outside [kMinGain, kMaxGain] are clamped into it where
// read. Frames are row-major cols x rows arrays; processing is sequential in
// raster order. Copies refer to the same gain.
class KROLIB_EXPORT SnrCmod {
public:
    static constexpr int kMinGain = 0;
    static constexpr int kMaxGain = 31;
    static constexpr int kModeSigned = 0;
    static constexpr int kModeBypass = 1;
    static constexpr int kModeUnsigned = 2;

    // Throws velmor::kro::Exception for a frame smaller than 1 x 1 or of
    // more than 2^31 - 1 pixels.
    SnrCmod(int cols, int rows, int& gain, int mode);

    // `in` and `out` hold cols x rows values; they must not share memory
    // (the block of a pixel would read outputs), except in bypass. Throws
    // velmor::kro::Exception for null or overlapping frames.
    void ProcessFrame(const int* in, int* out);
    // One pixel of the frame given to the last ProcessFrame (whose arrays
    // must still be alive). Throws for a position outside the frame or when
    // no frame was given yet.
    void ProcessPel(int x, int y);

    int cols() const { return mCols; }
    int rows() const { return mRows; }
    int mode() const { return mMode; }

private:
    int Div9(int x) const;
    void GetInput3x3(int x, int y, int* nine) const;
    int Mean(int* nine) const;
    int Variance(int* nine, int mean) const;
    int K(int sad) const;
    void step(int x, int y);

    int* mGain;
    int mCols;
    int mRows;
    int mMode;
    const int* mIn = nullptr;
    int* mOut = nullptr;
};
