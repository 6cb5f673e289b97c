#include "IntVectorRows.h"

#include <algorithm>
#include <cstdlib>

#include "IntConvRows.h"

#ifdef KROLIB_INT_ROWS_SSE2
#include <emmintrin.h>
#endif

// Plain loops define the kernels (and run without SSE2 and at row ends);
// the SSE2 main loops compute the same exact integers.

namespace velmor {
namespace kro {
namespace detail {
namespace intvec {

using intconv::saturate16;

namespace {

#ifdef KROLIB_INT_ROWS_SSE2
inline __m128i load(const short* p)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

inline void store(short* p, __m128i v)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

// |v| lane-wise for v within [-32767, 32767].
inline __m128i abs16(__m128i v)
{
    return _mm_max_epi16(v, _mm_sub_epi16(_mm_setzero_si128(), v));
}

// The four 32-bit lanes of v added, sign-extended, to two 64-bit lanes.
inline __m128i addWidened(__m128i sum64, __m128i v)
{
    const __m128i sign = _mm_srai_epi32(v, 31);
    sum64 = _mm_add_epi64(sum64, _mm_unpacklo_epi32(v, sign));
    return _mm_add_epi64(sum64, _mm_unpackhi_epi32(v, sign));
}

inline std::int64_t lanes64(__m128i v)
{
    alignas(16) std::int64_t lane[2];
    _mm_store_si128(reinterpret_cast<__m128i*>(lane), v);
    return lane[0] + lane[1];
}

inline int maxLane16(__m128i v)
{
    alignas(16) short lane[8];
    _mm_store_si128(reinterpret_cast<__m128i*>(lane), v);
    return *std::max_element(lane, lane + 8);
}
#endif

} // namespace

int rowMaxAbs(const short* v, int n)
{
    int largest = 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    __m128i m = _mm_setzero_si128();
    for (; c + 8 <= n; c += 8)
        m = _mm_max_epi16(m, abs16(load(v + c)));
    largest = maxLane16(m);
#endif
    for (; c < n; ++c)
        largest = std::max(largest, std::abs(static_cast<int>(v[c])));
    return largest;
}

std::int64_t rowDot(const short* a, const short* b, int n)
{
    std::int64_t sum = 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    // Two pmaddwd results (four products each lane, below 2^30) per 64-bit
    // widening.
    __m128i sum64 = _mm_setzero_si128();
    for (; c + 16 <= n; c += 16) {
        const __m128i p = _mm_add_epi32(_mm_madd_epi16(load(a + c), load(b + c)),
                                        _mm_madd_epi16(load(a + c + 8), load(b + c + 8)));
        sum64 = addWidened(sum64, p);
    }
    sum = lanes64(sum64);
#endif
    for (; c < n; ++c)
        sum += a[c] * b[c];
    return sum;
}

int combineRow(const short* a, const short* b, int n, int c0, int c1, int shift, short* z, std::int64_t* squares)
{
    const int half = shift > 0 ? 1 << (shift - 1) : 0;
    int largest = 0;
    std::int64_t sum = 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    const __m128i weights = _mm_set1_epi32(static_cast<int>((static_cast<unsigned>(c1) << 16) |
                                                            (static_cast<unsigned>(c0) & 0xFFFFu)));
    const __m128i rounding = _mm_set1_epi32(half);
    const __m128i count = _mm_cvtsi32_si128(shift);
    __m128i m = _mm_setzero_si128();
    __m128i sum64 = _mm_setzero_si128();
    for (; c + 8 <= n; c += 8) {
        const __m128i va = load(a + c), vb = load(b + c);
        const __m128i lo = _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(va, vb), weights), rounding), count);
        const __m128i hi = _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(va, vb), weights), rounding), count);
        const __m128i vz = _mm_packs_epi32(lo, hi);
        store(z + c, vz);
        m = _mm_max_epi16(m, abs16(vz));
        sum64 = addWidened(sum64, _mm_madd_epi16(vz, vz));
    }
    largest = maxLane16(m);
    sum = lanes64(sum64);
#endif
    for (; c < n; ++c) {
        const int v = saturate16((c0 * a[c] + c1 * b[c] + half) >> shift);
        z[c] = static_cast<short>(v);
        largest = std::max(largest, std::abs(v));
        sum += v * v;
    }
    if (squares)
        *squares += sum;
    return largest;
}

void incrementRow(const short* v, int n, int c, int shift, short* u)
{
    const int half = shift > 0 ? 1 << (shift - 1) : 0;
    int k = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    const __m128i weight = _mm_set1_epi32(c & 0xFFFF);
    const __m128i rounding = _mm_set1_epi32(half);
    const __m128i count = _mm_cvtsi32_si128(shift);
    const __m128i zero = _mm_setzero_si128();
    for (; k + 8 <= n; k += 8) {
        const __m128i vv = load(v + k), vu = load(u + k);
        const __m128i lo = _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpacklo_epi16(vv, zero), weight), rounding), count);
        const __m128i hi = _mm_sra_epi32(_mm_add_epi32(_mm_madd_epi16(_mm_unpackhi_epi16(vv, zero), weight), rounding), count);
        // u widened to 32 bits (sign in the high half), added, saturated back.
        const __m128i ulo = _mm_srai_epi32(_mm_unpacklo_epi16(zero, vu), 16);
        const __m128i uhi = _mm_srai_epi32(_mm_unpackhi_epi16(zero, vu), 16);
        store(u + k, _mm_packs_epi32(_mm_add_epi32(ulo, lo), _mm_add_epi32(uhi, hi)));
    }
#endif
    for (; k < n; ++k)
        u[k] = saturate16(u[k] + ((c * v[k] + half) >> shift));
}

int halveRow(const short* u, int n, short* h)
{
    int largest = 0;
    int c = 0;
#ifdef KROLIB_INT_ROWS_SSE2
    __m128i m = _mm_setzero_si128();
    for (; c + 8 <= n; c += 8) {
        const __m128i v = _mm_srai_epi16(load(u + c), 1);
        store(h + c, v);
        m = _mm_max_epi16(m, abs16(v));
    }
    largest = maxLane16(m);
#endif
    for (; c < n; ++c) {
        h[c] = static_cast<short>(u[c] >> 1);
        largest = std::max(largest, std::abs(static_cast<int>(h[c])));
    }
    return largest;
}

} // namespace intvec
} // namespace detail
} // namespace kro
} // namespace velmor
