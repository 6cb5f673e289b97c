#pragma once

// The Gaussian sensor point-spread function shared by the float and the
// fixed-point minimisers: the unshifted base PSF integrated over fine
// pixels, and its linear interpolation by a frame's sub-pixel shift. Both
// engines build their taps with these very steps, so that they model the
// same camera. Private to the library.

namespace velmor {
namespace kro {
namespace detail {

// The closed-form approximation of the error function the PSF is defined
// with (not the library erf): single precision, exp and sqrt in double,
// erf(0) = 0 exactly.
float erfApprox(float x);

// psf[0 .. psfSize-1] = the base PSF of standard deviation `sigma` fine
// pixels for a super-resolution `factor`: with c = psfSize / 2, the taps
// c + j and c - 1 - j (j = 0, 1, ... while j < factor) hold the integral of
// the Gaussian over the fine pixel [j, j+1], normalised to sum 1. The taps
// further out stay 0 and leave room for the sub-pixel shift.
void buildBasePsf(float sigma, float factor, int psfSize, float* psf);

// out[0 .. psfSize-1] = the base PSF moved by `shift` fine pixels by linear
// interpolation (valid for |shift| <= 1): for a negative shift out[0] = 0
// and out[k] = base[k-1] * (-shift) + base[k] * (1 + shift); otherwise
// out[k] = base[k+1] * shift + base[k] * (1 - shift) and the last tap is 0.
void shiftPsf(const float* base, int psfSize, float shift, float* out);

} // namespace detail
} // namespace kro
} // namespace velmor
