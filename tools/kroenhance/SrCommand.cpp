// kroenhance sr: multi-frame super-resolution of a recording.
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "Command.h"
#include "FrameIO.h"
#include "SrReport.h"
#include "SrSession.h"
#include "StopWatch.h"

namespace kroenhance {
namespace {

const char* const kSrHelp =
    "Usage: kroenhance sr [options] INPUT... -o OUTPUT\n"
    "\n"
    "Multi-frame super-resolution: from a sliding window of frames, every frame\n"
    "is aligned with the window's reference frame and one image of twice the\n"
    "width and height is made. By default motion is measured per pixel and\n"
    "only samples that agree with the reference are used (--motion local), so\n"
    "footage from a moving camera is never made worse than the reference frame\n"
    "enlarged alone; --motion global is the C interface's engine (one shift per\n"
    "frame, sensor blur model plus total variation), and --engine fixed its\n"
    "16-bit fixed-point twin, whose integer arithmetic follows the camera's\n"
    "hardware. As through the C interface, the first output frame comes with\n"
    "the window-th input frame, then one for every further frame: N input\n"
    "frames give N - window + 1 output frames.\n"
    "Values keep the input's scale; float output is exact, 16-bit output is\n"
    "rounded and saturated.\n"
    "\n"
    "When a reconstruction fails (the engine returns a negative value or the\n"
    "library reports an error) its frame is the bicubic enlargement of the\n"
    "window's reference frame (fixed engine: the newest frame, which its result\n"
    "is aligned with; reference engine: its simple combination of the window)\n"
    "instead; a warning names each kind of failure once and\n"
    "the report lists every frame. The exit status is 0 unless no frame at all\n"
    "could be reconstructed. With local motion, NaN and infinite input samples\n"
    "are replaced and reported; the global engines refuse them.\n"
    "\n";

const char* const kSrOptionsHelp =
    "\n"
    "Other options:\n"
    "  --report FILE.json    per output frame: input index, every window frame's\n"
    "                        shift and masked (local: rejected) fraction, the\n"
    "                        milliseconds of registration and minimisation (local:\n"
    "                        alignment and merge); global: the engine's value, the\n"
    "                        C interface's code and the quality; local: the share\n"
    "                        of samples rejected as inconsistent, the share of the\n"
    "                        image only the reference supports, and warnings;\n"
    "                        reference engine: the 3x3 coverage of the sub-pixel\n"
    "                        phases and warnings\n"
    "                        (written even when no frame could be reconstructed)\n"
    "  --quiet               no progress display (shown only on a terminal)\n"
    "  Raw output is f32 unless --output-format says otherwise.\n";

const char* const kSrExamplesHelp =
    "\n"
    "Examples:\n"
    "  kroenhance sr --size 640x512 --format u16 drive.raw -o sr.raw\n"
    "      a raw u16 recording in, 1280x1024 f32 frames out\n"
    "  kroenhance sr --report sr.json frames_*.png -o sr_%04d.png\n"
    "      numbered 16-bit PNGs in and out, with a report\n"
    "  kroenhance sr --motion global --engine phase --camera \"k57 FOV 25\" \\\n"
    "      --window 7 --reference-index 3 --size 320x256 --format f32 burst.raw -o sr.tif\n"
    "      a still scene with camera jitter, through the C interface's engine\n"
    "  kroenhance sr --engine fixed --reference-index 0 --size 640x512 --format s16 \\\n"
    "      core.raw -o sr.raw --output-format s16\n"
    "      16-bit samples through the fixed-point engine, 16-bit frames out\n"
    "  kroenhance sr --engine reference --size 160x128 --format u16 drive.raw \\\n"
    "      --cal-raw-low cal/raw_low.raw --cal-radiance-low cal/radiance_low.pfm \\\n"
    "      --cal-raw-high cal/raw_high.raw --cal-radiance-high cal/radiance_high.pfm \\\n"
    "      -o sr.tif --report sr.json\n"
    "      raw frames to radiance by a two-point calibration, reconstructed by the\n"
    "      reference engine; the report adds each frame's 3x3 phase coverage\n";

// One warning per kind of problem; the report has them all.
class Warnings {
public:
    void once(const std::string& kind, const std::string& text)
    {
        if (seen_.insert(kind).second)
            std::cerr << "kroenhance sr: warning: " << text << '\n';
    }

private:
    std::set<std::string> seen_;
};

// The warnings a reconstructed frame deserves, each kind once.
void warnAbout(const SrFrameRecord& record, Warnings& warnings)
{
    if (!record.structureOk)
        warnings.once("structure", "input frame " + std::to_string(record.inputIndex) +
                                       " has too little structure (code -4); it is used all the same");
    if (record.addResult == -2)
        warnings.once("defects", "input frame " + std::to_string(record.inputIndex) +
                                     " has defects the bad-pixel repair could not mend (code -2)");
    for (const std::string& w : record.warnings)
        warnings.once(w, "output frame " + std::to_string(record.outputIndex) + ": " + w);
    if (record.fallback())
        warnings.once(srFailureKind(record.failure),
                      "output frame " + std::to_string(record.outputIndex) + " (input frame " +
                          std::to_string(record.inputIndex) + "): " + record.message + "; it is " +
                          (record.fallbackOutput.empty()
                               ? "the bicubic enlargement of input frame " + std::to_string(record.referenceInputIndex)
                               : record.fallbackOutput) +
                          " instead");
}

// Refuses input the sr command cannot use: frames with several channels, or
// fewer frames than one window.
void checkSrInput(const FrameReader& reader, const SrSettings& settings)
{
    if (CV_MAT_CN(reader.frameType()) != 1)
        throw RunError("the input holds " + describeFrame(reader.frameSize(), reader.frameType()) +
                       " frames; super-resolution needs single-channel frames");
    const long long inputFrames = reader.frameCount();
    if (inputFrames >= 0 && inputFrames < settings.window) {
        std::ostringstream why;
        why << "the input holds " << inputFrames << " frame" << (inputFrames == 1 ? "" : "s")
            << "; a window of " << settings.window << " needs at least " << settings.window
            << " (see --window)";
        throw RunError(why.str());
    }
}

// Feeds every input frame to the session and writes each output frame it
// gives; warns once about each kind of failure.
std::vector<SrFrameRecord> reconstructAll(FrameReader& reader, SrSession& session, FrameWriter& writer,
                                          bool showProgress)
{
    const long long inputFrames = reader.frameCount();
    const int window = session.settings().window;
    Progress progress("sr", inputFrames >= 0 ? inputFrames - window + 1 : 0, showProgress);
    Warnings warnings;
    std::vector<SrFrameRecord> records;
    cv::Mat frame;
    cv::Mat_<float> result;
    SrFrameRecord record;
    while (reader.read(frame)) {
        if (!session.addFrame(frame, result, record))
            continue;
        writer.write(result);
        records.push_back(record);
        warnAbout(record, warnings);
        progress.update(static_cast<long long>(records.size()));
    }
    return records;
}

int runSr(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << kSrHelp << kSrSettingsHelp << kFrameIoHelp << kSrOptionsHelp << kSrExamplesHelp;
        return kExitOk;
    }
    SrSettings settings = srSettingsFromCommandLine(cli);
    const bool reportGiven = cli.has("--report");
    const std::string reportPath = cli.stringOption("--report", "");
    if (reportGiven && reportPath.empty())
        throw UsageError("option --report needs a file name");
    const bool quiet = cli.flag("--quiet");
    const OutputSpec output = outputFromCommandLine(cli);
    const InputSpec input = inputFromCommandLine(cli);
    // Raw calibration streams of raw values are read like the recording.
    if (input.raw && (input.format == SampleFormat::U16 || input.format == SampleFormat::S16))
        settings.calibration.rawFormat = input.format;
    if (!reportPath.empty() && reportPath == output.path)
        throw UsageError("the report and the output must be different files");
    checkSrSettings(settings);
    if (!settings.camera.empty() && settings.cameraModel.empty())
        std::cerr << "kroenhance sr: warning: no camera model and field of view found in \""
                  << settings.camera << "\"; the default sensor blur " << settings.psfSigma
                  << " is used\n";

    FrameReader reader(input);
    checkSrInput(reader, settings);
    SrSession session(settings, reader.frameSize());
    const SampleFormat rawFormat = output.formatGiven ? output.format : SampleFormat::F32;
    FrameWriter writer(output.path, rawFormat);
    // Made now so that a report that cannot be written stops the run before
    // the work rather than after it.
    std::unique_ptr<AtomicFile> report;
    if (!reportPath.empty())
        report = std::make_unique<AtomicFile>(reportPath);

    velmor::kro::StopWatch clock;
    clock.start();
    const std::vector<SrFrameRecord> records = reconstructAll(reader, session, writer, !quiet);
    if (records.empty()) {
        std::ostringstream why;
        why << "the input holds " << session.framesAdded() << " frame"
            << (session.framesAdded() == 1 ? "" : "s") << "; a window of " << settings.window
            << " needs at least " << settings.window << " (see --window)";
        throw RunError(why.str());
    }

    long long fallbacks = 0;
    for (const SrFrameRecord& r : records)
        fallbacks += r.fallback() ? 1 : 0;
    const bool noneReconstructed = fallbacks == static_cast<long long>(records.size());

    if (report) {
        SrRunSummary run;
        run.settings = settings;
        run.inputSize = session.frameSize();
        run.inputFrames = session.framesAdded();
        run.outputPath = output.path;
        run.outputSize = session.outputSize();
        run.seconds = clock.stop();
        writeSrReport(report->stream(), run, records);
    }
    // When nothing could be reconstructed the report (it says why for each
    // frame) is kept, the frames are not.
    if (!noneReconstructed)
        writer.commit();
    if (report)
        report->commit();
    if (noneReconstructed)
        throw RunError("no frame could be reconstructed; no output written" +
                       std::string(reportPath.empty() ? " (--report lists every frame)" : ""));
    if (fallbacks > 0)
        std::cerr << "kroenhance sr: warning: " << fallbacks << " of " << records.size() << " output frames are "
                  << (settings.engine == SrEngine::Reference && settings.motion == SrMotion::Global
                          ? "simple combinations"
                          : "bicubic enlargements")
                  << (reportPath.empty() ? "" : " (see " + reportPath + ")") << '\n';
    return kExitOk;
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(sr, "sr", "multi-frame super-resolution of a recording (twice the width and height)",
                   kroenhance::runSr);
