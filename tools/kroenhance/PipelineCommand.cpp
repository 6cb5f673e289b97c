// kroenhance pipeline: the camera's enhancement pipeline (temporal noise,
// static pattern, spatial noise, histogram equalisation, peaking) over a
// recording.
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "Cli.h"
#include "Command.h"
#include "EnhancerSettingKeys.h"
#include "FrameIO.h"
#include "OmbrixImageEnhancer.h"
#include "PipelinePreview.h"

namespace kroenhance {
namespace {

using velmor::kro::EnhancerSetting;
using velmor::kro::EnhancerSettingKey;
using velmor::kro::OmbrixImageEnhancer;

// The models take signed 16-bit samples (they read the low 16 bits); the
// histogram maps them to 0..32766.
constexpr int kModelLow = -32768;
constexpr int kModelHigh = 32767;
constexpr int kDefaultPreviewFrames = 3;

// One entry per key: name, setter and values on a line, the meaning below.
std::string keyTable()
{
    std::ostringstream text;
    for (const EnhancerSettingKey& key : velmor::kro::enhancerSettingKeys()) {
        std::string values = velmor::kro::describeRange(key);
        if (*key.outside)
            values += std::string(", else ") + key.outside;
        text << "  " << std::left << std::setw(22) << key.key << std::setw(20) << key.setterName << values << '\n'
             << "      " << key.meaning << '\n';
    }
    return text.str();
}

void printHelp()
{
    std::cout << "Usage: kroenhance pipeline [options] INPUT... -o OUTPUT\n"
                 "\n"
                 "Runs the camera's enhancement pipeline, bit-exact with its hardware blocks,\n"
                 "over a recording: temporal noise reduction, static pattern removal, spatial\n"
                 "noise removal, histogram equalisation and peaking, in that order, with one\n"
                 "pipeline for the whole recording. Samples are signed 16-bit values (u16\n"
                 "0..32767, s32 and f32 -32768..32767; f32 is truncated); the equalised output\n"
                 "lies in 0..32766 and is written in the input's format.\n"
                 "\n"
                 "Options:\n"
                 "  --histogram-params FILE  histogram parameter file ([Histogram_Parameter])\n"
                 "  --peaking-params FILE    peaking parameter file ([Peaking_Parameter]); a file\n"
                 "                           that cannot be read is reported and the defaults\n"
                 "                           kept; both files are applied before any --set\n"
                 "  --set KEY=VALUE          one setting (repeatable, applied in order); VALUE is a\n"
                 "                           whole decimal integer\n"
                 "  --preview DIR            8-bit PNG of every stage of the first frames in DIR\n"
                 "                           (frameNNNN_S_stage.png)\n"
                 "  --preview-frames N       frames previewed (default 3)\n"
                 "\n"
                 "Keys (KEY, the pipeline's setter it calls, the values the setter takes):\n"
              << keyTable() << kFrameIoHelp
              << "\nExamples:\n"
                 "  kroenhance pipeline --size 640x512 --format u16 drive.raw -o enhanced.raw\n"
                 "  kroenhance pipeline --size 640x512 --format s16 --histogram-params enhancer.ini \\\n"
                 "      --peaking-params enhancer.ini --set peak.gain=40 --set tnr.enable=0 \\\n"
                 "      --preview preview drive.raw -o enhanced.raw\n";
}

std::vector<EnhancerSetting> parseSettings(Cli& cli)
{
    std::vector<EnhancerSetting> settings;
    for (const std::string& text : cli.stringOptions("--set")) {
        EnhancerSetting setting;
        const std::string problem = velmor::kro::parseEnhancerSetting(text, setting);
        if (!problem.empty())
            throw UsageError("option --set " + text + ": " + problem + " (see kroenhance pipeline --help)");
        settings.push_back(setting);
    }
    return settings;
}

// The values the models take for a frame depth; false for a depth the
// pipeline does not read.
bool sampleLimits(int depth, double& low, double& high)
{
    switch (depth) {
    case CV_16S:
    case CV_32S:
    case CV_32F:
    case CV_64F:
        low = kModelLow;
        high = kModelHigh;
        return true;
    case CV_16U:
        low = 0;
        high = kModelHigh;
        return true;
    default:
        return false;
    }
}

void checkSamples(const cv::Mat& frame, long long index)
{
    double low = 0, high = 0;
    sampleLimits(frame.depth(), low, high);
    cv::Point where;
    // The upper bound is exclusive: a float just below 32768 truncates to 32767.
    if (cv::checkRange(frame, true, &where, low, high + 1.0))
        return;
    cv::Mat value;
    frame(cv::Rect(where, cv::Size(1, 1))).convertTo(value, CV_64F);
    std::ostringstream why;
    why << "frame " << index << " holds the sample " << value.at<double>(0) << " at x " << where.x << ", y "
        << where.y << ", outside the range " << low << " to " << high
        << " of the pipeline (signed 16-bit values)";
    throw RunError(why.str());
}

template <typename T>
void enhance(OmbrixImageEnhancer& enhancer, const cv::Mat& frame, cv::Mat& result)
{
    cv::Mat_<T> in = frame;
    cv::Mat_<T> out;
    enhancer.processFrame(in, out);
    result = out;
}

void enhanceFrame(OmbrixImageEnhancer& enhancer, const cv::Mat& frame, cv::Mat& result)
{
    switch (frame.depth()) {
    case CV_16S:
        return enhance<short>(enhancer, frame, result);
    case CV_16U:
        return enhance<unsigned short>(enhancer, frame, result);
    case CV_32S:
        return enhance<int>(enhancer, frame, result);
    case CV_32F:
        return enhance<float>(enhancer, frame, result);
    default:
        return enhance<double>(enhancer, frame, result);
    }
}

// Output samples below 0 (possible only without equalisation, hist.mode=0)
// wrap around in u16.
long long negativeSamples(OmbrixImageEnhancer& enhancer)
{
    const velmor::kro::Matrix<int>& out = *enhancer.getPeakArray();
    long long count = 0;
    for (int i = 0; i < out.count; ++i)
        count += out.data[i] < 0;
    return count;
}

int runPipeline(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        printHelp();
        return kExitOk;
    }
    const std::string histogramParams = cli.stringOption("--histogram-params", "");
    const std::string peakingParams = cli.stringOption("--peaking-params", "");
    const std::vector<EnhancerSetting> settings = parseSettings(cli);
    const std::string previewDir = cli.stringOption("--preview", "");
    const int previewFrames = static_cast<int>(cli.intOption("--preview-frames", kDefaultPreviewFrames, 1, 1000));
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    FrameReader reader(input);
    if (CV_MAT_CN(reader.frameType()) != 1)
        throw RunError("the input holds " + describeFrame(reader.frameSize(), reader.frameType()) +
                       " frames; the pipeline needs single-channel frames");
    const int depth = CV_MAT_DEPTH(reader.frameType());
    double low = 0, high = 0;
    if (!sampleLimits(depth, low, high))
        throw RunError("the input holds " + describeFrame(reader.frameSize(), reader.frameType()) +
                       " frames; the pipeline reads s16, u16, s32 or float frames");
    PipelinePreview preview(previewDir, previewFrames);

    OmbrixImageEnhancer enhancer(reader.frameSize().width, reader.frameSize().height,
                                 histogramParams.c_str(), peakingParams.c_str());
    for (const EnhancerSetting& setting : settings)
        velmor::kro::applyEnhancerSetting(enhancer, setting);

    FrameWriter writer(output.path, outputRawFormat(output, input, depth));
    Progress progress("pipeline", reader.frameCount());
    cv::Mat frame, result;
    long long done = 0, wrapped = 0;
    while (reader.read(frame)) {
        checkSamples(frame, done);
        enhanceFrame(enhancer, frame, result);
        if (depth == CV_16U)
            wrapped += negativeSamples(enhancer);
        preview.add(enhancer);
        writer.write(result);
        progress.update(++done);
    }
    writer.commit();
    preview.commit();
    if (wrapped > 0)
        std::cerr << "kroenhance pipeline: warning: " << wrapped
                  << " negative output samples wrapped around in u16 (hist.mode=0 keeps the signed range)\n";
    return kExitOk;
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(pipeline, "pipeline", "the camera's enhancement pipeline (noise, pattern, histogram, peaking)",
                   kroenhance::runPipeline);
