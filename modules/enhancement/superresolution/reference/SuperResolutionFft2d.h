#pragma once

#include "SrFloatFft2d.h"

namespace velmor {
namespace kro {

// The reference engine's two-dimensional Fourier transform: the float
// engine's transform itself (same spectrum layout, no scaling in either
// direction, the same Gaussian transfer function and border repair), under
// the name the reference engine's interfaces use. See SrFloatFft2d.
using SuperResolutionFft2d = SrFloatFft2d;

} // namespace kro
} // namespace velmor
