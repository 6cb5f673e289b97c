// kroenhance unsharp: unsharp masking of 8-bit or float frames.
#include <iostream>

#include "Cli.h"
#include "Command.h"
#include "FilterFrames.h"
#include "FrameIO.h"
#include "UnsharpMask.h"

namespace kroenhance {
namespace {

int runUnsharp(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << "Usage: kroenhance unsharp [options] INPUT... -o OUTPUT\n"
                     "\n"
                     "Unsharp masking: adds AMOUNT times the difference between each frame and its\n"
                     "Gaussian blur. Frames must hold 8-bit (u8, s8) or float (f32) samples, as\n"
                     "8-bit images, float TIFF or PFM images, or f32 raw streams. In single-channel\n"
                     "frames only pixels brighter than their surroundings by more than THRESHOLD\n"
                     "times the full scale (255 for u8, 127 for s8, 1.0 for float) are sharpened;\n"
                     "colour frames are sharpened everywhere.\n"
                     "\n"
                     "Options:\n"
                     "  --amount X     0..20 (default 1.0): strength\n"
                     "  --sigma X      0.1..50 (default 1.0): blur radius in pixels\n"
                     "  --threshold X  0..1 (default 0): share of full scale a pixel must stand out\n"
                  << kFrameIoHelp
                  << "\nExamples:\n"
                     "  kroenhance unsharp frame.pfm -o sharp.pfm\n"
                     "  kroenhance unsharp --amount 2 --sigma 1.5 display_*.png -o sharp_%04d.png\n";
        return kExitOk;
    }
    namespace rules = velmor::kro::filter_rules;
    velmor::kro::UnsharpMaskOptions options;
    options.amount = filterOption(cli, "--amount", options.amount, rules::unsharpAmount);
    options.sigma = filterOption(cli, "--sigma", options.sigma, rules::unsharpSigma);
    options.threshold = filterOption(cli, "--threshold", options.threshold, rules::unsharpThreshold);
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    return runFrameFilter(
        "unsharp", input, output,
        [&](const cv::Mat& in, cv::Mat& out) {
            cv::Mat frame = in;
            if (velmor::kro::UnsharpMask::unsharp(frame, out, options) != 0)
                throw RunError("unsharp works on 8-bit or float frames; the input holds " +
                               describeFrame(in.size(), in.type()) +
                               " frames (convert them to f32 or 8-bit first)");
        },
        true);
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(unsharp, "unsharp", "unsharp masking of 8-bit or float frames", kroenhance::runUnsharp);
