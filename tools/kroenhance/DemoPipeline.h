#pragma once

// The enhancement-pipeline step of kroenhance demo: the camera's pipeline
// (OmbrixImageEnhancer, default settings) over the bundled real recording,
// shown before and after.

#include <string>

#include <opencv2/core.hpp>

namespace kroenhance {

// The bundled recording the step runs on (in the bundled data folder).
extern const char* const kDemoRecordingName;

struct PipelineDemo {
    std::string recording;  // file name
    cv::Size size;
    int frames = 0;
    int shownFrame = 0;     // index of the frame in the comparison
    double msPerFrame = 0.0;
    // The shown frame as recorded, after the noise and pattern stages, and
    // enhanced: side by side, labelled, each panel enlarged for viewing.
    cv::Mat_<unsigned char> comparison;
};

// Runs the pipeline over every frame of the recording at `path`; RunError
// when it cannot be read.
PipelineDemo runPipelineDemo(const std::string& path);

// The markdown section of summary.md and the console lines.
std::string pipelineSummaryMarkdown(const PipelineDemo& demo);
std::string pipelineConsoleText(const PipelineDemo& demo);

} // namespace kroenhance
