#pragma once

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Settings of the motion-robust reconstruction. validate() is the one check
// that the constructor, the tool and other front ends share.
struct KROLIB_EXPORT SrRobustOptions {
    int windowSize = 5;          // frames per reconstruction, 1..32
    int referenceIndex = 3;      // reference frame counted back from the newest, 0..windowSize-1
    int baseIterations = 3;      // back-projection steps of the reference-only image, 0..50
    int iterations = 4;          // multi-frame back-projection steps, 0..50
    float consistency = 3.0f;    // a sample is used while its low-passed disagreement with the
                                 // reference stays below this many noise deviations, (0, 100]
    float maxFlowError = 0.25f;  // forward-backward flow mismatch above which a sample is
                                 // dropped, in input pixels, (0, 10]
    float edgeTolerance = 0.16f; // extra tolerance per unit of local gradient for motion that is
                                 // one shift (see the class comment), [0, 10]
    float rigidSpread = 0.25f;   // flow spread (input pixels) at which motion stops counting as one
                                 // shift, (0, 100]
    float psfSigma = 0.0f;       // optics blur in front of the 2x2 integrating detector: Gaussian
                                 // sigma in output pixels, [0, 10]; 0 (the default) models the
                                 // detector's integration alone, which matches sharp optics and
                                 // binned frames
    float localWeight = 0.35f;   // weight of the samples of a frame with local motion, relative to
                                 // one that moves as one shift, (0, 1]
    int threads = 0;             // 0: OpenMP's default; n > 0: at most n threads

    // "" when every value is acceptable, else a message naming the first bad one.
    std::string validate() const;
};

// One frame of the window in a reconstruction, oldest first.
struct KROLIB_EXPORT SrRobustFrame {
    bool reference = false;
    float shiftX = 0.0f;           // median motion towards the reference, input pixels
    float shiftY = 0.0f;
    float flowSpread = 0.0f;       // median deviation of the motion from that shift
    double rejectedFraction = 0.0; // share of its samples left out as inconsistent (0 for the reference)
};

// What one reconstruction did.
struct KROLIB_EXPORT SrRobustReport {
    std::vector<SrRobustFrame> frames;
    double rejectedFraction = 0.0; // over the samples of every frame but the reference
    double fallbackFraction = 0.0; // share of output pixels that only the reference frame supports
    float noise = 0.0f;            // the noise deviation the consistency test used
    long long nonFiniteSamples = 0;
    std::vector<std::string> warnings;
    double motionMs = 0.0;
    double mergeMs = 0.0;
};

// Multi-frame super-resolution that stays safe on footage with local motion.
//
// A window of frames (width x height, any single-channel depth, taken as
// float) gives one image of twice the width and height that stands for the
// reference frame:
//  1. The reference alone is enlarged by back-projection through an
//     integrating-sensor model (every input pixel is the mean of the 2x2
//     output pixels it covers). This image is the fallback everywhere.
//  2. Every other frame is aligned to the reference by dense optical flow;
//     its samples become samples of the scene at sub-pixel positions of the
//     reference. A slowly varying offset between the frame and the
//     reference (drift, shading) is removed first.
//  3. Each sample is checked against the reference-only image: the low-
//     passed difference must stay within `consistency` noise deviations,
//     the noise being measured from the data (the median absolute low-
//     passed difference of the most consistent frame), and the flow must be
//     forward-backward consistent. When a frame's motion is one shift
//     (small flow spread: a static scene, camera jitter), the flow is known
//     much better than per pixel, so differences at edges, where aliasing
//     lives, are tolerated in proportion to the local gradient
//     (`edgeTolerance`); with local motion (zoom, parallax) they are not.
//  4. The accepted samples and the reference are merged by normalised
//     back-projection through the same sensor model, the reference kept
//     consistent after every step. Where no other frame agrees, the output
//     is exactly the reference-only image.
//
// Why this design: one shift per frame cannot describe a moving camera,
// and a reconstruction that trusts misaligned samples ghosts and smears; a
// per-sample test against the reference, with a threshold from the
// measured noise, keeps only what agrees. The method learns from burst
// super-resolution with per-pixel robustness weights (tile alignment,
// local statistics against a noise model), simplified to dense flow and a
// back-projection merge that the integrating sensor model makes exact.
//
// Non-finite input samples are replaced by the frame's median and never
// used from frames other than the reference (counted in the report). The
// engine owns its buffers (allocated for the frame size at construction);
// one engine serves one caller at a time; the result does not depend on
// the thread count.
class KROLIB_EXPORT SrRobust {
public:
    // Throws velmor::kro::Exception for a size below 8x8 or options that
    // fail validate() (with its message).
    SrRobust(int width, int height, const SrRobustOptions& options = SrRobustOptions());
    ~SrRobust();
    SrRobust(const SrRobust& other);
    SrRobust& operator=(const SrRobust& other);

    const SrRobustOptions& getOptions() const;
    cv::Size getInputSize() const;
    cv::Size getOutputSize() const;

    // Copies one frame into the window (the oldest is dropped once it is
    // full). Throws for a frame of another size or with several channels.
    void addFrame(const cv::Mat& frame);
    // Frames held (at most windowSize).
    int getFrameCount() const;
    // Forgets every frame.
    void clearFrames();

    // Reconstructs from the full window into `out` (getOutputSize(), float,
    // the input's scale). Throws when the window is not full.
    void computeSR(cv::Mat_<float>& out, SrRobustReport* report = nullptr);

    struct State;

private:
    std::unique_ptr<State> state_;
};

} // namespace kro
} // namespace velmor
