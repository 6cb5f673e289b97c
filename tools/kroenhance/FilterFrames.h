#pragma once

// The frame loop shared by the kroenhance commands that run one filter object
// over a whole recording, and the conversion of frames to and from the signed
// 16-bit samples of the integer filters.

#include <functional>
#include <string>

#include <opencv2/core.hpp>

#include "Cli.h"
#include "FrameIO.h"

namespace kroenhance {

// Frame to signed 16-bit filter samples. Unsigned 16-bit samples are mapped
// by offset binary (s = u - 32768), the form in which the filters compute
// internally, so nothing is lost and a saturated 65535 becomes the filters'
// saturation marker 32767. Other depths are taken by value, rounded and
// saturated; `clipped` counts the samples that did not fit.
void toFilterSamples(const cv::Mat& frame, cv::Mat_<short>& samples, long long& clipped);

// The inverse: back to `depth` (offset binary for 16-bit unsigned, by value
// with saturation otherwise).
void fromFilterSamples(const cv::Mat_<short>& samples, int depth, cv::Mat& frame);

using FrameFilter = std::function<void(const cv::Mat& in, cv::Mat& out)>;

// Reads every frame of `input`, passes it through `filter` and writes the
// result to `output`, with progress on a terminal; the output appears only
// when every frame has been written. Frames must have one channel unless
// `multiChannel` is set. Returns the exit status.
int runFrameFilter(const std::string& command, const InputSpec& input, const OutputSpec& output,
                   const FrameFilter& filter, bool multiChannel = false);

// runFrameFilter for a filter on signed 16-bit samples (see toFilterSamples);
// the output keeps the depth of the input frames.
int runInt16Filter(const std::string& command, const InputSpec& input, const OutputSpec& output,
                   const std::function<void(const cv::Mat_<short>&, cv::Mat_<short>&)>& filter);

// An integer option of a filter, judged by the library's rule for it (the
// same the filter's setter applies): a refused value throws UsageError
// "option NAME: <problem>".
int filterOption(Cli& cli, const std::string& name, int fallback, std::string (*rule)(long long));
double filterOption(Cli& cli, const std::string& name, double fallback, std::string (*rule)(double));

} // namespace kroenhance
