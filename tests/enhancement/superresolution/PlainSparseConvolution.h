#pragma once

// Plain models of the sparse PSF convolution for the tests: the loops exactly
// as the operator is defined (scratch zeroed, taps outermost, one tap at a
// time), with no attempt at speed. The library's optimised passes must agree
// with these bit for bit.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace krotest {

struct SparseGeometry {
    int fineWidth, fineHeight, psfWidth, psfHeight;
    float factor;
    int fullWidth() const { return fineWidth + psfWidth - 1; }
    int fullHeight() const { return fineHeight + psfHeight - 1; }
    int lowWidth() const { return static_cast<int>(fineWidth / factor); }
    int lowHeight() const { return static_cast<int>(fineHeight / factor); }
    int step() const { return static_cast<int>(factor); }
};

inline void plainFullConvFromSparse(const SparseGeometry& g, const float* sparse,
                                    const float* psfX, const float* psfY, const char* mask,
                                    float* full)
{
    const int lw = g.lowWidth(), lh = g.lowHeight(), fw = g.fullWidth(), fh = g.fullHeight();
    std::vector<float> scratch(static_cast<size_t>(fh) * lw, 0.0f);
    for (int p = 0; p < fw * fh; ++p)
        full[p] = 0.0f;
    for (int k = 0; k < g.psfHeight; ++k) {
        const float w = psfY[k];
        for (int i = 0; i < lh; ++i)
            for (int j = 0; j < lw; ++j)
                scratch[(k + 2 * i) * lw + j] +=
                    static_cast<float>(static_cast<signed char>(mask[i * lw + j])) *
                    sparse[i * lw + j] * w;
    }
    for (int l = 0; l < g.psfWidth; ++l) {
        const float w = psfX[l];
        for (int r = 0; r < fh; ++r)
            for (int j = 0; j < lw; ++j)
                full[r * fw + l + g.step() * j] += scratch[r * lw + j] * w;
    }
}

inline void plainValidCorrToSparse(const SparseGeometry& g, const float* full, const float* psfX,
                                   const float* psfY, float* sparse)
{
    const int lw = g.lowWidth(), lh = g.lowHeight(), fw = g.fullWidth(), fh = g.fullHeight();
    std::vector<float> scratch(static_cast<size_t>(fh) * lw, 0.0f);
    for (int p = 0; p < lw * lh; ++p)
        sparse[p] = 0.0f;
    for (int l = 0; l < g.psfWidth; ++l) {
        const float w = psfX[l];
        for (int r = 0; r < fh; ++r)
            for (int j = 0; j < lw; ++j)
                scratch[r * lw + j] += full[r * fw + l + g.step() * j] * w;
    }
    for (int k = 0; k < g.psfHeight; ++k) {
        const float w = psfY[k];
        for (int i = 0; i < lh; ++i)
            for (int j = 0; j < lw; ++j)
                sparse[i * lw + j] += scratch[(k + 2 * i) * lw + j] * w;
    }
}

// Byte-for-byte comparison that names the first differing element.
inline ::testing::AssertionResult sameBytes(const std::vector<float>& expected,
                                            const std::vector<float>& actual)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure()
               << "sizes differ: " << expected.size() << " vs " << actual.size();
    for (size_t i = 0; i < expected.size(); ++i)
        if (std::memcmp(&expected[i], &actual[i], sizeof(float)) != 0)
            return ::testing::AssertionFailure() << "first difference at element " << i << ": "
                                                 << expected[i] << " vs " << actual[i];
    return ::testing::AssertionSuccess();
}

inline double dot(const std::vector<float>& a, const std::vector<float>& b)
{
    double sum = 0.0;
    for (size_t i = 0; i < a.size(); ++i)
        sum += static_cast<double>(a[i]) * b[i];
    return sum;
}

} // namespace krotest
