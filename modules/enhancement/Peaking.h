#pragma once

#include <array>

#include "KroLibExport.h"
#include "Matrix.h"

// Bit-exact model of the camera's peaking (edge-enhancement) block.
//
// Each pixel p gets added a cored, limited and range-reduced multiple of its
// 3x3 Laplacian (weights in 1/256: centre -256, horizontal and vertical
// neighbours 48, diagonal 16; borders replicated):
//   c   = (int)(coring * g), g = localGain[clamp(p >> 7, 0, 255)] or 1.0
//   acc = -sum (p + core(n - p, c)) * weight     core: shrink toward 0 by c
//   r   = min((reduct_gain * max(max - min - 512 * reduct_thres, 0)) >> 12, 256)
//   m   = min(|acc|, limit << 12)
//   e   = +-((((gain * m) >> 12) * (256 - r) + 128) >> 8), the sign of acc
//   out = clamp(p + e, 0 with a local-gain table else -32767, 32766)
// (max and min over the block, starting from -32767 and 32767). The upper
// clamp is 32766, one below the 16-bit maximum, on purpose: the hardware
// does so. With enable 0 the frame is copied.
//
// Frames are row-major cols x rows arrays of signed 16-bit values in int32.
// For those every intermediate value fits in 32 bits, as in the hardware;
// the model computes in 64 bits so that values beyond 16 bits are well
// defined too (exact, where 32-bit hardware would wrap).
//
// Parameters come from the defaults, the setters or a parameter file
// (section "Peaking_Parameter]"); every value is clamped into the range given
// by the constants below, which keeps each step of the arithmetic within
// 32 bits and covers every setting that has an effect on 16-bit frames.
class KROLIB_EXPORT Peaking {
public:
    static constexpr int kMinGain = 0;  // Q12 detail gain; 16 adds the Laplacian once
    static constexpr int kMaxGain = 127;
    static constexpr int kMinCoring = 0;
    static constexpr int kMaxCoring = 65535;  // cores every difference of 16-bit values away
    static constexpr int kMinLimit = 0;       // units of 4096 of |acc|
    static constexpr int kMaxLimit = 4096;    // |acc| of 16-bit values stays below 4096 << 12
    static constexpr int kMinReductThres = 0;  // units of 512 of the local range
    static constexpr int kMaxReductThres = 128;  // 128 * 512 exceeds every 16-bit range: no reduction
    static constexpr int kMinReductGain = 0;     // Q12
    static constexpr int kMaxReductGain = 32767;
    static constexpr int kLocalGainEntries = 256;

    // The default frame is 160 x 120. Throws velmor::kro::Exception for a
    // frame smaller than 1 x 1 or of more than 2^31 - 1 pixels.
    Peaking();
    Peaking(int cols, int rows);

    int cols() const { return frameCols; }
    int rows() const { return frameRows; }

    // Reads the keys enable, gain, coring, limit, reduct_thres and
    // reduct_gain of the "[Peaking_Parameter]" section of a text file (lines
    // of at most 254 characters; "key=value", decimal, 0x-hex or 0-octal).
    // Absent keys keep their values, values are clamped as by the setters.
    // When the file cannot be read, prints "peak: Cannot read <path>" to
    // standard output and changes nothing.
    void SetParam(const char* path);

    // `in` and `out` hold cols x rows values and must not share memory (the
    // Laplacian reads neighbours), except with enable 0. `localGain` is null
    // or 256 gains indexed by grey level >> 7 (non-negative, as the histogram
    // produces them; a negative or NaN gain cores nothing). Throws
    // velmor::kro::Exception for null or overlapping frames.
    void ProcessFrame(const int* in, int* out, const double* localGain);
    // The same on the pipeline's frame buffers, which must be rows x cols.
    void ProcessFrame(velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& out, const double* localGain);

    // Each takes effect at the next frame. Enable: 0 copies, anything else
    // enhances; width and spare are kept for the pipeline and not read.
    void SetEnable(int value) { enable = value; }
    void SetGain(int value);
    void SetCoring(int value);
    void SetLimit(int value);
    void SetWidth(int value) { width = value; }
    void SetReductThres(int value);
    void SetReductGain(int value);
    void SetSpare(int value) { spare = value; }
    int GetEnable() const { return enable; }
    int GetGain() const { return gain; }
    int GetCoring() const { return coring; }
    int GetLimit() const { return limit; }
    int GetWidth() const { return width; }
    int GetReductThres() const { return reduct_thres; }
    int GetReductGain() const { return reduct_gain; }
    int GetSpare() const { return spare; }

private:
    int enhancedPixel(const int* in, int x, int y, const double* localGain) const;

    int enable = 0;
    int gain = 14;
    int coring = 22;
    int limit = 130;
    int width = 1;
    int reduct_thres = 20;
    int reduct_gain = 30;
    int spare = 0;
    // Two free-text fields of the hardware's parameter block, " " by
    // default; not read by the processing.
    std::array<char, 128> title{{' '}};
    std::array<char, 128> note{{' '}};
    int frameCols;
    int frameRows;
};
