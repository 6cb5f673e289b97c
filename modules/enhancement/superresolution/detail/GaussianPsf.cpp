#include "GaussianPsf.h"

#include <cmath>

namespace velmor {
namespace kro {
namespace detail {

float erfApprox(float x)
{
    if (x == 0.0f)
        return 0.0f;
    const float a = 0.1400123f;
    const float x2 = x * x;
    const float exponent = -x2 * (1.2732395f + a * x2) / (1.0f + a * x2);
    const float magnitude = static_cast<float>(std::sqrt(1.0 - std::exp(static_cast<double>(exponent))));
    return x < 0.0f ? -magnitude : magnitude;
}

void buildBasePsf(float sigma, float factor, int psfSize, float* psf)
{
    for (int k = 0; k < psfSize; ++k)
        psf[k] = 0.0f;
    const int c = psfSize / 2;
    const float s = std::sqrt(2.0f) * sigma;
    float sum = 0.0f;
    // Integral of the Gaussian over fine pixel [j, j+1], mirrored about the
    // centre. (The bounds on c are always met for the factors the engines
    // accept; they only guard the indices.)
    for (int j = 0; static_cast<float>(j) < factor && c + j < psfSize && c - 1 - j >= 0; ++j) {
        const float t = (erfApprox((j + 1) / s) - erfApprox(j / s)) * 0.5f;
        psf[c + j] = t;
        psf[c - 1 - j] = t;
        sum += 2.0f * t;
    }
    for (int k = 0; k < psfSize; ++k)
        psf[k] /= sum;
}

void shiftPsf(const float* base, int psfSize, float shift, float* out)
{
    if (shift < 0.0f) {
        out[0] = 0.0f;
        for (int k = 1; k < psfSize; ++k)
            out[k] = base[k - 1] * (-shift) + base[k] * (1.0f + shift);
    } else {
        for (int k = 0; k < psfSize - 1; ++k)
            out[k] = base[k + 1] * shift + base[k] * (1.0f - shift);
        out[psfSize - 1] = 0.0f;
    }
}

} // namespace detail
} // namespace kro
} // namespace velmor
