// kroenhance snr: spatial noise removal, frame by frame.
#include <iostream>

#include "Cli.h"
#include "Command.h"
#include "FilterFrames.h"
#include "FrameIO.h"
#include "SpatialNoiseRemover.h"

namespace kroenhance {
namespace {

int runSnr(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << "Usage: kroenhance snr [options] INPUT... -o OUTPUT\n"
                     "\n"
                     "Spatial noise removal: edge-preserving 3x3 smoothing that keeps between\n"
                     "13/32 (flat areas) and all (textured areas) of each pixel's deviation from\n"
                     "its local mean. Bit-exact 16-bit integer arithmetic; u16 samples are\n"
                     "filtered losslessly as offset binary (s16 = u16 - 32768).\n"
                     "\n"
                     "Options:\n"
                     "  --gain N    0..31 (default 6): smoothing strength; 0 passes frames unchanged\n"
                  << kFrameIoHelp
                  << "\nExamples:\n"
                     "  kroenhance snr --size 640x512 --format s16 drive.raw -o drive_snr.raw\n"
                     "  kroenhance snr --gain 3 frame.png -o frame_snr.png\n";
        return kExitOk;
    }
    velmor::kro::SpatialNoiseRemoverOptions options;
    options.gain = filterOption(cli, "--gain", options.gain, velmor::kro::filter_rules::spatialGain);
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    velmor::kro::SpatialNoiseRemover filter(options);
    return runInt16Filter("snr", input, output,
                          [&](const cv::Mat_<short>& in, cv::Mat_<short>& out) { filter.process(in, out); });
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(snr, "snr", "spatial noise removal (edge-preserving 3x3 smoothing)", kroenhance::runSnr);
