#include "SparseConvRows.h"

namespace velmor {
namespace kro {
namespace detail {

namespace {

// The tap loop has a compile-time length, so the compiler unrolls it and
// vectorises over j, keeping the running sum in a register.
template <SumMode Mode>
inline float startOf(const float* out, int j)
{
    return Mode == SumMode::Continue ? out[j] : 0.0f;
}

template <SumMode Mode>
inline void store(float* out, int j, float sum)
{
    if (Mode == SumMode::AddTotal)
        out[j] += sum;
    else
        out[j] = sum;
}

template <int N, SumMode Mode>
void weightedSumN(const float* const* srcIn, const float* weightIn, int n, float* out)
{
    const float* src[N];
    float weight[N];
    for (int t = 0; t < N; ++t) {
        src[t] = srcIn[t];
        weight[t] = weightIn[t];
    }
    for (int j = 0; j < n; ++j) {
        float sum = startOf<Mode>(out, j);
        for (int t = 0; t < N; ++t)
            sum += src[t][j] * weight[t];
        store<Mode>(out, j, sum);
    }
}

template <int N, SumMode Mode>
void maskedWeightedSumN(const float* const* srcIn, const char* const* maskIn,
                        const float* weightIn, int n, float* out)
{
    const float* src[N];
    const signed char* mask[N];
    float weight[N];
    for (int t = 0; t < N; ++t) {
        src[t] = srcIn[t];
        mask[t] = reinterpret_cast<const signed char*>(maskIn[t]);
        weight[t] = weightIn[t];
    }
    for (int j = 0; j < n; ++j) {
        float sum = startOf<Mode>(out, j);
        for (int t = 0; t < N; ++t)
            sum += static_cast<float>(mask[t][j]) * src[t][j] * weight[t];
        store<Mode>(out, j, sum);
    }
}

template <SumMode Mode>
void weightedSumDispatch(const float* const* src, const float* weight, int count, int n,
                         float* out)
{
    switch (count) {
    case 0:
        if (Mode == SumMode::Assign)
            for (int j = 0; j < n; ++j)
                out[j] = 0.0f;
        else if (Mode == SumMode::AddTotal)
            for (int j = 0; j < n; ++j)
                out[j] += 0.0f;  // turns -0 into +0, as adding a zero total does
        break;
    case 1: weightedSumN<1, Mode>(src, weight, n, out); break;
    case 2: weightedSumN<2, Mode>(src, weight, n, out); break;
    case 3: weightedSumN<3, Mode>(src, weight, n, out); break;
    case 4: weightedSumN<4, Mode>(src, weight, n, out); break;
    case 5: weightedSumN<5, Mode>(src, weight, n, out); break;
    case 6: weightedSumN<6, Mode>(src, weight, n, out); break;
    case 7: weightedSumN<7, Mode>(src, weight, n, out); break;
    default: weightedSumN<8, Mode>(src, weight, n, out); break;
    }
}

template <SumMode Mode>
void maskedWeightedSumDispatch(const float* const* src, const char* const* mask,
                               const float* weight, int count, int n, float* out)
{
    switch (count) {
    case 0:
        if (Mode == SumMode::Assign)
            for (int j = 0; j < n; ++j)
                out[j] = 0.0f;
        break;
    case 1: maskedWeightedSumN<1, Mode>(src, mask, weight, n, out); break;
    case 2: maskedWeightedSumN<2, Mode>(src, mask, weight, n, out); break;
    case 3: maskedWeightedSumN<3, Mode>(src, mask, weight, n, out); break;
    case 4: maskedWeightedSumN<4, Mode>(src, mask, weight, n, out); break;
    case 5: maskedWeightedSumN<5, Mode>(src, mask, weight, n, out); break;
    case 6: maskedWeightedSumN<6, Mode>(src, mask, weight, n, out); break;
    case 7: maskedWeightedSumN<7, Mode>(src, mask, weight, n, out); break;
    default: maskedWeightedSumN<8, Mode>(src, mask, weight, n, out); break;
    }
}

} // namespace

void deinterleaveRow(const float* row, int n, int step, float* phases)
{
    if (step == 2) {
        const int half = n / 2;
        float* even = phases;
        float* odd = phases + phaseLength(n, 2, 0);
        for (int m = 0; m < half; ++m) {
            even[m] = row[2 * m];
            odd[m] = row[2 * m + 1];
        }
        if (n % 2)
            even[half] = row[n - 1];
        return;
    }
    float* dst = phases;
    for (int p = 0; p < step && p < n; ++p)
        for (int c = p; c < n; c += step)
            *dst++ = row[c];
}

void interleaveRow(const float* phases, int n, int step, float* row)
{
    if (step == 2) {
        const int half = n / 2;
        const float* even = phases;
        const float* odd = phases + phaseLength(n, 2, 0);
        for (int m = 0; m < half; ++m) {
            row[2 * m] = even[m];
            row[2 * m + 1] = odd[m];
        }
        if (n % 2)
            row[n - 1] = even[half];
        return;
    }
    const float* src = phases;
    for (int p = 0; p < step && p < n; ++p)
        for (int c = p; c < n; c += step)
            row[c] = *src++;
}

void interleaveRowAdd(const float* phases, int n, int step, float* row)
{
    if (step == 2) {
        const int half = n / 2;
        const float* even = phases;
        const float* odd = phases + phaseLength(n, 2, 0);
        for (int m = 0; m < half; ++m) {
            row[2 * m] += even[m];
            row[2 * m + 1] += odd[m];
        }
        if (n % 2)
            row[n - 1] += even[half];
        return;
    }
    const float* src = phases;
    for (int p = 0; p < step && p < n; ++p)
        for (int c = p; c < n; c += step)
            row[c] += *src++;
}

void weightedSumChunk(const float* const* src, const float* weight, int count, int n,
                      SumMode mode, float* out)
{
    switch (mode) {
    case SumMode::Assign: weightedSumDispatch<SumMode::Assign>(src, weight, count, n, out); break;
    case SumMode::Continue: weightedSumDispatch<SumMode::Continue>(src, weight, count, n, out); break;
    case SumMode::AddTotal: weightedSumDispatch<SumMode::AddTotal>(src, weight, count, n, out); break;
    }
}

void maskedWeightedSumChunk(const float* const* src, const char* const* mask,
                            const float* weight, int count, int n, SumMode mode, float* out)
{
    if (mode == SumMode::Continue)
        maskedWeightedSumDispatch<SumMode::Continue>(src, mask, weight, count, n, out);
    else
        maskedWeightedSumDispatch<SumMode::Assign>(src, mask, weight, count, n, out);
}

void correlateSampledRow(const float* phases, int n, int step, const float* psf, int taps,
                         int lowWidth, float* out, bool skipZeroWeights)
{
    // Tap l reads row[l + step*j] = phase (l % step) at index l / step + j.
    int offsets[kMaxKernelTaps];
    const int phaseCount = step < kMaxKernelTaps ? step : kMaxKernelTaps;
    for (int p = 0; p < phaseCount; ++p)
        offsets[p] = phaseOffset(n, step, p);
    weightedRowSum(
        [&](int l) {
            const int p = l % step;
            const int start = p < phaseCount ? offsets[p] : phaseOffset(n, step, p);
            return phases + start + l / step;
        },
        [&](int l) { return psf[l]; }, taps, lowWidth, out, skipZeroWeights);
}

void convolveUpsampledRow(const float* low, int lowWidth, int step, const float* psf, int taps,
                          int n, float* phasesOut, bool addTotal, bool skipZeroWeights)
{
    // Column c = p + step*m of phase p collects the taps l = p + step*q
    // (q increasing is l increasing) with the samples j = m - q.
    float* dst = phasesOut;
    for (int p = 0; p < step && p < n; ++p) {
        const int length = phaseLength(n, step, p);
        const int tapsHere = phaseLength(taps, step, p);
        auto edge = [&](int m) {
            float sum = 0.0f;
            for (int q = 0; q < tapsHere; ++q) {
                const int j = m - q;
                if (j >= 0 && j < lowWidth)
                    sum += low[j] * psf[p + step * q];
            }
            if (addTotal)
                dst[m] += sum;
            else
                dst[m] = sum;
        };
        // Interior m in [tapsHere - 1, lowWidth): every tap has its sample.
        // (An added total needs the whole sum in one kernel call; longer
        // phases take the element-wise path.)
        int interiorBegin = tapsHere - 1 < length ? tapsHere - 1 : length;
        int interiorEnd = lowWidth < length ? lowWidth : length;
        if (tapsHere == 0 || (addTotal && tapsHere > kMaxKernelTaps))
            interiorBegin = interiorEnd = length;
        for (int m = 0; m < interiorBegin; ++m)
            edge(m);
        if (interiorEnd > interiorBegin) {
            if (addTotal) {
                const float* src[kMaxKernelTaps];
                float weight[kMaxKernelTaps];
                int used = 0;
                for (int q = 0; q < tapsHere; ++q) {
                    const float w = psf[p + step * q];
                    if (skipZeroWeights && w == 0.0f)
                        continue;
                    src[used] = low + interiorBegin - q;
                    weight[used] = w;
                    ++used;
                }
                weightedSumChunk(src, weight, used, interiorEnd - interiorBegin,
                                 SumMode::AddTotal, dst + interiorBegin);
            } else {
                weightedRowSum([&](int q) { return low + interiorBegin - q; },
                               [&](int q) { return psf[p + step * q]; }, tapsHere,
                               interiorEnd - interiorBegin, dst + interiorBegin,
                               skipZeroWeights);
            }
        }
        for (int m = interiorEnd > interiorBegin ? interiorEnd : interiorBegin; m < length; ++m)
            edge(m);
        dst += length;
    }
}

void convolveUpsampledPaddedRow(const float* low, int lowWidth, int step, const float* psf,
                                int taps, int n, float* phasesOut, bool addTotal,
                                bool skipZeroWeights)
{
    // Column m of phase p reads samples m - q, q < tapsHere: inside the
    // padding when tapsHere <= kRowPad and the phase ends before
    // lowWidth + kRowPad. Otherwise the row takes the unpadded path.
    for (int p = 0; p < step && p < n; ++p)
        if (phaseLength(taps, step, p) > kRowPad ||
            phaseLength(n, step, p) - 1 >= lowWidth + kRowPad) {
            convolveUpsampledRow(low, lowWidth, step, psf, taps, n, phasesOut, addTotal,
                                 skipZeroWeights);
            return;
        }
    float* dst = phasesOut;
    for (int p = 0; p < step && p < n; ++p) {
        const int length = phaseLength(n, step, p);
        const int tapsHere = phaseLength(taps, step, p);
        const float* src[kMaxKernelTaps] = {};
        float weight[kMaxKernelTaps] = {};
        int used = 0;
        for (int q = 0; q < tapsHere; ++q) {
            const float w = psf[p + step * q];
            if (skipZeroWeights && w == 0.0f)
                continue;
            src[used] = low - q;
            weight[used] = w;
            ++used;
        }
        weightedSumChunk(src, weight, used, length, addTotal ? SumMode::AddTotal : SumMode::Assign,
                         dst);
        dst += length;
    }
}

} // namespace detail
} // namespace kro
} // namespace velmor
