#pragma once

// Super-resolution of a recording, one frame at a time, as the kroenhance sr
// and demo commands run it.
//
// SrSession drives the float engine (SrFloat with the corner or the phase
// registration) the way the C interface does: every frame is checked for
// structure and added; from the window-th frame on, every frame also runs a
// reconstruction. For each reconstruction it keeps a record of what
// happened (the engine's value and the C interface's code for it, the
// shifts and masked fractions of the window's frames, the time spent), and
// when the reconstruction fails it puts the bicubic enlargement of the
// window's reference frame in its place, so that a recording always gives
// one output frame per input frame from the window-th on.

#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "Cli.h"
#include "FrameIO.h"

namespace kroenhance {

// How motion between the frames of a window is described.
enum class SrMotion {
    Local,  // per pixel, samples checked for consistency (SrRobust); the tool's default
    Global  // one shift per frame (SrFloat, the C interface's engine)
};

const char* srMotionName(SrMotion motion);

enum class SrEngine {
    Corners,  // SrFloatRegistration2: tracked corners and optical flow (the C interface's)
    Phase,    // SrFloatRegistration1: phase correlation and optical flow
    Fixed,    // SrInt: 16-bit fixed-point registration and solve
    Reference // SuperResolution: raw 16-bit frames to radiance by a two-point calibration
};

const char* srEngineName(SrEngine engine);

// The reference engine's two-point calibration: four files of one frame
// each, raw values (16-bit) and radiances (float) seen at a low and a high
// temperature. Image files, or raw streams of the input's frame size (raw
// values in rawFormat, radiances as f32).
struct SrCalibrationFiles {
    std::string rawLow, radianceLow, rawHigh, radianceHigh;
    SampleFormat rawFormat = SampleFormat::S16;
};

// The engine's settings; the defaults are the C interface's.
struct SrSettings {
    SrMotion motion = SrMotion::Local;
    SrEngine engine = SrEngine::Corners;
    int window = 5;
    int referenceIndex = 3;
    double tvWeight = 400.0;
    double regError = 0.0001;
    double relResidue = 0.007;
    int iterations = 8;
    double psfSigma = 0.683;  // from --psf-sigma, --camera, or the default
    bool psfSigmaGiven = false; // --psf-sigma was given (local motion: else no optics blur)
    std::string camera;       // the --camera description; empty when not given
    std::string cameraModel;  // the model code decoded from it ("mk57"); empty when not decoded
    int cameraFieldOfView = -1;
    SrCalibrationFiles calibration;  // --engine reference only
};

// Takes --engine, --window, --reference-index, --tv-weight, --reg-error,
// --rel-residue, --iterations, --psf-sigma, --camera and the calibration
// files of --engine reference (--cal-raw-low, --cal-radiance-low,
// --cal-raw-high, --cal-radiance-high). Malformed values
// (not a number, an unknown engine, both --psf-sigma and --camera) throw
// UsageError; whether a value is acceptable is the engine's business (see
// checkSrSettings).
SrSettings srSettingsFromCommandLine(Cli& cli);

// Help text of those options.
extern const char* const kSrSettingsHelp;

// Checks the settings against the chosen engine's rules (SrFloatOptions'
// or SrRobustOptions' validation); a refused value throws UsageError with
// the engine's own message, prefixed by the option ("option --tv-weight:
// Invalid total-variation term weight specified. (got 0.5; accepted: 1 or
// more)"). Cheap; meant to run before any file is touched.
void checkSrSettings(const SrSettings& settings);

// Why a reconstruction was replaced by the bicubic enlargement.
enum class SrFailure {
    None,
    NoTracking,    // -9: the registration found nothing to track
    Displacement,  // -6: a frame is displaced too far
    Coverage,      // -3: half or more of a frame's pixels are masked out
    Minimization,  // another negative value, from the minimisation
    NonFinite,     // the result holds NaN or infinite values
    LibraryError   // the library threw
};

// A short stable name ("no-tracking", "displacement", "coverage",
// "minimization", "non-finite", "library-error"), "" for None.
const char* srFailureKind(SrFailure failure);

// One frame of the window of a reconstruction.
struct SrWindowFrame {
    long long inputIndex = 0;
    bool registered = false;     // shift and mask are known (the registration ran)
    float shiftX = 0.0f;         // complete shift against the reference, low-resolution pixels
    float shiftY = 0.0f;
    double maskedFraction = 0.0; // share of the frame's pixels left out of the solve
};

// What happened to one output frame.
struct SrFrameRecord {
    long long outputIndex = 0;
    long long inputIndex = 0;           // the newest frame of the window
    long long referenceInputIndex = 0;  // the window's reference frame
    bool structureOk = true;            // the newest frame passed the structure check
    int addResult = 0;                  // the engine's addFrame value for the newest frame
    bool hasEngineValue = false;        // false when the library threw
    float engineValue = 0.0f;           // computeSR's value: quality, or a negative code
                                        // (fixed engine: computeSr's status)
    bool valueIsQuality = true;         // false for the fixed engine, whose value is a status
    int code = 0;                       // the C interface's code (-999 when the library threw);
                                        // fixed engine: its own status
    int iterations = -1;                // fixed engine: the solver's iterations; -1 unknown
    SrFailure failure = SrFailure::None;
    std::string message;                // what went wrong, for failures
    std::vector<SrWindowFrame> window;  // oldest first
    // Local motion only: the share of the other frames' samples rejected as
    // inconsistent with the reference, the share of the output that only the
    // reference supports. Local motion and the fixed engine: the warnings.
    double rejectedFraction = 0.0;
    double referenceOnlyFraction = 0.0;
    std::vector<std::string> warnings;
    std::vector<float> qualityMap;      // reference engine: the 3x3 phase coverage, row by row
    std::string fallbackOutput;         // what a fallback frame is when not the bicubic enlargement
    double registrationMs = 0.0;        // local motion: alignment and consistency weights
    double minimizationMs = 0.0;        // local motion: the merge
    double totalMs = 0.0;               // adding the frame, reconstructing, any fallback

    bool fallback() const { return failure != SrFailure::None; }
    // The engine's value when it is a quality figure (not negative).
    bool hasQuality() const { return valueIsQuality && hasEngineValue && engineValue >= 0.0f; }
};

class SrSession {
public:
    // Builds the engine for frames of `frameSize` and applies the settings.
    // Throws UsageError for a value the engine refuses, RunError when the
    // engine cannot work on frames of that size.
    SrSession(const SrSettings& settings, cv::Size frameSize);
    ~SrSession();
    SrSession(const SrSession&) = delete;
    SrSession& operator=(const SrSession&) = delete;

    cv::Size frameSize() const;
    cv::Size outputSize() const;
    const SrSettings& settings() const;

    // Adds one single-channel frame of frameSize() (any depth, taken by
    // value as float). Returns false while the window is filling; otherwise
    // writes the output frame (float, outputSize(), in the input's scale)
    // into `out`, its record into `record`, and returns true. Throws
    // RunError for a frame of another size or with NaN or infinite samples.
    bool addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record);

    // Frames added so far.
    long long framesAdded() const;

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace kroenhance
