#include "DemoPipeline.h"

#include <chrono>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "Cli.h"
#include "DemoImages.h"
#include "FrameIO.h"
#include "OmbrixImageEnhancer.h"

namespace kroenhance {

const char* const kDemoRecordingName = "drive_crop_160x128x10_u16.raw";

namespace {

const cv::Size kRecordingSize(160, 128);
constexpr int kPanelZoom = 3;
constexpr double kLowPercent = 0.5;
constexpr double kHighPercent = 99.5;

cv::Mat_<float> asFloat(const velmor::kro::Matrix<int>& stage)
{
    cv::Mat_<float> image;
    cv::Mat(stage.rows, stage.cols, CV_32S, stage.data).convertTo(image, CV_32F);
    return image;
}

// Display values 0..255 (as float) of `image` through `range`, enlarged.
cv::Mat_<float> panelImage(const cv::Mat_<float>& image, const DisplayRange& range)
{
    cv::Mat_<float> shown;
    toDisplay(image, range).convertTo(shown, CV_32F);
    cv::resize(shown, shown, cv::Size(), kPanelZoom, kPanelZoom, cv::INTER_NEAREST);
    return shown;
}

std::string fixed(double value, int digits)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

} // namespace

PipelineDemo runPipelineDemo(const std::string& path)
{
    InputSpec input;
    input.paths = {path};
    input.raw = true;
    input.size = kRecordingSize;
    input.format = SampleFormat::U16;
    FrameReader reader(input);

    PipelineDemo demo;
    demo.recording = std::filesystem::path(path).filename().string();
    demo.size = kRecordingSize;
    velmor::kro::OmbrixImageEnhancer enhancer(kRecordingSize.width, kRecordingSize.height);
    cv::Mat frame;
    cv::Mat_<unsigned short> in, out;
    double seconds = 0.0;
    while (reader.read(frame)) {
        in = frame;
        const auto start = std::chrono::steady_clock::now();
        enhancer.processFrame(in, out);
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ++demo.frames;
    }
    if (demo.frames == 0)
        throw RunError("the recording \"" + path + "\" holds no frame");
    demo.shownFrame = demo.frames - 1;
    demo.msPerFrame = 1000.0 * seconds / demo.frames;

    // The recorded and the filtered frame share the recording's stretch, so
    // that what the noise and pattern stages removed shows; the enhanced
    // frame has its own.
    const cv::Mat_<float> recorded = asFloat(*enhancer.getInputArray());
    const cv::Mat_<float> filtered = asFloat(*enhancer.getSNRArray());
    const cv::Mat_<float> enhanced = asFloat(*enhancer.getPeakArray());
    const DisplayRange rawRange = percentileRange(recorded, kLowPercent, kHighPercent);
    const DisplayRange enhancedRange = percentileRange(enhanced, kLowPercent, kHighPercent);
    const std::string frameText = "frame " + std::to_string(demo.shownFrame + 1) + " of " + std::to_string(demo.frames);
    const std::vector<ComparisonPanel> panels = {
        {"recorded", frameText + ", linear stretch", panelImage(recorded, rawRange)},
        {"noise and pattern removed", "TNR, SPR, SNR; same stretch", panelImage(filtered, rawRange)},
        {"enhanced", "+ histogram equalisation, peaking", panelImage(enhanced, enhancedRange)}};
    demo.comparison = comparisonImage(panels, DisplayRange{0.0, 255.0}, cv::Rect(), 1);
    return demo;
}

std::string pipelineSummaryMarkdown(const PipelineDemo& demo)
{
    std::ostringstream md;
    md << "\n## Enhancement pipeline\n\n"
       << "The camera's enhancement pipeline (`OmbrixImageEnhancer`, default settings: temporal noise "
          "reduction, static pattern removal, spatial noise removal, histogram equalisation, peaking) over "
          "the bundled real recording `"
       << demo.recording << "` (" << demo.frames << " frames of " << demo.size.width << "x" << demo.size.height
       << ", 16-bit): " << fixed(demo.msPerFrame, 2) << " ms per frame. `pipeline.png` shows frame "
       << demo.shownFrame + 1 << " as recorded, after the noise and pattern stages, and enhanced.\n\n"
       << "To run it with other settings:\n\n"
       << "    kroenhance pipeline --size " << demo.size.width << "x" << demo.size.height << " --format u16 "
       << demo.recording << " -o enhanced.raw --set peak.gain=40 --preview preview\n";
    return md.str();
}

std::string pipelineConsoleText(const PipelineDemo& demo)
{
    std::ostringstream text;
    text << "  enhancement pipeline on " << demo.recording << ": " << demo.frames << " frames, "
         << fixed(demo.msPerFrame, 2) << " ms/frame (pipeline.png)\n";
    return text.str();
}

} // namespace kroenhance
