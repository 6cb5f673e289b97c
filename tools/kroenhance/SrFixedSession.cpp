// The fixed-point engine's session: frames rounded and saturated to 16-bit
// signed samples, the engine's status codes mapped onto the tool's kinds of
// failure, and the bicubic fallback of the newest frame (the frame the
// fixed-point result is aligned with).
#include <algorithm>
#include <cmath>
#include <deque>
#include <limits>
#include <new>
#include <sstream>
#include <string>

#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "SrInt.h"
#include "SrResultCodes.h"
#include "SrSessionImpl.h"
#include "StopWatch.h"

namespace kroenhance {

namespace {

using Engine = velmor::kro::SrInt<velmor::kro::SrIntRegistration, velmor::kro::SrIntMinimization>;

// The engine's factor (the only one its sparse grid is laid out for).
constexpr float kFactor = 2.0f;

const char* const kSaturationWarning =
    "input samples beyond -32768..32767 were saturated to that range (the fixed-point engine takes "
    "16-bit signed samples)";

velmor::kro::SrIntOptions fixedOptions(const SrSettings& s)
{
    velmor::kro::SrIntOptions o;
    o.windowSize = s.window;
    o.referenceIndex = s.referenceIndex;
    o.weightTV = static_cast<float>(s.tvWeight);
    o.regError = static_cast<float>(s.regError);
    o.relativeResidue = static_cast<float>(s.relResidue);
    o.maxCGIters = s.iterations;
    o.psfSigma = static_cast<float>(s.psfSigma);  // already the camera's blur when --camera decoded
    return o;
}

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

class FixedSession : public SrSession::Impl {
public:
    FixedSession(const SrSettings& s, cv::Size frameSize) : Impl(s, frameSize)
    {
        checkFixedSettings(s);
        const std::string error = runCatching([&] {
            engine = std::make_unique<Engine>(frameSize.width, frameSize.height, fixedOptions(s), kFactor);
        });
        if (!engine)
            throw RunError("the fixed engine cannot work on " + std::to_string(frameSize.width) + "x" +
                           std::to_string(frameSize.height) + " frames: " + error);
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
        velmor::kro::StopWatch watch;
        watch.start();
        toSamples(frame);
        const long long inputIndex = added++;
        const int window = settings.window;
        held.push_back(samples.clone());
        if (static_cast<int>(held.size()) > window)
            held.pop_front();

        bool structureOk = true;
        int addResult = 0;
        const std::string addError = runCatching([&] {
            structureOk = engine->checkImageStructureQuality(samples);
            addResult = engine->addFrame(samples);
            // The engine emptied its window because the grey values left the
            // registration's mapping; the frame that did it starts the new
            // window, so the next reconstructions have it.
            if (addResult == -8) {
                pendingWarnings.push_back("the grey-value range widened at input frame " + std::to_string(inputIndex) +
                                          ": the engine restarted its window there (code -8)");
                engine->addFrame(samples);
            }
        });
        if (inputIndex + 1 < window)
            return false;

        startRecord(record, inputIndex, structureOk, addResult);
        std::string error = addError;
        if (error.empty()) {
            int status = 0;
            error = runCatching([&] { status = engine->computeSr(result); });
            if (error.empty()) {
                record.hasEngineValue = true;
                record.engineValue = static_cast<float>(status);
                record.code = status;
                record.iterations = engine->getCumIters();
            }
            record.registrationMs = engine->getLastRegistrationMilliseconds();
            record.minimizationMs = engine->getLastMinimizationMilliseconds();
        }
        if (!record.hasEngineValue) {
            record.code = velmor::kro::kSrLibraryError;
            record.failure = SrFailure::LibraryError;
            record.message = error;
        } else {
            classify(record);
        }
        if (record.fallback()) {
            cv::Mat_<float> newest;
            held.back().convertTo(newest, CV_32F);
            cv::resize(newest, out, outputSize(), 0.0, 0.0, cv::INTER_CUBIC);
        } else
            result.convertTo(out, CV_32F);
        record.totalMs = watch.stop() * 1000.0;
        return true;
    }

private:
    // The frame as 16-bit signed samples, rounded to nearest and saturated
    // (NaN and infinite samples are refused: there is no sample to round).
    void toSamples(const cv::Mat& frame)
    {
        if (frame.depth() == CV_32F || frame.depth() == CV_64F) {
            if (!cv::checkRange(frame))
                throw RunError("input frame " + std::to_string(added) +
                               " holds NaN or infinite samples; the engine needs finite values");
        }
        double lo = 0.0, hi = 0.0;
        cv::minMaxLoc(frame, &lo, &hi);
        if (lo < std::numeric_limits<short>::min() || hi > std::numeric_limits<short>::max())
            pendingWarnings.push_back(kSaturationWarning);
        frame.convertTo(samples, CV_16S);
    }

    void startRecord(SrFrameRecord& record, long long inputIndex, bool structureOk, int addResult)
    {
        const int window = settings.window;
        record = SrFrameRecord();
        record.valueIsQuality = false;
        record.outputIndex = produced++;
        record.inputIndex = inputIndex;
        record.referenceInputIndex = inputIndex;  // the result is aligned with the newest frame
        record.structureOk = structureOk;
        record.addResult = addResult == -8 ? 0 : addResult;
        record.window.resize(window);
        for (int i = 0; i < window; ++i)
            record.window[i].inputIndex = inputIndex - (window - 1) + i;
        for (const std::string& w : pendingWarnings)
            if (std::find(record.warnings.begin(), record.warnings.end(), w) == record.warnings.end())
                record.warnings.push_back(w);
        pendingWarnings.clear();
    }

    void classify(SrFrameRecord& record)
    {
        const int status = record.code;
        if (status == -998) {
            record.failure = SrFailure::NoTracking;
            record.message = "the registration failed (code -998)";
        } else if (status == -6) {
            record.failure = SrFailure::Displacement;
            record.message = "a frame of the window is displaced too far (code -6)";
        } else if (status == -3) {
            record.failure = SrFailure::Coverage;
            record.message = "half or more of a frame's pixels could not be registered (code -3)";
        } else if (status < 0) {
            std::ostringstream why;
            why << "the minimisation failed (code " << status << ")";
            record.failure = SrFailure::Minimization;
            record.message = why.str();
        }
        if (status == -998)
            return;
        // The window of the engine may hold fewer frames than the tool's
        // after a restart (-8): the older slots are then not registered.
        const int window = settings.window;
        const int held = engine->getFrameCount();
        engine->getMasks(masks);
        const double pixels = static_cast<double>(size.area());
        for (int i = 0; i < held && i < window; ++i) {
            SrWindowFrame& w = record.window[window - held + i];
            w.registered = true;
            // Rounded plus sub-pixel shift: the complete shift of every frame,
            // including the one just before the newest, whose total the
            // engine leaves at zero by definition.
            const cv::Point_<short> r = engine->getRoundedTotalShift(static_cast<unsigned int>(i));
            const velmor::kro::PointF s = engine->getSubPixelShift(static_cast<unsigned int>(i));
            w.shiftX = static_cast<float>(r.x) + s.x;
            w.shiftY = static_cast<float>(r.y) + s.y;
            w.maskedFraction = 1.0 - cv::countNonZero(masks[i]) / pixels;
        }
    }

    std::unique_ptr<Engine> engine;
    cv::Mat_<short> samples;
    cv::Mat_<short> result;
    std::deque<cv::Mat_<short>> held;  // the window's frames as given to the engine, oldest first
    std::vector<cv::Mat_<unsigned char>> masks;
    std::vector<std::string> pendingWarnings;
};

} // namespace

void checkFixedSettings(const SrSettings& s)
{
    namespace rules = velmor::kro::srint_rules;
    checkWindowLimit(s);
    checkOption("--window", rules::windowSize(s.window), s.window, "1 or more");
    checkOption("--reference-index", rules::referenceIndex(s.referenceIndex, s.window), s.referenceIndex,
                "0 to " + std::to_string(s.window - 1) + " with a window of " + std::to_string(s.window));
    const float weight = static_cast<float>(s.tvWeight);
    checkOption("--tv-weight", rules::weightTV(weight) ? rules::weightTV(weight) : rules::weightTVRange(weight),
                s.tvWeight, "1 to 600 with the fixed engine");
    checkOption("--reg-error", rules::regError(static_cast<float>(s.regError)), s.regError, "above 0 and at most 1");
    checkOption("--rel-residue", rules::relativeResidue(static_cast<float>(s.relResidue)), s.relResidue,
                "1e-6 or more");
    checkOption("--iterations", rules::maxCGIters(s.iterations), s.iterations, "1 or more");
    checkOption(s.camera.empty() ? "--psf-sigma" : "--camera", rules::psfSigma(static_cast<float>(s.psfSigma)),
                s.psfSigma, "above 0");
    // Whatever the rules above missed (they are validate()'s, in its order).
    if (const char* refused = fixedOptions(s).validate())
        throw UsageError(refused);
}

std::unique_ptr<SrSession::Impl> makeFixedSession(const SrSettings& settings, cv::Size frameSize)
{
    return std::make_unique<FixedSession>(settings, frameSize);
}

} // namespace kroenhance
