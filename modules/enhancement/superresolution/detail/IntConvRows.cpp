#include "IntConvRows.h"

#include <algorithm>

#ifdef KROLIB_INT_ROWS_SSE2
#include <emmintrin.h>
#endif

// Every kernel has a plain loop that defines it (and runs on targets without
// SSE2 and for the last few elements of a row) and, with SSE2, a main loop
// built on pmaddwd: 16-bit products summed in pairs into 32 bits, which the
// compiler does not generate from the plain loops. Both compute the same
// exact integer sums, so they give the same bits.

namespace velmor {
namespace kro {
namespace detail {
namespace intconv {

#ifdef KROLIB_INT_ROWS_SSE2
namespace {

// Two 16-bit weights (a in the low lane of each pair) in every 32-bit lane.
inline __m128i pairOf(int a, int b)
{
    return _mm_set1_epi32(static_cast<int>((static_cast<unsigned>(b) << 16) | (static_cast<unsigned>(a) & 0xFFFFu)));
}

inline __m128i load(const short* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline void store(short* p, __m128i v)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

} // namespace
#endif

void correlatePairs(const short* x, const short* taps, int n, short* out)
{
    const int t0 = taps[0], t1 = taps[1], t2 = taps[2], t3 = taps[3], t4 = taps[4], t5 = taps[5];
    int j = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // Output j pairs x[2j], x[2j+1] with taps 0, 1 (and so on), so a load at
    // x + 2j feeds four outputs per pmaddwd. Eight outputs read up to
    // x[2j + 19] <= x[2n + 3].
    const __m128i w01 = pairOf(t0, t1), w23 = pairOf(t2, t3), w45 = pairOf(t4, t5);
    const __m128i half = _mm_set1_epi32(1 << (kTapBits - 1));
    for (; j + 8 <= n; j += 8) {
        const short* p = x + 2 * j;
        __m128i lo = _mm_add_epi32(_mm_madd_epi16(load(p), w01), half);
        lo = _mm_add_epi32(lo, _mm_madd_epi16(load(p + 2), w23));
        lo = _mm_add_epi32(lo, _mm_madd_epi16(load(p + 4), w45));
        __m128i hi = _mm_add_epi32(_mm_madd_epi16(load(p + 8), w01), half);
        hi = _mm_add_epi32(hi, _mm_madd_epi16(load(p + 10), w23));
        hi = _mm_add_epi32(hi, _mm_madd_epi16(load(p + 12), w45));
        store(out + j, _mm_packs_epi32(_mm_srai_epi32(lo, kTapBits), _mm_srai_epi32(hi, kTapBits)));
    }
#endif
    for (; j < n; ++j) {
        const short* p = x + 2 * j;
        const int sum = t0 * p[0] + t1 * p[1] + t2 * p[2] + t3 * p[3] + t4 * p[4] + t5 * p[5];
        out[j] = static_cast<short>(roundShift(sum, kTapBits));
    }
}

namespace {

template <int Count>
void sumRowsN(const short* const* rowsIn, const short* tapsIn, int shift, int n,
              const short* maskWords, short* out)
{
    const short* rows[Count];
    int taps[Count];
    for (int t = 0; t < Count; ++t) {
        rows[t] = rowsIn[t];
        taps[t] = tapsIn[t];
    }
    const int half = 1 << (shift - 1);
    int j = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // Rows t and t+1 interleaved lane by lane meet taps t and t+1 in one
    // pmaddwd; an odd last row is paired with zeros.
    constexpr int kPairs = (Count + 1) / 2;
    __m128i weights[kPairs];
    for (int q = 0; q < kPairs; ++q)
        weights[q] = pairOf(taps[2 * q], 2 * q + 1 < Count ? taps[2 * q + 1] : 0);
    const __m128i zero = _mm_setzero_si128();
    const __m128i rounding = _mm_set1_epi32(half);
    const __m128i count = _mm_cvtsi32_si128(shift);
    for (; j + 8 <= n; j += 8) {
        __m128i lo = rounding, hi = rounding;
        for (int q = 0; q < kPairs; ++q) {
            const __m128i a = load(rows[2 * q] + j);
            const __m128i b = 2 * q + 1 < Count ? load(rows[2 * q + 1] + j) : zero;
            lo = _mm_add_epi32(lo, _mm_madd_epi16(_mm_unpacklo_epi16(a, b), weights[q]));
            hi = _mm_add_epi32(hi, _mm_madd_epi16(_mm_unpackhi_epi16(a, b), weights[q]));
        }
        __m128i result = _mm_packs_epi32(_mm_sra_epi32(lo, count), _mm_sra_epi32(hi, count));
        if (maskWords)
            result = _mm_and_si128(result, load(maskWords + j));
        store(out + j, result);
    }
#endif
    for (; j < n; ++j) {
        int sum = half;
        for (int t = 0; t < Count; ++t)
            sum += taps[t] * rows[t][j];
        out[j] = static_cast<short>(maskWords ? (sum >> shift) & maskWords[j] : sum >> shift);
    }
}

} // namespace

void sumRows(const short* const* rows, const short* taps, int count, int shift, int n,
             const short* maskWords, short* out)
{
    switch (count) {
    case 0: std::fill(out, out + n, short(0)); break;
    case 1: sumRowsN<1>(rows, taps, shift, n, maskWords, out); break;
    case 2: sumRowsN<2>(rows, taps, shift, n, maskWords, out); break;
    case 3: sumRowsN<3>(rows, taps, shift, n, maskWords, out); break;
    case 4: sumRowsN<4>(rows, taps, shift, n, maskWords, out); break;
    case 5: sumRowsN<5>(rows, taps, shift, n, maskWords, out); break;
    default: sumRowsN<6>(rows, taps, shift, n, maskWords, out); break;
    }
}

void spreadPairsAdd(const short* v, const short* taps, int n, int* acc)
{
    // Column c = 2m + q collects taps q, q+2, q+4 with samples m, m-1, m-2.
    constexpr int kShift = kTapBits + kSpreadFractionBits - kAccFractionBits;
    const int e0 = taps[0], e2 = taps[2], e4 = taps[4];
    const int o1 = taps[1], o3 = taps[3], o5 = taps[5];
    const int pairs = n / 2;
    int m = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // Interleaving v[m..] with v[m-1..] gives the pairs (v[m], v[m-1]) that
    // meet taps (0, 2) for column 2m and (1, 3) for column 2m+1; v[m-2]
    // pairs with a zero. The even and odd sums are interleaved back into
    // column order in 32 bits.
    const __m128i even01 = pairOf(e0, e2), even2 = pairOf(e4, 0);
    const __m128i odd01 = pairOf(o1, o3), odd2 = pairOf(o5, 0);
    const __m128i half = _mm_set1_epi32(1 << (kShift - 1));
    const __m128i zero = _mm_setzero_si128();
    auto addColumns = [&](__m128i near, __m128i far, int* out) {
        const __m128i even = _mm_srai_epi32(
            _mm_add_epi32(_mm_add_epi32(_mm_madd_epi16(near, even01), _mm_madd_epi16(far, even2)), half), kShift);
        const __m128i odd = _mm_srai_epi32(
            _mm_add_epi32(_mm_add_epi32(_mm_madd_epi16(near, odd01), _mm_madd_epi16(far, odd2)), half), kShift);
        __m128i* o = reinterpret_cast<__m128i*>(out);
        _mm_storeu_si128(o, _mm_add_epi32(_mm_loadu_si128(o), _mm_unpacklo_epi32(even, odd)));
        _mm_storeu_si128(o + 1, _mm_add_epi32(_mm_loadu_si128(o + 1), _mm_unpackhi_epi32(even, odd)));
    };
    for (; m + 8 <= pairs; m += 8) {
        const __m128i v0 = load(v + m), v1 = load(v + m - 1), v2 = load(v + m - 2);
        addColumns(_mm_unpacklo_epi16(v0, v1), _mm_unpacklo_epi16(v2, zero), acc + 2 * m);
        addColumns(_mm_unpackhi_epi16(v0, v1), _mm_unpackhi_epi16(v2, zero), acc + 2 * m + 8);
    }
#endif
    for (; m < pairs; ++m) {
        const int even = e0 * v[m] + e2 * v[m - 1] + e4 * v[m - 2];
        const int odd = o1 * v[m] + o3 * v[m - 1] + o5 * v[m - 2];
        acc[2 * m] += roundShift(even, kShift);
        acc[2 * m + 1] += roundShift(odd, kShift);
    }
    if (n % 2) {
        const int last = pairs;
        acc[2 * last] += roundShift(e0 * v[last] + e2 * v[last - 1] + e4 * v[last - 2], kShift);
    }
}

void narrowRow(const int* acc, int n, int shift, short* out)
{
    const int half = shift > 0 ? 1 << (shift - 1) : 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // packs saturates to 16 bits.
    const __m128i rounding = _mm_set1_epi32(half);
    const __m128i count = _mm_cvtsi32_si128(shift);
    for (; c + 8 <= n; c += 8) {
        const __m128i* a = reinterpret_cast<const __m128i*>(acc + c);
        const __m128i lo = _mm_sra_epi32(_mm_add_epi32(_mm_loadu_si128(a), rounding), count);
        const __m128i hi = _mm_sra_epi32(_mm_add_epi32(_mm_loadu_si128(a + 1), rounding), count);
        store(out + c, _mm_packs_epi32(lo, hi));
    }
#endif
    for (; c < n; ++c)
        out[c] = saturate16((acc[c] + half) >> shift);
}

} // namespace intconv
} // namespace detail
} // namespace kro
} // namespace velmor
