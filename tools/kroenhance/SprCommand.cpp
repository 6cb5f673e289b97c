// kroenhance spr: static (fixed) pattern removal over a recording.
#include <iostream>

#include "Cli.h"
#include "Command.h"
#include "FilterFrames.h"
#include "FrameIO.h"
#include "StaticPatternRemover.h"

namespace kroenhance {
namespace {

int runSpr(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << "Usage: kroenhance spr [options] INPUT... -o OUTPUT\n"
                     "\n"
                     "Static pattern removal: learns a per-pixel and a per-column offset pattern\n"
                     "frame after frame where the scene is locally flat, and subtracts them. The\n"
                     "first frame passes unchanged; saturated samples (s16 32767, u16 65535) pass\n"
                     "unchanged. Bit-exact 16-bit integer arithmetic; u16 samples are filtered\n"
                     "losslessly as offset binary (s16 = u16 - 32768).\n"
                     "\n"
                     "Options:\n"
                     "  --threshold N    0..100 (default 22): largest local spread that counts as\n"
                     "                   flat; 0 stops the learning\n"
                     "  --line-limit N   0..31 (default 12): bound of the column pattern\n"
                     "  --frame-limit N  0..31 (default 16): bound of the pixel pattern\n"
                  << kFrameIoHelp
                  << "\nExamples:\n"
                     "  kroenhance spr --size 640x512 --format u16 drive.raw -o drive_spr.raw\n"
                     "  kroenhance spr --threshold 30 --frame-limit 8 recording.tif -o clean.tif\n";
        return kExitOk;
    }
    velmor::kro::StaticPatternRemoverOptions options;
    namespace rules = velmor::kro::filter_rules;
    options.threshold = filterOption(cli, "--threshold", options.threshold, rules::patternThreshold);
    options.lineLimit = filterOption(cli, "--line-limit", options.lineLimit, rules::patternLimit);
    options.frameLimit = filterOption(cli, "--frame-limit", options.frameLimit, rules::patternLimit);
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    velmor::kro::StaticPatternRemover filter(options);
    return runInt16Filter("spr", input, output,
                          [&](const cv::Mat_<short>& in, cv::Mat_<short>& out) { filter.process(in, out); });
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(spr, "spr", "static (fixed) pattern removal over a recording", kroenhance::runSpr);
