#pragma once

// The solve of the gradient-based (Lucas-Kanade) flow step that both float
// registrations end with: from the sums over a frame's overlap, the sub-
// pixel remainder of its shift.
//
// With the reference's gradients gx, gy and the temporal difference
// It = frame - reference (the frame already cut to its integer shift), the
// frame is the reference moved by the remainder r, so to first order
// It = -(gx r.x + gy r.y); least squares gives the normal equations
// [xx xy; xy yy] r = -(gxIt, gyIt), solved here in closed form (r has the
// frame-minus-reference sign of the integer shift).
//
// The registrations differ only in when they refuse the step, which is why
// the threshold is a parameter: the phase-correlation registration asks for
// a determinant above 1e-6 (xx + yy)^2 (the smaller eigenvalue of the tensor
// above about a millionth of the larger: the aperture problem), the corner
// registration, which has already tracked corners, only for a positive one.
// The sums themselves stay with each registration: they accumulate their
// products in different precisions, and changing either would change its
// results.

#include <cmath>

namespace velmor {
namespace kro {
namespace detail {

struct FlowSums {
    double xx = 0.0;    // sum of gx * gx
    double xy = 0.0;    // sum of gx * gy
    double yy = 0.0;    // sum of gy * gy
    double gxIt = 0.0;  // sum of gx * It
    double gyIt = 0.0;  // sum of gy * It
};

struct FlowStep {
    bool solved = false;  // false: no usable gradient structure (or non-finite sums)
    double dx = 0.0;
    double dy = 0.0;
    double energy = 0.0;  // xx + yy, the normalisation of the flow residual
};

inline FlowStep solveFlowStep(const FlowSums& s, double minRelativeDeterminant)
{
    FlowStep step;
    const double det = s.xx * s.yy - s.xy * s.xy;
    step.dx = (s.xy * s.gyIt - s.yy * s.gxIt) / det;
    step.dy = (s.xy * s.gxIt - s.xx * s.gyIt) / det;
    step.energy = s.xx + s.yy;
    step.solved = det > minRelativeDeterminant * step.energy * step.energy && step.energy > 0.0 &&
                  std::isfinite(step.dx) && std::isfinite(step.dy);
    return step;
}

} // namespace detail
} // namespace kro
} // namespace velmor
