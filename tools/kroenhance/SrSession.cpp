#include "SrSession.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <deque>
#include <new>
#include <sstream>

#include <opencv2/imgproc.hpp>

#include "CameraLensTable.h"
#include "Exception.h"
#include "SrFloat.h"
#include "SrResultCodes.h"
#include "SrSessionImpl.h"
#include "StopWatch.h"

namespace kroenhance {

namespace {

using velmor::kro::SrFloat;
using velmor::kro::SrFloatRegistration1;
using velmor::kro::SrFloatRegistration2;

// The engine's factor; the C interface's and the only one the minimiser's
// sparse grid is laid out for.
constexpr float kMagnification = 2.0f;
// The engine's options for these settings.
velmor::kro::SrFloatOptions floatOptions(const SrSettings& s)
{
    velmor::kro::SrFloatOptions o;
    o.windowSize = s.window;
    o.referenceIndex = s.referenceIndex;
    o.weightTV = static_cast<float>(s.tvWeight);
    o.regError = static_cast<float>(s.regError);
    o.relativeResidue = static_cast<float>(s.relResidue);
    o.maxCGIters = s.iterations;
    o.psfSigma = static_cast<float>(s.psfSigma);  // already the camera's blur when --camera decoded
    return o;
}

} // namespace

void checkGlobalSettings(const SrSettings& s)
{
    namespace rules = velmor::kro::srfloat_rules;
    checkWindowLimit(s);
    checkOption("--window", rules::windowSize(s.window), s.window, "1 or more");
    checkOption("--reference-index", rules::referenceIndex(s.referenceIndex, s.window), s.referenceIndex,
          "0 to " + std::to_string(s.window - 1) + " with a window of " + std::to_string(s.window));
    checkOption("--tv-weight", rules::weightTV(static_cast<float>(s.tvWeight)), s.tvWeight, "1 or more");
    checkOption("--reg-error", rules::regError(static_cast<float>(s.regError)), s.regError, "above 0 and at most 1");
    checkOption("--rel-residue", rules::relativeResidue(static_cast<float>(s.relResidue)), s.relResidue,
          "1e-6 or more");
    checkOption("--iterations", rules::maxCGIters(s.iterations), s.iterations, "1 or more");
    checkOption(s.camera.empty() ? "--psf-sigma" : "--camera", rules::psfSigma(static_cast<float>(s.psfSigma)),
          s.psfSigma, "above 0");
}

namespace {

template <typename Engine>
std::unique_ptr<Engine> buildEngine(const SrSettings& s, cv::Size size)
{
    checkGlobalSettings(s);
    try {
        return std::make_unique<Engine>(size.width, size.height, floatOptions(s), kMagnification);
    } catch (const velmor::kro::Exception& e) {
        std::ostringstream why;
        why << "the " << srEngineName(s.engine) << " engine cannot work on " << size.width << "x"
            << size.height << " frames: " << e.what();
        throw RunError(why.str());
    }
}

} // namespace

void checkWindowLimit(const SrSettings& s)
{
    if (s.window > kMaxWindow) {
        std::ostringstream why;
        why << "option --window: " << s.window << " frames is more than the " << kMaxWindow << " this tool holds";
        throw UsageError(why.str());
    }
}

const char* srMotionName(SrMotion motion)
{
    return motion == SrMotion::Global ? "global" : "local";
}

const char* srEngineName(SrEngine engine)
{
    switch (engine) {
    case SrEngine::Phase: return "phase";
    case SrEngine::Fixed: return "fixed";
    case SrEngine::Reference: return "reference";
    case SrEngine::Corners: break;
    }
    return "corners";
}

const char* srFailureKind(SrFailure failure)
{
    switch (failure) {
    case SrFailure::None: return "";
    case SrFailure::NoTracking: return "no-tracking";
    case SrFailure::Displacement: return "displacement";
    case SrFailure::Coverage: return "coverage";
    case SrFailure::Minimization: return "minimization";
    case SrFailure::NonFinite: return "non-finite";
    case SrFailure::LibraryError: return "library-error";
    }
    return "";
}

const char* const kSrSettingsHelp =
    "Motion:\n"
    "  --motion M            local (default): motion measured per pixel by dense\n"
    "                        optical flow, every sample checked against the\n"
    "                        reference frame and used only where it agrees, so\n"
    "                        moving objects, zoom and parallax leave no ghosts;\n"
    "                        where no other frame agrees the result is the\n"
    "                        reference frame enlarged alone. global: one shift per\n"
    "                        frame, the C interface's engine (the options below\n"
    "                        marked [global]); for still scenes and camera jitter.\n"
    "  --window N            frames per reconstruction (default 5; local: at most 32)\n"
    "  --reference-index N   reference frame, counted back from the newest frame\n"
    "                        of the window, 0 to N-1 (default 3)\n"
    "\n"
    "Global-motion engine options [global] (defaults: those of the C interface):\n"
    "  --engine E            corners (tracked corners and optical flow, the C\n"
    "                        interface's), phase (phase correlation and optical\n"
    "                        flow) or fixed (the 16-bit fixed-point engine: samples\n"
    "                        are rounded and saturated to -32768..32767, every\n"
    "                        frame is registered against the newest, so the output\n"
    "                        is aligned with the newest frame of the window and\n"
    "                        the reference index only picks the frame whose range\n"
    "                        normalises the solve) or reference (the reference\n"
    "                        engine: raw 16-bit frames converted to radiance by a\n"
    "                        two-point calibration, phase registration; needs\n"
    "                        the four --cal options); default corners. Giving\n"
    "                        --engine implies --motion global\n"
    "  --tv-weight X         total-variation weight, 1 or more (fixed: 1 to 600);\n"
    "                        larger smooths less (default 400)\n"
    "  --reg-error X         registration error bound, above 0 and at most 1\n"
    "                        (default 0.0001)\n"
    "  --rel-residue X       relative residue that stops the solver, at least\n"
    "                        1e-6 (default 0.007)\n"
    "  --iterations N        bound on the solver's iterations, 1 or more (default 8)\n"
    "  --psf-sigma X         sensor blur, Gaussian sigma in output pixels, above 0\n"
    "                        (default 0.683). Also for local motion, where it is\n"
    "                        the optics' blur in front of the detector's 2x2\n"
    "                        integration, 0 to 10 (default 0: sharp optics)\n"
    "  --camera TEXT         or: the blur from a camera and lens description such\n"
    "                        as \"k57 FOV 25\" (unrecognised text: the default)\n"
    "\n"
    "Two-point calibration of --engine reference (all four needed; one frame\n"
    "each, of the input's size; image files, or raw streams read with --size\n"
    "and, for raw values, the input's 16-bit --format, for radiances f32):\n"
    "  --cal-raw-low FILE    raw values (16-bit) in front of the cold reference\n"
    "  --cal-radiance-low FILE  its radiance per pixel (float)\n"
    "  --cal-raw-high FILE   raw values (16-bit) in front of the warm reference\n"
    "  --cal-radiance-high FILE  its radiance per pixel (float)\n"
    "                        Pixels with equal raw values take their neighbours'\n"
    "                        calibration. The output is radiance; frames the\n"
    "                        engine cannot reconstruct are its simple combination\n"
    "                        (the window's mean, each pixel repeated 2x2).\n";

namespace {

// Options that only the global-motion engine has.
const char* const kGlobalOnlyOptions[] = {"--engine", "--tv-weight", "--reg-error", "--rel-residue", "--iterations",
                                          "--camera"};
const char* const kCalibrationOptions[] = {"--cal-raw-low", "--cal-radiance-low", "--cal-raw-high",
                                           "--cal-radiance-high"};

} // namespace

SrSettings srSettingsFromCommandLine(Cli& cli)
{
    SrSettings s;
    // An engine names a global-motion engine, so --engine alone implies
    // --motion global.
    const std::string motion = cli.stringOption("--motion", cli.has("--engine") ? "global" : "local");
    if (motion == "local")
        s.motion = SrMotion::Local;
    else if (motion == "global")
        s.motion = SrMotion::Global;
    else
        throw UsageError("option --motion: unknown motion \"" + motion + "\" (use local or global)");
    if (s.motion == SrMotion::Local)
        for (const char* option : kGlobalOnlyOptions)
            if (cli.has(option))
                throw UsageError(std::string("option ") + option +
                                 " belongs to the global-motion engine: add --motion global");
    const std::string engine = cli.stringOption("--engine", "corners");
    if (engine == "corners")
        s.engine = SrEngine::Corners;
    else if (engine == "phase")
        s.engine = SrEngine::Phase;
    else if (engine == "fixed")
        s.engine = SrEngine::Fixed;
    else if (engine == "reference")
        s.engine = SrEngine::Reference;
    else
        throw UsageError("option --engine: unknown engine \"" + engine + "\" (use corners, phase, fixed or reference)");
    if (s.engine != SrEngine::Reference || s.motion != SrMotion::Global)
        for (const char* option : kCalibrationOptions)
            if (cli.has(option))
                throw UsageError(std::string("option ") + option + " belongs to --engine reference");
    s.calibration.rawLow = cli.stringOption("--cal-raw-low", "");
    s.calibration.radianceLow = cli.stringOption("--cal-radiance-low", "");
    s.calibration.rawHigh = cli.stringOption("--cal-raw-high", "");
    s.calibration.radianceHigh = cli.stringOption("--cal-radiance-high", "");
    // The ranges here only keep the values within their C types; the engine
    // judges them (checkSrSettings).
    s.window = static_cast<int>(cli.intOption("--window", s.window, INT_MIN, INT_MAX));
    s.referenceIndex = static_cast<int>(cli.intOption("--reference-index", s.referenceIndex, INT_MIN, INT_MAX));
    s.tvWeight = cli.doubleOption("--tv-weight", s.tvWeight, -FLT_MAX, FLT_MAX);
    s.regError = cli.doubleOption("--reg-error", s.regError, -FLT_MAX, FLT_MAX);
    s.relResidue = cli.doubleOption("--rel-residue", s.relResidue, -FLT_MAX, FLT_MAX);
    s.iterations = static_cast<int>(cli.intOption("--iterations", s.iterations, INT_MIN, INT_MAX));
    const bool sigmaGiven = cli.has("--psf-sigma");
    s.psfSigmaGiven = sigmaGiven;
    s.psfSigma = cli.doubleOption("--psf-sigma", velmor::kro::kDefaultPsfSigma, -FLT_MAX, FLT_MAX);
    if (cli.has("--camera")) {
        if (sigmaGiven)
            throw UsageError("give either --psf-sigma or --camera, not both");
        s.camera = cli.stringOption("--camera", "");
        // As the C interface: a description that cannot be decoded leaves the
        // default blur.
        s.psfSigma = velmor::kro::kDefaultPsfSigma;
        std::string model;
        int fieldOfView = -1;
        if (velmor::kro::decodeCameraType(s.camera, model, fieldOfView)) {
            s.cameraModel = model;
            s.cameraFieldOfView = fieldOfView;
            s.psfSigma = velmor::kro::psfSigmaFor(model, fieldOfView);
        }
    }
    return s;
}

void checkSrSettings(const SrSettings& settings)
{
    if (settings.motion == SrMotion::Local)
        checkRobustSettings(settings);
    else if (settings.engine == SrEngine::Fixed)
        checkFixedSettings(settings);
    else if (settings.engine == SrEngine::Reference)
        checkReferenceSettings(settings);
    else
        checkGlobalSettings(settings);
}

// ---------------------------------------------------------------------------

namespace {

template <typename Registration>
class EngineSession : public SrSession::Impl {
public:
    EngineSession(const SrSettings& s, cv::Size frameSize)
        : Impl(s, frameSize), engine(buildEngine<SrFloat<Registration>>(s, frameSize))
    {
        const int window = engine->getWindowSize();
        // Position of the reference in a full window (oldest first), as the
        // engine computes it.
        referencePosition = std::max(0, window - engine->getReferenceIndex() - 1);
        masks.resize(window);
    }

    cv::Size outputSize() const override
    {
        return cv::Size(engine->getOutputWidth(), engine->getOutputHeight());
    }

    bool addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record) override
    {
        if (frame.size() != size || frame.channels() != 1)
            throw RunError("input frame " + std::to_string(added) + " is not a single-channel frame of the first's size");
        velmor::kro::StopWatch watch;
        watch.start();

        cv::Mat_<float> samples;
        frame.convertTo(samples, CV_32F);
        if (!cv::checkRange(samples))
            throw RunError("input frame " + std::to_string(added) +
                           " holds NaN or infinite samples; the engine needs finite values");
        const long long inputIndex = added++;
        const int window = engine->getWindowSize();
        held.push_back(samples);
        if (static_cast<int>(held.size()) > window)
            held.pop_front();

        // The same sequence of calls as SuperResolution_addImage.
        bool structureOk = true;
        int addResult = 0;
        std::string addError;
        try {
            structureOk = engine->checkImageStructureQuality(samples);
            addResult = engine->addFrame(samples);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const velmor::kro::Exception& e) {
            addError = e.what();
        } catch (const cv::Exception& e) {
            addError = "cv::Exception: " + e.err;
        } catch (const std::exception& e) {
            addError = e.what();
        }
        if (inputIndex + 1 < window)
            return false;

        record = SrFrameRecord();
        record.outputIndex = produced++;
        record.inputIndex = inputIndex;
        record.referenceInputIndex = inputIndex - (window - 1) + referencePosition;
        record.structureOk = structureOk;
        record.addResult = addResult;
        record.window.resize(window);
        for (int i = 0; i < window; ++i)
            record.window[i].inputIndex = inputIndex - (window - 1) + i;

        out.create(outputSize());
        std::string error = addError;
        if (error.empty()) {
            try {
                record.engineValue = engine->computeSR(out);
                record.hasEngineValue = true;
            } catch (const std::bad_alloc&) {
                throw;
            } catch (const velmor::kro::Exception& e) {
                error = e.what();
            } catch (const cv::Exception& e) {
                error = "cv::Exception: " + e.err;
            } catch (const std::exception& e) {
                error = e.what();
            }
            record.registrationMs = engine->getLastRegistrationMilliseconds();
            record.minimizationMs = engine->getLastMinimizationMilliseconds();
        }

        if (!record.hasEngineValue) {
            record.code = velmor::kro::kSrLibraryError;  // the C interface's code for a caught exception
            record.failure = SrFailure::LibraryError;
            record.message = error;
        } else {
            classify(record, out, structureOk, addResult);
        }

        if (record.fallback()) {
            const cv::Mat_<float>& reference = held[static_cast<std::size_t>(referencePosition)];
            cv::resize(reference, out, outputSize(), 0.0, 0.0, cv::INTER_CUBIC);
        }
        record.totalMs = watch.stop() * 1000.0;
        return true;
    }

private:
    // The C interface's code and the kind of failure for the engine's value,
    // and the shifts and masks of the window's frames when the registration
    // ran.
    void classify(SrFrameRecord& record, const cv::Mat_<float>& out, bool structureOk, int addResult)
    {
        const int window = engine->getWindowSize();
        const float value = record.engineValue;
        record.code = velmor::kro::cInterfaceCode(structureOk, addResult, value);
        // -3 and -6 fill the result all the same, but the engine says it
        // was made from frames that do not line up; it is not passed on
        // as a reconstruction.
        const int result = velmor::kro::srResultOf(value);
        if (result == velmor::kro::kSrNoTracking) {
            record.failure = SrFailure::NoTracking;
            record.message = "the registration found nothing to track";
        } else if (result == velmor::kro::kSrDisplacement) {
            record.failure = SrFailure::Displacement;
            record.message = "a frame of the window is displaced too far";
        } else if (result == velmor::kro::kSrCoverage) {
            record.failure = SrFailure::Coverage;
            record.message = "half or more of a frame's pixels could not be registered";
        } else if (value < 0.0f) {
            std::ostringstream why;
            why << "the minimisation failed (value " << value << ")";
            record.failure = SrFailure::Minimization;
            record.message = why.str();
        } else if (!cv::checkRange(out)) {
            record.failure = SrFailure::NonFinite;
            record.message = "the reconstruction holds NaN or infinite values";
        }
        // The shifts and masks are those of this call unless the
        // registration itself failed.
        if (result != velmor::kro::kSrNoTracking) {
            engine->getCompleteShifts(shifts);
            engine->getMasks(masks);
            const double pixels = static_cast<double>(size.area());
            for (int i = 0; i < window; ++i) {
                SrWindowFrame& w = record.window[i];
                w.registered = true;
                if (static_cast<std::size_t>(i) < shifts.size()) {
                    w.shiftX = shifts[i].x;
                    w.shiftY = shifts[i].y;
                }
                w.maskedFraction = 1.0 - cv::countNonZero(masks[i]) / pixels;
            }
        }
    }

    std::unique_ptr<SrFloat<Registration>> engine;
    int referencePosition = 0;
    std::deque<cv::Mat_<float>> held;  // the window's frames as given, oldest first
    std::vector<velmor::kro::PointF> shifts;
    std::vector<cv::Mat_<unsigned char>> masks;
};

} // namespace

SrSession::SrSession(const SrSettings& settings, cv::Size frameSize)
{
    if (settings.motion == SrMotion::Local)
        impl_ = makeRobustSession(settings, frameSize);
    else if (settings.engine == SrEngine::Fixed)
        impl_ = makeFixedSession(settings, frameSize);
    else if (settings.engine == SrEngine::Reference)
        impl_ = makeReferenceSession(settings, frameSize);
    else if (settings.engine == SrEngine::Phase)
        impl_ = std::make_unique<EngineSession<SrFloatRegistration1>>(settings, frameSize);
    else
        impl_ = std::make_unique<EngineSession<SrFloatRegistration2>>(settings, frameSize);
}

SrSession::~SrSession() = default;

cv::Size SrSession::frameSize() const { return impl_->size; }
cv::Size SrSession::outputSize() const { return impl_->outputSize(); }
const SrSettings& SrSession::settings() const { return impl_->settings; }
long long SrSession::framesAdded() const { return impl_->added; }

bool SrSession::addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record)
{
    return impl_->addFrame(frame, out, record);
}

} // namespace kroenhance
