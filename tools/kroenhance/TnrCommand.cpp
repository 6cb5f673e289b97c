// kroenhance tnr: temporal noise reduction of a recording.
#include <iostream>

#include "Cli.h"
#include "Command.h"
#include "FilterFrames.h"
#include "FrameIO.h"
#include "TemporalNoiseReduction.h"

namespace kroenhance {
namespace {

int runTnr(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << "Usage: kroenhance tnr [options] INPUT... -o OUTPUT\n"
                     "\n"
                     "Temporal noise reduction: a recursive per-pixel filter that averages small\n"
                     "frame-to-frame changes and lets large ones (motion) pass, with a feedback\n"
                     "strength that adapts to how much of the scene moves. The first frame passes\n"
                     "unchanged. Bit-exact 16-bit integer arithmetic; u16 samples are filtered\n"
                     "losslessly as offset binary (s16 = u16 - 32768).\n"
                     "\n"
                     "Options:\n"
                     "  --control-gain N      0..10 (default 10): how fast the averaging gives way\n"
                     "                        to larger changes\n"
                     "  --global-threshold N  0..100 (default 15): share of moving pixels tolerated\n"
                     "                        before the feedback backs off; 100 keeps it fixed\n"
                     "  --feedback-factor N   0..100 (default 60): base feedback strength, percent\n"
                     "  --hw-units            take the control gain and feedback factor as raw\n"
                     "                        hardware register values\n"
                  << kFrameIoHelp
                  << "\nExamples:\n"
                     "  kroenhance tnr --size 640x512 --format u16 drive.raw -o drive_tnr.raw\n"
                     "  kroenhance tnr --feedback-factor 80 frames_*.png -o tnr_%04d.png\n";
        return kExitOk;
    }
    velmor::kro::TemporalNoiseReductionOptions options;
    namespace rules = velmor::kro::filter_rules;
    options.controlGain = filterOption(cli, "--control-gain", options.controlGain, rules::controlGain);
    options.globalThreshold = filterOption(cli, "--global-threshold", options.globalThreshold, rules::globalThreshold);
    options.feedbackFactor = filterOption(cli, "--feedback-factor", options.feedbackFactor, rules::feedbackFactor);
    options.hwUnits = cli.flag("--hw-units");
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);

    velmor::kro::TemporalNoiseReduction filter(options);
    return runInt16Filter("tnr", input, output,
                          [&](const cv::Mat_<short>& in, cv::Mat_<short>& out) { filter.process(in, out); });
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(tnr, "tnr", "temporal noise reduction of a recording", kroenhance::runTnr);
