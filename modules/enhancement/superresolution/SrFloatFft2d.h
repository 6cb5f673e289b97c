#pragma once

#include <memory>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

namespace detail {
class FftwPlans2d;
struct SrFloatFft2dBuffers;
} // namespace detail

// Two-dimensional real Fourier transform of one fixed image size, its
// inverse, and a Gaussian transfer function in the same spectral layout, so
// that the float engine can blur and correlate frames by spectral
// multiplication.
//
// Image: `height` rows of `width` floats, row-major, no padding.
//
// Spectrum: `height` rows of (width / 2 + 1) complex values (float[2]: real,
// then imaginary), row-major, no padding: getSpectrumSize() complex values.
// Column x holds frequency x along the rows (0 <= x <= width / 2), row y
// frequency y along the columns (0 <= y < height; rows above height / 2 are
// the negative frequencies y - height). Conventions, with W = width,
// H = height, K = width / 2:
//  - forward: every image row is transformed with the real transform,
//      R(y, k) = sum_j image(y, j) * exp(-2 pi i j k / W),
//    and stored as bin 0 = (Re R(y, 0), 0), bins 1 .. K-1 = R(y, k) and the
//    last bin K = (the value at packed position W - 1 of the row, 0). For an
//    even width that position is Re R(y, K), so the spectrum is the exact
//    DFT. For an odd width >= 3 the last bin holds (Im R(y, K), 0) and the
//    real part of that frequency is dropped: deliberately so, the engine's
//    callers rely on this packing and use even sizes.
//    Then every column of that packed array R' is transformed with the
//    complex transform of sign -1: S(y, k) = sum_v R'(v, k) exp(-2 pi i v y / H).
//    For an even width this is the standard unnormalised 2-D DFT.
//  - backward is the mirror: each column is transformed with sign +1; of
//    column 0 and column K only the real parts are kept (for an odd width
//    >= 3 the real part of column K becomes the imaginary part of row
//    frequency K, its real part is taken as 0); then each row is
//    transformed back by the real transform of sign +1 (the Hermitian
//    completion of the row).
//  - Neither direction scales: backward(forward(x)) = W * H * x for even
//    widths (and for width 1).
//
// Threads: the rows and columns of one transform are shared among the
// OpenMP threads in fixed blocks (large sizes only; small ones run on the
// calling thread). One object runs one call at a time; separate objects
// (copies included) may be used from different threads at once.
//
// Determinism: within a process the results are the same bytes for any
// number of threads and any alignment of the caller's arrays. The FFT
// algorithms are chosen by timing when a size is first planned in the
// process, so another process may differ in the last bits.
//
// Memory and set-up: the constructor makes the plans (FFTW times them the
// first time a size is seen in the process, up to about a second for sensor
// sizes; later objects of that size are set up at once) and the work
// buffers; no call allocates. Copies share the immutable plans and get their
// own buffers. Any pointer alignment is accepted; arrays aligned to 16 bytes
// (cv::Mat data, malloc'd memory) avoid an internal copy.
class KROLIB_EXPORT SrFloatFft2d {
public:
    // Throws velmor::kro::Exception if width or height is below 1 or the
    // spectrum would not be indexable with int.
    SrFloatFft2d(int width, int height);
    SrFloatFft2d(const SrFloatFft2d& other);
    SrFloatFft2d& operator=(const SrFloatFft2d& other);
    ~SrFloatFft2d();

    int getWidth() const { return width; }
    int getHeight() const { return height; }
    // Complex values in a spectrum: (width / 2 + 1) * height.
    int getSpectrumSize() const { return (width / 2 + 1) * height; }

    // Spectrum of `image` (width x height floats, only read) into `spectrum`
    // (getSpectrumSize() complex values), unscaled. The arrays must not
    // overlap. Throws velmor::kro::Exception for a null pointer.
    void forward(float* image, float (*spectrum)[2]);

    // Image of `spectrum` (only read) into `image`, unscaled, so that
    // backward(forward(x)) = width * height * x. The arrays must not overlap.
    // Throws velmor::kro::Exception for a null pointer.
    void backward(float (*spectrum)[2], float* image);

    // Pixel-integrated Gaussian of standard deviation `sigma` (>= 0; 0 is
    // the limit of no blur) and radius `radius` (>= 0):
    //  - `kernel` receives radius + 1 weights g(0) .. g(radius), normalised
    //    so that g(0) + 2 (g(1) + ... + g(radius)) = 1, where before
    //    normalisation g(k) = (E((k + 1/2) / (sqrt(2) sigma)) -
    //    E((k - 1/2) / (sqrt(2) sigma))) / 2 and E is a closed-form
    //    approximation of the error function (absolute error below 4e-4);
    //  - `spectrum` (getSpectrumSize() complex values) receives the transfer
    //    function of the circular blur by g(|dx|) g(|dy|), in the spectrum
    //    layout above, divided by width * height:
    //      backward(forward(x) * spectrum) = x blurred circularly,
    //    with the bin-by-bin complex product. A kernel wider than the image
    //    wraps around, its weights adding up, so the blur stays normalised.
    //    For an odd width >= 3 the last column is zero (see forward).
    // Radius 0 or sigma 0 gives kernel {1, 0, ...} and a flat spectrum
    // 1 / (width * height).
    // Throws velmor::kro::Exception for a negative radius, a negative or
    // non-finite sigma, a sigma so large that the weights vanish in float,
    // or a null pointer.
    void gaussFft(int radius, float sigma, float (*spectrum)[2], float* kernel);

    // The circular blur wraps around at the image borders. This recomputes
    // the border band of `blurred` - the first and last `radius` rows and
    // the first and last `radius` columns (all of it where the bands meet) -
    // directly from `image` (width x height floats), as the Gaussian blur
    // whose weights g(|dx|) g(|dy|) (`kernel`, radius + 1 weights from
    // gaussFft) are limited to the pixels inside the image and renormalised
    // to sum to 1 there. Pixels outside the band are left untouched; there
    // the circular blur already equals that blur if radius < width / 2 and
    // radius < height / 2. `image` and `kernel` are only read.
    // Throws velmor::kro::Exception for a negative radius or a null pointer.
    void repairGaussBlur(const float* image, float* blurred, int radius, float* kernel);

    // Threads of one call: 0 (the default) takes OpenMP's default for a new
    // parallel region, n > 0 at most n; small transforms run on the calling
    // thread. A negative count is refused (false, nothing changed).
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last call ran on.
    int getLastThreadCount() const { return lastThreads; }

private:
    int width;
    int height;
    int threadCount = 0;
    int lastThreads = 1;
    std::shared_ptr<const detail::FftwPlans2d> plans;
    std::unique_ptr<detail::SrFloatFft2dBuffers> buffers;
};

} // namespace kro
} // namespace velmor
