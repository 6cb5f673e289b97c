#include "IntTvRows.h"

#include "IntConvRows.h"

#include <algorithm>
#include <cstdlib>

#ifdef KROLIB_INT_ROWS_SSE2
#include <emmintrin.h>
#endif

// Plain loops define the kernels (and run without SSE2 and at row ends);
// with SSE2 the main loops pair the eight products of a pixel for pmaddwd.
// Both form the same exact sums.

namespace velmor {
namespace kro {
namespace detail {
namespace inttv {

namespace {

inline int stencil(const WeightRows& L, const short* x, std::ptrdiff_t W, int c)
{
    const int xc = x[c];
    return L.Lr[c] * (xc - x[c + 1]) + L.Lr[c - 1] * (xc - x[c - 1]) + L.Ld[c] * (xc - x[c + W]) +
           L.Ld[c - W] * (xc - x[c - W]) + L.Ldr[c] * (xc - x[c + W + 1]) +
           L.Ldr[c - W - 1] * (xc - x[c - W - 1]) + L.Ldl[c] * (xc - x[c + W - 1]) +
           L.Ldl[c - W + 1] * (xc - x[c - W + 1]);
}

#ifdef KROLIB_INT_ROWS_SSE2
inline __m128i load(const short* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}
#endif

} // namespace

void tvRow(const WeightRows& L, const short* x, std::ptrdiff_t W, int n, int shift, int* acc)
{
    const int half = shift > 0 ? 1 << (shift - 1) : 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // Each pixel's neighbours in opposite pairs (right/left, down/up, and
    // the two diagonals): the weights and the differences of a pair are
    // interleaved so that one pmaddwd forms both products and their sum.
    const __m128i rounding = _mm_set1_epi32(half);
    const __m128i count = _mm_cvtsi32_si128(shift);
    const std::ptrdiff_t offsets[4][2] = {{1, -1}, {W, -W}, {W + 1, -W - 1}, {W - 1, -W + 1}};
    const short* weights[4] = {L.Lr, L.Ld, L.Ldr, L.Ldl};
    for (; c + 8 <= n; c += 8) {
        const __m128i xc = load(x + c);
        __m128i lo = rounding, hi = rounding;
        for (int pair = 0; pair < 4; ++pair) {
            const std::ptrdiff_t ahead = offsets[pair][0], behind = offsets[pair][1];
            const __m128i wa = load(weights[pair] + c), wb = load(weights[pair] + c + behind);
            const __m128i da = _mm_sub_epi16(xc, load(x + c + ahead));
            const __m128i db = _mm_sub_epi16(xc, load(x + c + behind));
            lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(wa, wb), _mm_unpacklo_epi16(da, db)));
            hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(wa, wb), _mm_unpackhi_epi16(da, db)));
        }
        __m128i* out = reinterpret_cast<__m128i*>(acc + c);
        _mm_storeu_si128(out, _mm_sra_epi32(lo, count));
        _mm_storeu_si128(out + 1, _mm_sra_epi32(hi, count));
    }
#endif
    for (; c < n; ++c)
        acc[c] = (stencil(L, x, W, c) + half) >> shift;
}

void tableIndexRow(const short* a, const short* b, int n, int shift, int last, unsigned short* index)
{
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // |a - b| as max - min in unsigned 16 bits (at most 65535), shifted
    // logically, then limited by an unsigned saturating subtraction.
    const __m128i count = _mm_cvtsi32_si128(shift);
    const __m128i limit = _mm_set1_epi16(static_cast<short>(last));
    for (; c + 8 <= n; c += 8) {
        const __m128i va = load(a + c), vb = load(b + c);
        const __m128i d = _mm_srl_epi16(_mm_sub_epi16(_mm_max_epi16(va, vb), _mm_min_epi16(va, vb)), count);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(index + c), _mm_sub_epi16(d, _mm_subs_epu16(d, limit)));
    }
#endif
    for (; c < n; ++c)
        index[c] = static_cast<unsigned short>(std::min(std::abs(a[c] - b[c]) >> shift, last));
}

} // namespace inttv
} // namespace detail
} // namespace kro
} // namespace velmor
