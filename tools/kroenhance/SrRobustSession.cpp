#include <deque>
#include <new>
#include <string>

#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "SrResultCodes.h"
#include "SrRobust.h"
#include "SrSessionImpl.h"
#include "StopWatch.h"

namespace kroenhance {

namespace {

velmor::kro::SrRobustOptions robustOptions(const SrSettings& s)
{
    velmor::kro::SrRobustOptions o;
    o.windowSize = s.window;
    o.referenceIndex = s.referenceIndex;
    // Without --psf-sigma the local-motion engine models the detector's
    // integration alone: the global engine's default blur is meant for its
    // own model, and on real binned footage any extra blur costs quality.
    o.psfSigma = s.psfSigmaGiven ? static_cast<float>(s.psfSigma) : 0.0f;
    return o;
}

class RobustSession : public SrSession::Impl {
public:
    RobustSession(const SrSettings& s, cv::Size frameSize) : Impl(s, frameSize)
    {
        checkRobustSettings(s);
        try {
            engine = std::make_unique<velmor::kro::SrRobust>(frameSize.width, frameSize.height, robustOptions(s));
        } catch (const velmor::kro::Exception& e) {
            throw RunError("the local-motion engine cannot work on " + std::to_string(frameSize.width) + "x" +
                           std::to_string(frameSize.height) + " frames: " + e.what());
        }
        referencePosition = s.window - 1 - s.referenceIndex;
    }

    cv::Size outputSize() const override { return engine->getOutputSize(); }

    bool addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record) override
    {
        if (frame.size() != size || frame.channels() != 1)
            throw RunError("input frame " + std::to_string(added) + " is not a single-channel frame of the first's size");
        velmor::kro::StopWatch watch;
        watch.start();
        const long long inputIndex = added++;
        const int window = settings.window;
        held.emplace_back();
        frame.convertTo(held.back(), CV_32F);
        if (static_cast<int>(held.size()) > window)
            held.pop_front();
        // NaN and infinite samples are the engine's business: it replaces
        // them and warns (the report lists the warning).
        engine->addFrame(frame);
        if (inputIndex + 1 < window)
            return false;

        record = SrFrameRecord();
        record.outputIndex = produced++;
        record.inputIndex = inputIndex;
        record.referenceInputIndex = inputIndex - (window - 1) + referencePosition;
        record.window.resize(window);
        for (int i = 0; i < window; ++i)
            record.window[i].inputIndex = inputIndex - (window - 1) + i;
        try {
            engine->computeSR(out, &report);
            fillRecord(record);
        } catch (const std::bad_alloc&) {
            throw;
        } catch (const std::exception& e) {
            record.code = velmor::kro::kSrLibraryError;
            record.failure = SrFailure::LibraryError;
            record.message = e.what();
            cv::Mat_<float> reference;
            held[static_cast<std::size_t>(referencePosition)].copyTo(reference);
            cv::patchNaNs(reference, 0.0);
            cv::resize(reference, out, outputSize(), 0.0, 0.0, cv::INTER_CUBIC);
        }
        record.totalMs = watch.stop() * 1000.0;
        return true;
    }

private:
    void fillRecord(SrFrameRecord& record) const
    {
        for (std::size_t i = 0; i < record.window.size() && i < report.frames.size(); ++i) {
            SrWindowFrame& w = record.window[i];
            w.registered = true;
            w.shiftX = report.frames[i].shiftX;
            w.shiftY = report.frames[i].shiftY;
            w.maskedFraction = report.frames[i].rejectedFraction;
        }
        record.rejectedFraction = report.rejectedFraction;
        record.referenceOnlyFraction = report.fallbackFraction;
        record.warnings = report.warnings;
        record.registrationMs = report.motionMs;
        record.minimizationMs = report.mergeMs;
    }

    std::unique_ptr<velmor::kro::SrRobust> engine;
    velmor::kro::SrRobustReport report;
    int referencePosition = 0;
    std::deque<cv::Mat_<float>> held;  // the window's frames as given, for a failure's fallback
};

} // namespace

void checkRobustSettings(const SrSettings& settings)
{
    const velmor::kro::SrRobustOptions o = robustOptions(settings);
    const std::string problem = o.validate();
    if (problem.empty())
        return;
    const char* option = problem.rfind("window", 0) == 0 ? "--window"
                         : problem.rfind("PSF", 0) == 0  ? "--psf-sigma"
                                                         : "--reference-index";
    throw UsageError(std::string("option ") + option + ": " + problem);
}

std::unique_ptr<SrSession::Impl> makeRobustSession(const SrSettings& settings, cv::Size frameSize)
{
    return std::make_unique<RobustSession>(settings, frameSize);
}

} // namespace kroenhance
