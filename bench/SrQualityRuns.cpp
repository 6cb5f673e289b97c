#include "SrQualityRuns.h"

#include <algorithm>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/superres.hpp>

#include "QualityMetrics.h"

namespace srquality {

// ---------------------------------------------------------------------------
// Methods





// The tuned setting: the best mean PSNR gain over bicubic on the tuning
// bursts of tune() (seeds the comparison never uses) among settings of at
// most 30 CG iterations. A wider PSF and a solve run further than the
// defaults' relative residue of 0.007 (which stops after 2 or 3 CG steps)
// recover more of the sensor blur; the lower TV weight keeps the noise down.
EngineSettings tunedSettings()
{
    EngineSettings s;
    s.name = "SrFloat corners (tuned)";
    s.psfSigma = 2.0f;
    s.weightTV = 800.0f;
    s.maxCGIters = 30;
    s.relativeResidue = 0.001f;
    return s;
}

int engineThreads = 2;

template <typename Registration>
Output runEngine(const EngineSettings& s, const krotools::Burst& burst, bool steady)
{
    const cv::Size low = burst.frames[0].size();
    SrFloat<Registration> engine(low.width, low.height, kWindow, 2.0f);
    engine.setThreads(engineThreads);
    engine.setReferenceIndex(kReferenceIndex);
    engine.setWeightTV(s.weightTV);
    engine.setRegError(s.regError);
    engine.setRelativeResidue(s.relativeResidue);
    engine.setPsfSigma(s.psfSigma);
    engine.setMaxCGIters(s.maxCGIters);

    Output out;
    for (int i = 0; i + 1 < kWindow; ++i)
        engine.addFrame(burst.frames[i]);
    const Clock::time_point start = Clock::now();
    engine.addFrame(burst.frames[kWindow - 1]);
    const float code = engine.computeSR(out.image);
    out.firstMs = msSince(start);
    if (code < 0.0f)
        out.note = "code " + std::to_string(static_cast<int>(code));
    engine.getCompleteShifts(out.shifts);

    if (steady) {
        cv::Mat_<float> image;
        std::vector<double> times;
        for (std::size_t i = kWindow; i < burst.frames.size(); ++i) {
            const Clock::time_point t = Clock::now();
            engine.addFrame(burst.frames[i]);
            engine.computeSR(image);
            times.push_back(msSince(t));
        }
        out.steadyMs = median(times);
    }
    return out;
}

Output runEngine(const EngineSettings& s, const krotools::Burst& burst, bool steady)
{
    return s.corners ? runEngine<SrFloatRegistration2>(s, burst, steady)
                     : runEngine<SrFloatRegistration1>(s, burst, steady);
}

Output runBicubic(const krotools::Burst& burst)
{
    Output out;
    const cv::Mat_<float>& reference = burst.frames[kReferencePosition];
    const cv::Size size(2 * reference.cols, 2 * reference.rows);
    Clock::time_point start = Clock::now();
    cv::resize(reference, out.image, size, 0, 0, cv::INTER_CUBIC);
    out.firstMs = msSince(start);
    std::vector<double> times;
    cv::Mat_<float> image;
    for (std::size_t i = kWindow; i < burst.frames.size(); ++i) {
        start = Clock::now();
        cv::resize(burst.frames[i], image, size, 0, 0, cv::INTER_CUBIC);
        times.push_back(msSince(start));
    }
    out.steadyMs = median(times);
    return out;
}

double bicubicPsnr(const krotools::Burst& burst)
{
    return krotools::measureQuality(burst.truth, runBicubic(burst).image, kBorder).psnr;
}

// Hands a list of 8-bit frames to the super-resolution object, then reports
// the end of the sequence with an empty frame.
class FrameListSource : public cv::superres::FrameSource {
public:
    explicit FrameListSource(std::vector<cv::Mat> frames) : frames_(std::move(frames)) {}
    void nextFrame(cv::OutputArray frame) override
    {
        if (next_ < frames_.size())
            frames_[next_++].copyTo(frame);
        else
            frame.release();
    }
    void reset() override { next_ = 0; }

private:
    std::vector<cv::Mat> frames_;
    std::size_t next_ = 0;
};



BtvRun runBtv(const krotools::Burst& burst, int count, int calls)
{
    double lo = 0.0, hi = 0.0;
    for (int i = 0; i < count; ++i) {
        double a = 0.0, b = 0.0;
        cv::minMaxLoc(burst.frames[i], &a, &b);
        lo = i == 0 ? a : std::min(lo, a);
        hi = i == 0 ? b : std::max(hi, b);
    }
    const double scale = hi > lo ? 255.0 / (hi - lo) : 1.0;
    std::vector<cv::Mat> frames8;
    for (int i = 0; i < count; ++i) {
        cv::Mat f8;
        burst.frames[i].convertTo(f8, CV_8U, scale, -lo * scale);
        frames8.push_back(f8);
    }

    cv::Ptr<cv::superres::SuperResolution> sr = cv::superres::createSuperResolution_BTVL1();
    sr->setScale(2);
    sr->setInput(cv::makePtr<FrameListSource>(frames8));

    BtvRun run;
    for (int call = 0; call < calls; ++call) {
        cv::Mat out;
        const Clock::time_point start = Clock::now();
        sr->nextFrame(out);
        const double ms = msSince(start);
        if (out.empty())
            throw std::runtime_error("BTV-L1 returned no frame");
        if (call == 0)
            run.firstMs = ms;
        else if (count > 2 * kBtvRadius + 1)
            run.laterMs.push_back(ms);
        if (call == kReferencePosition) {
            cv::Mat gray = out;
            if (out.channels() == 3)
                cv::cvtColor(out, gray, cv::COLOR_BGR2GRAY);
            // BTV-L1 leaves out a border of its kernel size on every side
            // (306x226 for 160x120 input). The border is put back by
            // replication to give the truth's size; it lies inside the
            // 16-pixel border that the figures leave out.
            const cv::Size full(2 * burst.frames[0].cols, 2 * burst.frames[0].rows);
            const int left = (full.width - gray.cols) / 2, top = (full.height - gray.rows) / 2;
            if (left < 0 || top < 0)
                throw std::runtime_error("BTV-L1 returned a larger frame than expected");
            cv::copyMakeBorder(gray, gray, top, full.height - gray.rows - top, left, full.width - gray.cols - left,
                               cv::BORDER_REPLICATE);
            gray.convertTo(run.reference, CV_32F, 1.0 / scale, lo);
        }
    }
    return run;
}

std::string btvDefaults()
{
    const cv::Ptr<cv::superres::SuperResolution> sr = cv::superres::createSuperResolution_BTVL1();
    std::ostringstream s;
    s << "scale 2 (set), iterations " << sr->getIterations() << ", tau " << sr->getTau() << ", lambda "
      << sr->getLambda() << ", alpha " << sr->getAlpha() << ", BTV kernel " << sr->getKernelSize()
      << ", blur kernel " << sr->getBlurKernelSize() << ", blur sigma " << sr->getBlurSigma()
      << ", temporal radius " << sr->getTemporalAreaRadius() << ", Farneback optical flow";
    return s.str();
}

} // namespace srquality
