#pragma once

// The per-solve values of SrIntMinimization that every thread of a solve's
// team holds a copy of. Private to the library.

#include "Fixpoint.h"
#include "SrIntMinimization.h"

namespace velmor {
namespace kro {

namespace detail {
namespace intsolve {
// Entries of each TV weight table.
constexpr int kTableSize = 4096;
// TV weight mantissas are below 2^kWeightBits.
constexpr int kWeightBits = 12;
} // namespace intsolve
} // namespace detail

struct SrIntMinimization::Solve {
    // Normalisation: data units = (input - mean) * 2^shift.
    int mean = 0;
    int shift = 0;
    // Standard deviation of the reference frame in data units.
    double sigma = 0.0;
    // TV weights: mantissa * 2^weightExponent, the largest (straight,
    // difference within epsilon) being weightMantissa; table index =
    // |difference| >> tableShift.
    int weightMantissa = 0;
    int weightExponent = 0;
    int tableShift = 0;
    // Bound on the sum of the eight weights of a pixel, and the shift that
    // brings a TV sum (weight mantissas times input mantissas) to quarters of
    // the input unit.
    int weightSumMax = 0;
    int tvShift = 0;
    // Block scales of the vectors (U has exponent 0).
    Scale b, r, s, q;
    // Squared residue of the current CG step and the residue threshold
    // relRes^2 |B|^2.
    Fixpoint rr;
    Fixpoint threshold;
};

} // namespace kro
} // namespace velmor
