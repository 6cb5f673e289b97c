#pragma once

// Synthetic super-resolution bursts with a known truth: the test input of
// the demo, the benchmarks and the quality comparison.
//
// From a high-resolution scene, each low-resolution frame is made as a
// thermal camera would see it: the scene moved by the frame's sub-pixel shift,
// blurred by the sensor's Gaussian point-spread function, integrated over
// factor x factor blocks (the detector pixels), plus Gaussian read noise,
// rounded to whole counts and clamped to the sensor's bit depth. Everything is
// reproducible from the settings (seed included).

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "PointF.h"

namespace krotools {

struct BurstSettings {
    int frames = 5;
    int factor = 2;               // high-resolution pixels per low-resolution pixel
    double psfSigma = 0.683;      // sensor blur, low-resolution pixels
    double noise = 8.0;           // read noise, standard deviation in counts
    double maxShift = 1.0;        // shifts are uniform in [-maxShift, maxShift] per axis, low-res pixels
    int referencePosition = 1;    // this frame has shift (0, 0): position 1 of 5 is the reference
                                  // of an engine with reference index 3 (the C interface's default)
    int bitDepth = 14;            // frames rounded and clamped to [0, 2^bitDepth - 1]; 0 keeps floats
    std::uint64_t seed = 1;
};

struct Burst {
    BurstSettings settings;
    // The scene cropped to factor * (low-resolution size): the image a perfect
    // reconstruction from the reference frame's point of view would give.
    cv::Mat_<float> truth;
    std::vector<cv::Mat_<float>> frames;
    // Shift of each frame in low-resolution pixels: frame i shows the scene
    // with its content moved by shifts[i] (x right, y down).
    std::vector<velmor::kro::PointF> shifts;
};

// Makes a burst from `scene` (any size of at least 2 x factor per side; an
// odd remainder is cropped). Throws std::invalid_argument for bad settings.
Burst generateBurst(const cv::Mat_<float>& scene, const BurstSettings& settings);

// A thermal-looking scene in a 14-bit range: a sky-to-ground gradient, warm
// objects with soft edges, sharp building edges and fine texture.
cv::Mat_<float> proceduralScene(int rows, int cols, std::uint64_t seed);

// Writes <name>_frames_<w>x<h>x<n>_f32.raw, <name>_truth_<W>x<H>_f32.raw and
// <name>.json (sizes, shifts, noise, seed, file names) into `directory`.
// Returns the path of the JSON file; throws std::runtime_error on I/O errors.
std::string writeBurst(const Burst& burst, const std::string& directory, const std::string& name);

} // namespace krotools
