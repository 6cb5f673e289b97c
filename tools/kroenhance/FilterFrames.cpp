#include "FilterFrames.h"

#include <climits>
#include <cmath>
#include <iostream>

#include "Command.h"

namespace kroenhance {

void toFilterSamples(const cv::Mat& frame, cv::Mat_<short>& samples, long long& clipped)
{
    switch (frame.depth()) {
    case CV_16S:
        frame.copyTo(samples);
        return;
    case CV_16U: {
        samples.create(frame.rows, frame.cols);
        for (int r = 0; r < frame.rows; ++r) {
            const unsigned short* in = frame.ptr<unsigned short>(r);
            short* out = samples[r];
            for (int c = 0; c < frame.cols; ++c)
                out[c] = static_cast<short>(in[c] ^ 0x8000u);
        }
        return;
    }
    default: {
        cv::Mat wide;
        frame.convertTo(wide, CV_64F);
        cv::Mat outside = (wide < -32768.5) | (wide >= 32767.5) | (wide != wide);
        clipped += cv::countNonZero(outside);
        frame.convertTo(samples, CV_16S);
        return;
    }
    }
}

void fromFilterSamples(const cv::Mat_<short>& samples, int depth, cv::Mat& frame)
{
    if (depth == CV_16U) {
        frame.create(samples.rows, samples.cols, CV_16U);
        for (int r = 0; r < samples.rows; ++r) {
            const short* in = samples[r];
            unsigned short* out = frame.ptr<unsigned short>(r);
            for (int c = 0; c < samples.cols; ++c)
                out[c] = static_cast<unsigned short>(static_cast<unsigned short>(in[c]) ^ 0x8000u);
        }
        return;
    }
    samples.convertTo(frame, depth);
}

int runFrameFilter(const std::string& command, const InputSpec& input, const OutputSpec& output,
                   const FrameFilter& filter, bool multiChannel)
{
    FrameReader reader(input);
    if (!multiChannel && CV_MAT_CN(reader.frameType()) != 1)
        throw RunError("the input holds " + describeFrame(reader.frameSize(), reader.frameType()) +
                       " frames; this command needs single-channel frames");
    FrameWriter writer(output.path, outputRawFormat(output, input, CV_MAT_DEPTH(reader.frameType())));
    Progress progress(command, reader.frameCount());
    cv::Mat frame, result;
    long long done = 0;
    while (reader.read(frame)) {
        filter(frame, result);
        writer.write(result);
        progress.update(++done);
    }
    writer.commit();
    return kExitOk;
}

int runInt16Filter(const std::string& command, const InputSpec& input, const OutputSpec& output,
                   const std::function<void(const cv::Mat_<short>&, cv::Mat_<short>&)>& filter)
{
    long long clipped = 0;
    cv::Mat_<short> samples, filtered;
    const int status = runFrameFilter(command, input, output, [&](const cv::Mat& in, cv::Mat& out) {
        toFilterSamples(in, samples, clipped);
        filter(samples, filtered);
        fromFilterSamples(filtered, in.depth(), out);
    });
    if (clipped > 0)
        std::cerr << "kroenhance " << command << ": warning: " << clipped
                  << " samples outside the signed 16-bit range were clipped\n";
    return status;
}

int filterOption(Cli& cli, const std::string& name, int fallback, std::string (*rule)(long long))
{
    const long long value = cli.intOption(name, fallback, INT_MIN, INT_MAX);
    const std::string problem = rule(value);
    if (!problem.empty())
        throw UsageError("option " + name + ": " + problem);
    return static_cast<int>(value);
}

double filterOption(Cli& cli, const std::string& name, double fallback, std::string (*rule)(double))
{
    const double value = cli.doubleOption(name, fallback, -HUGE_VAL, HUGE_VAL);
    const std::string problem = rule(value);
    if (!problem.empty())
        throw UsageError("option " + name + ": " + problem);
    return value;
}

} // namespace kroenhance
