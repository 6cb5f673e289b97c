#pragma once

// The integrating-sensor model of the motion-robust reconstruction, on a
// fine grid of exactly twice the width and height of the frames.
//
// A coarse pixel integrates the scene over its own area: its value is the
// mean of the 2x2 fine pixels it covers. Coarse pixel (px, py) has its
// centre at fine position (2 px + 0.5, 2 py + 0.5), fine pixels at integer
// positions. With the "box image" c(i, j) = mean of x over fine pixels
// [i, i+1] x [j, j+1] (position i + 0.5, j + 0.5), the coarse sample at any
// coarse position (sx, sy) is c sampled bilinearly at (2 sx, 2 sy): a
// shifted frame is modelled by moving the sampling positions, not the image.
//
// All functions take the thread count of the parallel layer (a resolved
// count) and give the same bits for any count.

#include <opencv2/core.hpp>

namespace velmor {
namespace kro {
namespace detail {

// coarse(py, px) = mean of the 2x2 fine pixels of x it covers.
void binFine(const cv::Mat_<float>& fine, cv::Mat_<float>& coarse, int threads);

// box(i, j) = mean of fine[i..i+1][j..j+1], the last row and column
// repeated at the far edges.
void boxImage(const cv::Mat_<float>& fine, cv::Mat_<float>& box, int threads);

// The adjoint of boxImage (the edge repetition left out): every box value
// spread by a quarter onto the four fine pixels it averages.
void boxImageAdjoint(const cv::Mat_<float>& box, cv::Mat_<float>& fine, int threads);

// out(p) = box sampled bilinearly at (2 sx(p), 2 sy(p)), positions clamped
// to the image.
void sampleBox(const cv::Mat_<float>& box, const cv::Mat_<float>& sx, const cv::Mat_<float>& sy,
               cv::Mat_<float>& out, int threads);

// The adjoint of sampleBox for one frame, added into `acc` (fine size):
// every value(p) spread bilinearly around (2 sx(p), 2 sy(p)). Serial, in
// row order, so that the sum is reproducible.
void scatterToBox(const cv::Mat_<float>& value, const cv::Mat_<float>& sx, const cv::Mat_<float>& sy,
                  cv::Mat_<float>& acc);

// The optics' blur in front of the detector: a Gaussian of `sigma` fine
// pixels (symmetric, so it is its own adjoint); a copy when sigma is 0.
// In place is allowed.
void blurFine(const cv::Mat_<float>& fine, cv::Mat_<float>& out, float sigma);

// sampleBox and scatterToBox for samples on the coarse grid itself (the
// reference frame's): out(r, c) = box(2r, 2c), and acc(2r, 2c) += value(r, c).
// The same values as the general functions give there, without the
// interpolation.
void sampleOnGrid(const cv::Mat_<float>& box, cv::Mat_<float>& out, int threads);
void scatterOnGrid(const cv::Mat_<float>& value, cv::Mat_<float>& acc, int threads);

// The reference frame alone: iterative back-projection through the sensor
// model (optics blur `sigma`, then 2x2 integration), starting from a Lanczos
// enlargement and correcting by the Lanczos enlargement of the coarse
// residual, `iterations` times. `coarseScratch` and `fineScratch` are
// caller-owned work images.
void referenceOnly(const cv::Mat_<float>& coarse, int iterations, float sigma, cv::Mat_<float>& fine,
                   cv::Mat_<float>& coarseScratch, cv::Mat_<float>& fineScratch, int threads);

// One back-projection correction of `fine` against the coarse frame:
// fine += Lanczos enlargement of (coarse - bin(blur(fine))).
void backProjectReference(const cv::Mat_<float>& coarse, float sigma, cv::Mat_<float>& fine,
                          cv::Mat_<float>& coarseScratch, cv::Mat_<float>& fineScratch, int threads);

} // namespace detail
} // namespace kro
} // namespace velmor
