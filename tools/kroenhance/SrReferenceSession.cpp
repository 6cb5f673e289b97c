// The reference engine's session: the two-point calibration read from four
// single-frame files, raw 16-bit frames turned into radiance and
// reconstructed by processFrame2, the engine's codes mapped onto the tool's
// kinds of failure, the engine's simple combination as the fallback, and
// the 3x3 phase coverage of every output frame.
#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "Exception.h"
#include "SrResultCodes.h"
#include "SrSessionImpl.h"
#include "StopWatch.h"
#include "SuperResolution.h"

namespace kroenhance {

namespace {

using velmor::kro::SuperResolution;

const char* const kSaturationWarning =
    "raw samples above 32767 were saturated to 32767 (the reference engine takes signed 16-bit NUC values)";
const char* const kSimpleCombination = "the simple combination of the window (its mean, each pixel repeated 2x2)";

// Any exception of the library as one line.
template <class F>
std::string runCatching(F&& body)
{
    try {
        body();
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const velmor::kro::Exception& e) {
        return e.what();
    } catch (const cv::Exception& e) {
        return "cv::Exception: " + e.err;
    } catch (const std::exception& e) {
        return e.what();
    } catch (const char* message) {
        return message;
    }
    return std::string();
}

// One calibration frame: exactly one single-channel frame of the input's
// size. Raw streams are read in the input's frame size, raw values in
// `rawFormat` and radiances as f32; image files as they are.
cv::Mat readCalibrationFrame(const char* option, const std::string& path, cv::Size size, SampleFormat rawFormat)
{
    InputSpec spec;
    spec.paths = {path};
    spec.raw = !isImageFileName(path);
    spec.size = size;
    spec.format = rawFormat;
    std::unique_ptr<FrameReader> opened;
    try {
        opened = std::make_unique<FrameReader>(spec);
    } catch (const RunError& e) {
        throw RunError(std::string("option ") + option + ": " + e.what());
    }
    FrameReader& reader = *opened;
    cv::Mat frame, extra;
    if (!reader.read(frame))
        throw RunError(std::string("option ") + option + ": \"" + path + "\" holds no frame");
    if (reader.read(extra))
        throw RunError(std::string("option ") + option + ": \"" + path +
                       "\" holds more than one frame; a calibration file holds one");
    if (frame.size() != size || frame.channels() != 1)
        throw RunError(std::string("option ") + option + ": \"" + path + "\" holds a " +
                       describeFrame(frame.size(), frame.type()) + " frame; the input's frames are single-channel " +
                       std::to_string(size.width) + "x" + std::to_string(size.height));
    return frame;
}

cv::Mat_<short> rawCalibration(const char* option, const std::string& path, cv::Size size, SampleFormat format)
{
    const cv::Mat frame = readCalibrationFrame(option, path, size, format);
    if (frame.depth() != CV_16U && frame.depth() != CV_16S)
        throw RunError(std::string("option ") + option + ": \"" + path + "\" holds " +
                       describeFrame(frame.size(), frame.type()) + " samples; raw values must be 16-bit");
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(frame, &low, &high);
    if (high > std::numeric_limits<short>::max())
        throw RunError(std::string("option ") + option + ": \"" + path +
                       "\" holds raw values above 32767; the reference engine takes signed 16-bit values");
    cv::Mat_<short> raw;
    frame.convertTo(raw, CV_16S);
    return raw;
}

cv::Mat_<float> radianceCalibration(const char* option, const std::string& path, cv::Size size)
{
    const cv::Mat frame = readCalibrationFrame(option, path, size, SampleFormat::F32);
    if (frame.depth() != CV_32F)
        throw RunError(std::string("option ") + option + ": \"" + path + "\" holds " +
                       describeFrame(frame.size(), frame.type()) +
                       " samples; radiances must be float (f32 raw, 32-bit float TIFF or PFM)");
    return frame;
}

class ReferenceSession : public SrSession::Impl {
public:
    ReferenceSession(const SrSettings& s, cv::Size frameSize) : Impl(s, frameSize)
    {
        checkReferenceSettings(s);
        const std::string error = runCatching([&] {
            engine = std::make_unique<SuperResolution>(frameSize.width, frameSize.height, s.window,
                                                       SuperResolution::kFactor);
            engine->setReferenceIndex(s.referenceIndex);
            engine->setWeightTV(static_cast<float>(s.tvWeight));
            engine->setRegError(static_cast<float>(s.regError));
            engine->setRelativeResidue(static_cast<float>(s.relResidue));
            engine->setMaxCGIters(s.iterations);
            engine->setPsfSigma(static_cast<float>(s.psfSigma));
        });
        if (!engine || !error.empty())
            throw RunError("the reference engine cannot work on " + std::to_string(frameSize.width) + "x" +
                           std::to_string(frameSize.height) + " frames: " + error);
        const SrCalibrationFiles& c = s.calibration;
        const cv::Mat_<short> rawLow = rawCalibration("--cal-raw-low", c.rawLow, frameSize, c.rawFormat);
        const cv::Mat_<float> radianceLow = radianceCalibration("--cal-radiance-low", c.radianceLow, frameSize);
        const cv::Mat_<short> rawHigh = rawCalibration("--cal-raw-high", c.rawHigh, frameSize, c.rawFormat);
        const cv::Mat_<float> radianceHigh = radianceCalibration("--cal-radiance-high", c.radianceHigh, frameSize);
        engine->setNucToRad(rawLow, radianceLow, rawHigh, radianceHigh);
        referencePosition = std::max(0, s.window - s.referenceIndex - 1);
        result.create(outputSize());
        masks.resize(s.window);
    }

    cv::Size outputSize() const override
    {
        return cv::Size(engine->getOutputWidth(), engine->getOutputHeight());
    }

    bool addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record) override
    {
        if (frame.size() != size || frame.channels() != 1)
            throw RunError("input frame " + std::to_string(added) + " is not a single-channel frame of the first's size");
        if (frame.depth() != CV_16U && frame.depth() != CV_16S && frame.depth() != CV_8U)
            throw RunError("input frame " + std::to_string(added) + " holds " +
                           describeFrame(frame.size(), frame.type()) +
                           " samples; the reference engine takes raw 16-bit frames, which it converts to radiance");
        velmor::kro::StopWatch watch;
        watch.start();
        toRaw(frame);
        const long long inputIndex = added++;
        float value = 0.0f;
        // Every frame runs the engine's one call, as a camera would; the
        // reconstructions of a window still filling are not output.
        const std::string error = runCatching([&] { value = engine->processFrame2(raw.ptr<short>(), result.ptr<float>()); });
        if (inputIndex + 1 < settings.window) {
            if (!error.empty())
                pendingWarnings.push_back("input frame " + std::to_string(inputIndex) + ": " + error);
            return false;
        }

        startRecord(record, inputIndex);
        if (error.empty()) {
            record.hasEngineValue = true;
            record.engineValue = value;
            record.code = velmor::kro::srResultOf(value);
            classify(record);
        } else {
            record.code = velmor::kro::kSrLibraryError;
            record.failure = SrFailure::LibraryError;
            record.message = error;
        }
        record.registrationMs = engine->getLastRegistrationMilliseconds();
        record.minimizationMs = engine->getLastMinimizationMilliseconds();
        if (record.fallback())
            fallBack(record);
        result.copyTo(out);
        record.totalMs = watch.stop() * 1000.0;
        return true;
    }

private:
    // The frame as signed 16-bit NUC values; u16 samples above 32767 are
    // saturated, with a warning.
    void toRaw(const cv::Mat& frame)
    {
        if (frame.depth() == CV_16U) {
            double low = 0.0, high = 0.0;
            cv::minMaxLoc(frame, &low, &high);
            if (high > std::numeric_limits<short>::max() &&
                std::find(pendingWarnings.begin(), pendingWarnings.end(), kSaturationWarning) == pendingWarnings.end())
                pendingWarnings.push_back(kSaturationWarning);
        }
        frame.convertTo(raw, CV_16S);
    }

    void startRecord(SrFrameRecord& record, long long inputIndex)
    {
        const int window = settings.window;
        record = SrFrameRecord();
        record.outputIndex = produced++;
        record.inputIndex = inputIndex;
        record.referenceInputIndex = inputIndex - (window - 1) + referencePosition;
        record.window.resize(window);
        for (int i = 0; i < window; ++i)
            record.window[i].inputIndex = inputIndex - (window - 1) + i;
        record.warnings = pendingWarnings;
        pendingWarnings.clear();
    }

    // The kind of failure for the engine's value; the shifts, masks and
    // phase map when the registration ran.
    void classify(SrFrameRecord& record)
    {
        const int code = record.code;
        std::ostringstream why;
        if (code == SuperResolution::kFlatReference) {
            record.failure = SrFailure::NoTracking;
            why << "the reference frame is constant: nothing to register";
        } else if (code == SuperResolution::kTooLargeDisplacement) {
            record.failure = SrFailure::Displacement;
            why << "a frame of the window is displaced by half the frame height or more";
        } else if (code == SuperResolution::kNonFiniteSpectrum) {
            record.failure = SrFailure::NonFinite;
            why << "a frame's spectrum holds infinite values (samples too large)";
        } else if (code == velmor::kro::kSrDisplacement) {
            record.failure = SrFailure::Displacement;
            why << "a frame of the window is displaced too far";
        } else if (code == velmor::kro::kSrCoverage) {
            record.failure = SrFailure::Coverage;
            why << "half or more of a frame's pixels could not be registered";
        } else if (code != 0) {
            record.failure = SrFailure::Minimization;
            why << "the minimisation failed";
        } else if (!cv::checkRange(result)) {
            record.failure = SrFailure::NonFinite;
            why << "the reconstruction holds NaN or infinite values";
        }
        if (code != 0)
            why << " (code " << code << ")";
        record.message = why.str();

        cv::Mat_<float> quality;
        engine->getQuality(quality);
        record.qualityMap.assign(quality.begin(), quality.end());
        if (code == SuperResolution::kFlatReference || code == SuperResolution::kNonFiniteSpectrum)
            return;  // stopped before the registration
        engine->getCompleteShifts(shifts);
        engine->getMasks(masks);
        const double pixels = static_cast<double>(size.area());
        for (int i = 0; i < settings.window && static_cast<std::size_t>(i) < shifts.size(); ++i) {
            SrWindowFrame& w = record.window[i];
            w.registered = true;
            w.shiftX = shifts[i].x;
            w.shiftY = shifts[i].y;
            w.maskedFraction = 1.0 - cv::countNonZero(masks[i]) / pixels;
        }
    }

    // The engine's own fallback: its simple combination (already the output
    // when it stopped; made here for a reconstruction the tool does not pass
    // on).
    void fallBack(SrFrameRecord& record)
    {
        record.fallbackOutput = kSimpleCombination;
        const std::string error = runCatching([&] {
            engine->simpleCombine();
            engine->getResult(result);
        });
        if (!error.empty()) {
            result.setTo(0.0f);
            record.fallbackOutput = "zeros (" + error + ")";
        }
    }

    std::unique_ptr<SuperResolution> engine;
    int referencePosition = 0;
    cv::Mat_<short> raw;
    cv::Mat_<float> result;
    std::vector<velmor::kro::PointF> shifts;
    std::vector<cv::Mat_<unsigned char>> masks;
    std::vector<std::string> pendingWarnings;
};

} // namespace

void checkReferenceSettings(const SrSettings& s)
{
    checkGlobalSettings(s);
    const SrCalibrationFiles& c = s.calibration;
    std::vector<std::string> missing;
    if (c.rawLow.empty())
        missing.push_back("--cal-raw-low");
    if (c.radianceLow.empty())
        missing.push_back("--cal-radiance-low");
    if (c.rawHigh.empty())
        missing.push_back("--cal-raw-high");
    if (c.radianceHigh.empty())
        missing.push_back("--cal-radiance-high");
    if (missing.empty())
        return;
    std::string list;
    for (std::size_t i = 0; i < missing.size(); ++i)
        list += (i == 0 ? "" : (i + 1 == missing.size() ? " and " : ", ")) + missing[i];
    throw UsageError("the reference engine needs a two-point calibration (raw values and radiances at a low "
                     "and a high temperature): missing " + list + " (see kroenhance sr --help)");
}

std::unique_ptr<SrSession::Impl> makeReferenceSession(const SrSettings& settings, cv::Size frameSize)
{
    return std::make_unique<ReferenceSession>(settings, frameSize);
}

} // namespace kroenhance
