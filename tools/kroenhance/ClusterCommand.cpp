// kroenhance cluster: learns a cluster damping map over a recording, then
// applies it to every frame.
#include <cmath>
#include <deque>
#include <iostream>

#include "Cli.h"
#include "ClusterPatternRemover.h"
#include "Command.h"
#include "FilterFrames.h"
#include "FrameIO.h"

namespace kroenhance {
namespace {

using velmor::kro::ClusterPatternRemover;

// Per-pixel standard deviation over the frames of the window (population
// form, in double).
cv::Mat_<float> temporalStdDev(const std::deque<cv::Mat_<float>>& window)
{
    const int rows = window.front().rows;
    const int cols = window.front().cols;
    const double n = static_cast<double>(window.size());
    cv::Mat_<float> result(rows, cols);
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            double sum = 0.0;
            for (const auto& frame : window)
                sum += frame(r, c);
            const double mean = sum / n;
            double squares = 0.0;
            for (const auto& frame : window)
                squares += (frame(r, c) - mean) * (frame(r, c) - mean);
            result(r, c) = static_cast<float>(std::sqrt(squares / n));
        }
    }
    return result;
}

const char* const kClusterHelp =
    "Usage: kroenhance cluster [options] INPUT... -o OUTPUT\n"
    "\n"
    "Cluster pattern removal in two passes. First it learns a per-pixel damping\n"
    "map over the recording: at every frame, once WINDOW frames have been seen,\n"
    "each pixel whose standard deviation over the last WINDOW frames is below\n"
    "STD-LIMIT and that differs from none of its neighbours by more than\n"
    "MEAN-LIMIT blends the ratio of its 3x3-smoothed value to its own value into\n"
    "the map (weight ALPHA). Then it multiplies every frame by the map. Samples\n"
    "are processed by value in float and written back in the input's type\n"
    "(rounded and saturated). A recording shorter than the window is learnt\n"
    "once, from its last frame and all its frames.\n"
    "\n"
    "Options:\n"
    "  --std-limit X   >= 0 (default 10): largest temporal standard deviation of\n"
    "                  a pixel that is learnt, in sample units\n"
    "  --mean-limit X  >= 0 (default 100): largest difference to a neighbour\n"
    "  --alpha X       0..1 (default 0.1): weight of each new ratio in the map\n"
    "  --window N      2..1000 (default 8): frames of the standard deviation\n"
    "  --mode M        median or gaussian (default median): the 3x3 smoothing\n"
    "  --save-map F    also write the learnt map (float) to F (.pfm or .tif)\n";

const char* const kClusterExamples =
    "\nExamples:\n"
    "  kroenhance cluster --size 640x512 --format u16 drive.raw -o drive_cluster.raw\n"
    "  kroenhance cluster --window 16 --save-map map.pfm --size 640x512 --format u16 drive.raw -o out.raw\n";

ClusterPatternRemover::FILTERMODE clusterModeFromCommandLine(Cli& cli)
{
    const std::string modeName = cli.stringOption("--mode", "median");
    if (modeName == "gaussian")
        return ClusterPatternRemover::GAUSSIAN;
    if (modeName != "median")
        throw UsageError("option --mode: \"" + modeName + "\" is not median or gaussian");
    return ClusterPatternRemover::MEDIAN;
}

std::string mapPathFromCommandLine(Cli& cli)
{
    const std::string mapPath = cli.stringOption("--save-map", "");
    if (!mapPath.empty()) {
        const std::string lower = cv::toLowerCase(mapPath);
        const auto endsWith = [&](const std::string& ext) {
            return lower.size() > ext.size() && lower.compare(lower.size() - ext.size(), ext.size(), ext) == 0;
        };
        if (!endsWith(".pfm") && !endsWith(".tif") && !endsWith(".tiff"))
            throw UsageError("option --save-map: \"" + mapPath + "\" must end in .pfm, .tif or .tiff");
    }
    return mapPath;
}

// First pass: the damping map learnt from every full window of the
// recording (from the whole recording when it is shorter than a window).
void learnDamping(FrameReader& reader, ClusterPatternRemover& remover, int window,
                  ClusterPatternRemover::FILTERMODE mode)
{
    std::deque<cv::Mat_<float>> recent;
    cv::Mat frame;
    cv::Mat_<float> asFloat;
    long long updates = 0, done = 0;
    Progress progress("cluster (learning)", reader.frameCount());
    while (reader.read(frame)) {
        frame.convertTo(asFloat, CV_32F);
        recent.push_back(asFloat.clone());
        if (static_cast<int>(recent.size()) > window)
            recent.pop_front();
        if (static_cast<int>(recent.size()) == window) {
            remover.updateDamping(recent.back(), temporalStdDev(recent), mode);
            ++updates;
        }
        progress.update(++done);
    }
    if (updates == 0)
        remover.updateDamping(recent.back(), temporalStdDev(recent), mode);
}

// Second pass: the learnt map applied to every frame, in the input's depth.
void applyLearntDamping(FrameReader& reader, const ClusterPatternRemover& remover, FrameWriter& writer, int depth)
{
    reader.rewind();
    Progress progress("cluster (applying)", reader.frameCount());
    cv::Mat frame;
    cv::Mat_<float> asFloat;
    cv::Mat_<float> damped;
    cv::Mat result;
    long long done = 0;
    while (reader.read(frame)) {
        frame.convertTo(asFloat, CV_32F);
        remover.applyDamping(asFloat, damped);
        damped.convertTo(result, depth);
        writer.write(result);
        progress.update(++done);
    }
}

int runCluster(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << kClusterHelp << kFrameIoHelp << kClusterExamples;
        return kExitOk;
    }
    namespace rules = velmor::kro::filter_rules;
    velmor::kro::ClusterPatternRemoverOptions options;
    options.stdDevLimit = static_cast<float>(filterOption(cli, "--std-limit", options.stdDevLimit, rules::clusterLimit));
    options.meanLimit = static_cast<float>(filterOption(cli, "--mean-limit", options.meanLimit, rules::clusterLimit));
    options.alphaDamping = static_cast<float>(filterOption(cli, "--alpha", options.alphaDamping, rules::alphaDamping));
    const int window = static_cast<int>(cli.intOption("--window", 8, 2, 1000));
    const ClusterPatternRemover::FILTERMODE mode = clusterModeFromCommandLine(cli);
    const std::string mapPath = mapPathFromCommandLine(cli);
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    FrameReader reader(input);
    if (CV_MAT_CN(reader.frameType()) != 1)
        throw RunError("the input holds " + describeFrame(reader.frameSize(), reader.frameType()) +
                       " frames; cluster needs single-channel frames");
    const int depth = CV_MAT_DEPTH(reader.frameType());

    ClusterPatternRemover remover(options);
    learnDamping(reader, remover, window, mode);

    FrameWriter writer(output.path, outputRawFormat(output, input, depth));
    std::unique_ptr<FrameWriter> mapWriter;
    if (!mapPath.empty()) {
        cv::Mat map;
        remover.getDamping(map, false);
        mapWriter.reset(new FrameWriter(mapPath, SampleFormat::F32));
        mapWriter->write(map);
    }
    applyLearntDamping(reader, remover, writer, depth);
    writer.commit();
    if (mapWriter)
        mapWriter->commit();
    return kExitOk;
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(cluster, "cluster", "cluster pattern removal (learn a damping map, then apply it)",
                   kroenhance::runCluster);
