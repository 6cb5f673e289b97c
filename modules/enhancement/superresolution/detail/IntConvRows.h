#pragma once

// Row kernels of the fixed-point sparse PSF convolution (SrIntConvolution)
// and of the fused operator of SrIntMinimization. Private to the library.
//
// Geometry (factor 2 only): a PSF vector has kTaps = 6 taps; low-resolution
// sample (i, j) sits on the fine grid at row 2i and column 2j relative to the
// PSF origin, as in the float engine.
//
// Numbers: samples are 16-bit integers in [-16384, 16383] (one bit of
// headroom, so that the difference of two samples is still 16-bit); taps are
// unsigned Q15 fractions (0 .. 16384, i.e. 0 .. 0.5; the taps of one vector
// sum to about 32768, those of one parity to about 16384). Every sum of
// products is formed exactly in 32 bits and rounded once, half up, by a
// right shift: a sum of six products of at most 2^14 * 2^14 stays below 2^30,
// so neither the sum nor the added half can overflow.

#include <cstdint>

// The row kernels' SSE2 main loops (pmaddwd). The sanitizer build runs the
// plain loops instead, whose every integer operation it checks for overflow.
#if defined(__SSE2__) && !defined(__SANITIZE_ADDRESS__)
#define KROLIB_INT_ROWS_SSE2 1
#endif

namespace velmor {
namespace kro {
namespace detail {
namespace intconv {

constexpr int kTaps = 6;
// Samples and vector mantissas lie in [-kSampleLimit, kSampleLimit - 1].
constexpr int kSampleLimit = 16384;
constexpr int kTapBits = 15;
// Fraction bits of a vertically spread row of the transpose (every parity
// sum of a PSF is one half, so one more bit fits into 16 bits).
constexpr int kSpreadFractionBits = 1;
// Fraction bits of the transpose's 32-bit output (the accumulator of the
// minimiser's operator).
constexpr int kAccFractionBits = 2;
// Zero samples a spread row needs before its first and after its last
// sample (the kernels read up to two before and three after).
constexpr int kSpreadGuard = 8;

// v / 2^s rounded half up (s >= 1); exact for |v| <= 2^30.
inline int roundShift(int v, int s)
{
    return (v + (1 << (s - 1))) >> s;
}

inline short saturate16(int v)
{
    return static_cast<short>(v < -32768 ? -32768 : (v > 32767 ? 32767 : v));
}

// Horizontal pass of the model: out[j] = round(sum_{l<6} taps[l] *
// x[2j + l] / 2^15), j < n. Reads x[0 .. 2n + 4].
void correlatePairs(const short* x, const short* taps, int n, short* out);

// Vertical sum: out[j] = round(sum_{t<count} taps[t] * rows[t][j] / 2^shift),
// j < n, 0 <= count <= 6, 1 <= shift <= 15; where `maskWords` is given, out[j] is
// then ANDed with maskWords[j] (0 drops the sample, -1 keeps it).
void sumRows(const short* const* rows, const short* taps, int count, int shift, int n,
             const short* maskWords, short* out);

// Horizontal pass of the transpose, added into a 32-bit row: for c < n,
// acc[c] += round(sum over taps l of the parity of c of taps[l] *
// v[(c - l) / 2] / 2^(15 + kSpreadFractionBits - kAccFractionBits)).
// v must hold readable zeros at v[-2], v[-1] and from v[lowWidth] up to
// v[(n - 1) / 2].
void spreadPairsAdd(const short* v, const short* taps, int n, int* acc);

// out[c] = the 16-bit saturation of round(acc[c] / 2^shift), for
// 0 <= shift <= 30 and |acc[c]| <= 2^30.
void narrowRow(const int* acc, int n, int shift, short* out);

} // namespace intconv
} // namespace detail
} // namespace kro
} // namespace velmor
