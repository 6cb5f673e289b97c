#pragma once

// Synthetic bursts for registration and reconstruction tests: low-resolution
// frames of one high-resolution scene at known shifts.

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "PointF.h"

namespace krotest {

// Each frame i is the scene with its content moved by shifts[i] (in
// LOW-resolution pixels; positive x moves the content right, positive y
// down, so frame(x) = reference(x - shift)), blurred by a Gaussian of
// `sigma` low-resolution pixels (0 for none), averaged over factor x factor
// blocks, plus Gaussian noise of standard deviation `noise` (seeded).
// The scene's border is reflected where a shift reaches past it.
std::vector<cv::Mat_<float>> makeShiftedFrames(const cv::Mat_<float>& scene, int factor,
                                               const std::vector<velmor::kro::PointF>& shifts,
                                               double sigma, double noise, std::uint64_t seed);

// One frame of the same kind, at integer factor 1 and without blur: the
// scene moved by `shift` with bicubic interpolation.
cv::Mat_<float> shiftImage(const cv::Mat_<float>& image, velmor::kro::PointF shift);

// Peak signal-to-noise ratio in dB of `image` against `truth` over the
// rectangle that leaves `border` pixels on each side, with `peak` the
// signal range.
double psnr(const cv::Mat_<float>& truth, const cv::Mat_<float>& image, double peak, int border = 0);

} // namespace krotest
