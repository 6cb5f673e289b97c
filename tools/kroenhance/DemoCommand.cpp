// kroenhance demo: super-resolution of a bundled thermal still, with the
// truth known, side by side with plain enlargements.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "BurstGenerator.h"
#include "Cli.h"
#include "Command.h"
#include "DemoImages.h"
#include "DemoPipeline.h"
#include "FrameIO.h"
#include "ImageIO.h"
#include "QualityMetrics.h"
#include "SrSession.h"

namespace kroenhance {
namespace {

namespace fs = std::filesystem;

const char* const kStillName = "crosswalk_640x512_u16.png";
const char* const kStillFolder = "data/thermal";
constexpr int kFactor = 2;
constexpr int kMinTruthSide = 64;  // 32x32 input frames: enough for both registrations
constexpr double kDefaultNoise = 8.0;
constexpr double kMaxShift = 1.0;
constexpr double kLowPercentile = 0.5;
constexpr double kHighPercentile = 99.5;
constexpr int kDetailZoom = 3;
constexpr int kTimingRuns = 3;

const char* const kDemoHelp =
    "Usage: kroenhance demo [options]\n"
    "\n"
    "Shows what super-resolution does on a real thermal image whose truth is\n"
    "known. From the bundled 640x512 16-bit LWIR still (data/thermal/), a burst\n"
    "of 5 frames of half the width and height is synthesised as a camera would\n"
    "record it: known sub-pixel shifts, the sensor's Gaussian blur, read noise,\n"
    "whole counts. The burst is super-resolved by the global-motion engine with\n"
    "both registrations at the C interface's settings and by the local-motion\n"
    "engine (kroenhance sr's default), and compared with the reference frame\n"
    "enlarged by pixel replication and by bicubic interpolation.\n"
    "\n"
    "Written into DIR: truth.png, reference_nearest.png, reference_bicubic.png,\n"
    "sr_corners.png, sr_phase.png and sr_local.png (16-bit), the same as .pfm\n"
    "(float, exact), comparison.png (all side by side with labels, 8-bit by a\n"
    "0.5-99.5 % stretch of the truth, with an enlarged detail below),\n"
    "summary.md (PSNR, SSIM and time per frame, shifts, settings), and the\n"
    "burst itself (burst.json and raw f32 frames) to try kroenhance sr on.\n"
    "Then the camera's enhancement pipeline (noise, pattern, histogram, peaking)\n"
    "runs over the bundled 10-frame recording: pipeline.png shows a frame before\n"
    "and after.\n"
    "\n"
    "Options:\n"
    "  -o DIR          output folder, created if needed (default demo-out)\n"
    "  --crop WxH      use only the centre WxH of the still as the truth (even\n"
    "                  sizes, at least 64x64; default the whole still): faster\n"
    "  --scene FILE    another single-channel image (16-bit PNG, TIFF, PGM, PFM)\n"
    "                  as the truth instead of the bundled still\n"
    "  --noise X       read noise, standard deviation in counts (default 8)\n"
    "  --seed N        seed of the shifts and the noise (default 1)\n"
    "\n"
    "Examples:\n"
    "  kroenhance demo\n"
    "  kroenhance demo -o /tmp/demo --crop 320x256 --noise 4\n";

std::string inQuotes(const std::string& text) { return "\"" + text + "\""; }

// A bundled data file (the still, the recording): next to the executable's
// tree (a build folder inside the source tree, or an install prefix with
// share/krolib), else in the source tree this tool was built from, else
// under the working folder.
std::string findBundledFile(const char* name)
{
    std::vector<fs::path> starts;
    std::error_code error;
    const fs::path exe = fs::read_symlink("/proc/self/exe", error);
    if (!error)
        starts.push_back(exe.parent_path());
    starts.push_back(fs::path(__FILE__).parent_path());
    starts.push_back(fs::current_path(error));
    for (const fs::path& start : starts) {
        for (fs::path dir = start; !dir.empty(); dir = dir.parent_path()) {
            for (const fs::path& candidate :
                 {dir / kStillFolder / name, dir / "share/krolib" / kStillFolder / name}) {
                if (fs::is_regular_file(candidate, error))
                    return candidate.string();
            }
            if (dir == dir.parent_path())
                break;
        }
    }
    throw RunError(std::string("cannot find the bundled file ") + kStillFolder + "/" + name +
                   (std::string(name) == kStillName ? "; give an image with --scene FILE" : ""));
}

cv::Mat_<float> loadScene(const std::string& path)
{
    std::vector<cv::Mat> pages;
    std::error_code error;
    if (!fs::is_regular_file(path, error))
        throw RunError("cannot open the scene " + inQuotes(path) + ": no such file");
    try {
        std::string ext = fs::path(path).extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
        if (ext == ".pfm")
            pages = velmor::kro::ImageIO::load(path);
        else
            pages.push_back(cv::imread(path, cv::IMREAD_UNCHANGED));
    } catch (const std::exception& e) {
        throw RunError("cannot read the scene " + inQuotes(path) + ": " + e.what());
    }
    if (pages.empty() || pages[0].empty())
        throw RunError("cannot read the scene " + inQuotes(path) + " (not an image, or damaged)");
    if (pages[0].channels() != 1)
        throw RunError("the scene " + inQuotes(path) + " has " + std::to_string(pages[0].channels()) +
                       " channels; the demo needs a single-channel (thermal) image");
    cv::Mat_<float> scene;
    pages[0].convertTo(scene, CV_32F);
    if (!cv::checkRange(scene))
        throw RunError("the scene " + inQuotes(path) + " holds NaN or infinite values");
    return scene;
}

// Files are written into a hidden staging folder inside DIR and moved into
// place only when everything succeeded; a failed run leaves DIR as it was
// (and removes DIR when the run created it).
class Staging {
public:
    explicit Staging(const std::string& directory) : dir_(directory)
    {
        std::error_code error;
        if (fs::exists(dir_, error) && !fs::is_directory(dir_, error))
            throw RunError("the output " + inQuotes(directory) + " exists and is not a folder");
        created_ = fs::create_directories(dir_, error);
        if (error)
            throw RunError("cannot create the folder " + inQuotes(directory) + ": " + error.message());
        stage_ = dir_ / (".kroenhance-demo-" + std::to_string(::getpid()));
        fs::remove_all(stage_, error);
        fs::create_directory(stage_, error);
        if (error)
            throw RunError("cannot write into " + inQuotes(directory) + ": " + error.message());
    }

    ~Staging()
    {
        std::error_code ignored;
        fs::remove_all(stage_, ignored);
        if (!committed_ && created_ && fs::is_empty(dir_, ignored))
            fs::remove(dir_, ignored);
    }

    // The staging folder, for writers that name their files themselves
    // (each file must then be announced with file()).
    std::string folder() const { return stage_.string(); }

    std::string file(const std::string& name)
    {
        names_.push_back(name);
        return (stage_ / name).string();
    }

    void commit()
    {
        for (const std::string& name : names_) {
            std::error_code error;
            fs::rename(stage_ / name, dir_ / name, error);
            if (error)
                throw RunError("cannot move " + name + " into " + inQuotes(dir_.string()) + ": " + error.message());
        }
        committed_ = true;
    }

private:
    fs::path dir_;
    fs::path stage_;
    std::vector<std::string> names_;
    bool created_ = false;
    bool committed_ = false;
};

void writePng16(const std::string& path, const cv::Mat_<float>& image)
{
    cv::Mat samples;
    image.convertTo(samples, CV_16U);  // rounded and saturated
    if (!cv::imwrite(path, samples))
        throw RunError("cannot write " + inQuotes(path));
}

void writePng8(const std::string& path, const cv::Mat& image)
{
    if (!cv::imwrite(path, image))
        throw RunError("cannot write " + inQuotes(path));
}

void writePfm(const std::string& path, const cv::Mat_<float>& image)
{
    if (!velmor::kro::ImageIO::save(path, image))
        throw RunError("cannot write " + inQuotes(path));
}

struct Method {
    std::string file;      // base name of the 16-bit PNG
    std::string title;     // label in the comparison
    std::string longName;  // row of summary.md
    cv::Mat_<float> image;
    krotools::Quality quality;
    bool timed = false;
    SrFrameRecord record;  // super-resolution only
};

std::string fixed(double value, int digits)
{
    std::ostringstream text;
    text << std::fixed << std::setprecision(digits) << value;
    return text.str();
}

std::string shiftText(float x, float y)
{
    return "(" + fixed(x, 3) + ", " + fixed(y, 3) + ")";
}

// Super-resolution method k of the demo (0, 1: the global-motion engine
// with corner and phase registration; 2: the local-motion engine) on the
// burst, reconstructed kTimingRuns times by fresh engines; the median time is
// reported (one run on a busy machine says little).
Method reconstructBurst(const krotools::Burst& burst, int k, double psfSigma)
{
    const cv::Size lowSize = burst.frames[0].size();
    Method m;
    SrSettings settings;
    settings.motion = k < 2 ? SrMotion::Global : SrMotion::Local;
    settings.engine = k == 0 ? SrEngine::Corners : SrEngine::Phase;
    // Every engine is told the blur the burst was made with.
    settings.psfSigma = psfSigma;
    settings.psfSigmaGiven = true;
    const std::string name = k < 2 ? srEngineName(settings.engine) : "local";
    m.file = "sr_" + name;
    m.title = "SR " + name;
    m.longName = k < 2 ? "Super-resolution, global motion, " + name + " registration"
                       : std::string("Super-resolution, local motion");
    m.timed = true;
    // The burst is reconstructed a few times by fresh engines and the
    // median time is reported: one run on a busy machine says little.
    std::vector<SrFrameRecord> runs;
    for (int run = 0; run < kTimingRuns; ++run) {
        SrSession session(settings, lowSize);
        bool produced = false;
        cv::Mat_<float> image;
        SrFrameRecord record;
        for (const cv::Mat_<float>& frame : burst.frames)
            produced = session.addFrame(frame, image, record);
        if (!produced)
            throw RunError("the engine produced no frame from the burst");
        if (run == 0)
            m.image = image;
        else if (cv::norm(image, m.image, cv::NORM_INF) != 0.0)
            throw RunError("the " + name + " reconstruction of the same burst differs between runs");
        runs.push_back(record);
    }
    std::nth_element(runs.begin(), runs.begin() + kTimingRuns / 2, runs.end(),
                     [](const SrFrameRecord& a, const SrFrameRecord& b) { return a.totalMs < b.totalMs; });
    m.record = runs[kTimingRuns / 2];
    if (m.record.fallback())
        std::cerr << "kroenhance demo: warning: the " << name << " reconstruction failed (" << m.record.message
                  << "); its figures are those of the bicubic enlargement\n";
    return m;
}

// What went into the demo and what came out, for summary.md and the console.
struct DemoRun {
    std::string source;
    bool bundled = true;
    cv::Size sceneSize;
    cv::Rect crop;
    krotools::Burst burst;
    krotools::BurstSettings burstSettings;
    double noise = 0.0;
    std::vector<Method> methods;
    int border = 0;
    double truthMin = 0.0, truthMax = 0.0;
    std::string framesName, truthName;
};

std::string summaryMarkdown(const DemoRun& r)
{
    const cv::Mat_<float>& truth = r.burst.truth;
    const krotools::Burst& burst = r.burst;
    const krotools::BurstSettings& burstSettings = r.burstSettings;
    const std::vector<Method>& methods = r.methods;
    const cv::Size lowSize = burst.frames[0].size();
    const SrSettings defaults;
    const std::string sceneName = fs::path(r.source).filename().string();
    std::ostringstream md;
    md << "# kroenhance demo\n\n"
       << "Truth: `" << sceneName << "`" << (r.bundled ? " (bundled LWIR still, see data/thermal/README.md)" : "")
       << ", " << truth.cols << "x" << truth.rows;
    if (r.crop.size() != r.sceneSize)
        md << " at (" << r.crop.x << ", " << r.crop.y << ") of the " << r.sceneSize.width << "x" << r.sceneSize.height << " image";
    md << ", values " << fixed(r.truthMin, 0) << " to " << fixed(r.truthMax, 0) << ".\n\n"
       << "Input: " << burst.frames.size() << " frames of " << lowSize.width << "x" << lowSize.height
       << " made from it as a camera would record them: shifted by known sub-pixel amounts (up to "
       << kMaxShift << " input pixel per axis), blurred by a Gaussian of sigma " << burstSettings.psfSigma
       << " input pixels, averaged over 2x2 blocks, read noise of " << r.noise
       << " counts, rounded to whole counts. Frame " << burstSettings.referencePosition
       << " is the reference (no shift), as the engine takes it (reference index " << defaults.referenceIndex
       << ").\n\n"
       << "Super-resolution, global motion: the C interface's settings: window " << defaults.window
       << ", reference index " << defaults.referenceIndex << ", TV weight " << defaults.tvWeight
       << ", registration error " << defaults.regError << ", relative residue " << defaults.relResidue
       << ", iterations " << defaults.iterations << ", PSF sigma " << burstSettings.psfSigma
       << ". Local motion (kroenhance sr's default): window " << defaults.window << ", reference index "
       << defaults.referenceIndex << ", optics blur (--psf-sigma) " << burstSettings.psfSigma << ".\n\n"
       << "| Method | PSNR (dB) | SSIM | Time per frame (ms) | Offset removed (px) |\n"
       << "|---|---:|---:|---:|---:|\n";
    for (const Method& m : methods) {
        md << "| " << m.longName << " | " << fixed(m.quality.psnr, 2) << " | " << fixed(m.quality.ssim, 4) << " | "
           << (m.timed ? fixed(m.record.totalMs, 1) : std::string("-")) << " | "
           << shiftText(static_cast<float>(m.quality.offset.x), static_cast<float>(m.quality.offset.y)) << " |\n";
    }
    md << "\nPSNR and SSIM against the truth over the image minus a border of " << r.border
       << " pixels, peak = the truth's range; each image is first moved onto the truth's sampling grid by "
          "the sub-pixel offset listed (a convention of each method, not an error). Time per frame: adding "
          "the newest frame and reconstructing, the median of "
       << kTimingRuns << " runs on this machine (" << std::thread::hardware_concurrency() << " cores";
    for (int k = 2; k < 5; ++k)
        md << "; " << methods[k].title << ": registration " << fixed(methods[k].record.registrationMs, 1)
           << " ms, minimisation " << fixed(methods[k].record.minimizationMs, 1) << " ms";
    md << ").\n";
    for (int k = 2; k < 5; ++k)
        if (methods[k].record.fallback())
            md << "\n**" << methods[k].title << " failed** (" << methods[k].record.message
               << "); its row shows the bicubic enlargement that replaces it.\n";

    md << "\n## Shifts\n\n"
       << "Content shift of each frame against the reference (input pixels, x right, y down), as made and as "
          "each registration measured it.\n\n"
       << "| Frame | Made | corners | phase | local (median) |\n|---:|---|---|---|---|\n";
    for (std::size_t i = 0; i < burst.shifts.size(); ++i) {
        md << "| " << i << " | " << shiftText(burst.shifts[i].x, burst.shifts[i].y);
        for (int k = 2; k < 5; ++k) {
            const std::vector<SrWindowFrame>& w = methods[k].record.window;
            md << " | "
               << (i < w.size() && w[i].registered ? shiftText(w[i].shiftX, w[i].shiftY) : std::string("-"));
        }
        md << " |\n";
    }
    md << "\n## Files\n\n"
       << "- `comparison.png`: all images side by side, 8-bit through one stretch of the truth's "
       << kLowPercentile << "-" << kHighPercentile << " % range; below, the strongest-detail region enlarged "
       << kDetailZoom << " times (outlined on the truth)\n"
       << "- `truth.png`, `reference_nearest.png`, `reference_bicubic.png`, `sr_corners.png`, `sr_phase.png`, `sr_local.png`: "
          "16-bit, in the input's counts\n"
       << "- `sr_corners.pfm`, `sr_phase.pfm`, `sr_local.pfm`: the reconstructions as floats, exact\n"
       << "- `burst.json`, `" << r.framesName << "`, `" << r.truthName
       << "`: the input frames and the truth as raw f32, with the shifts\n"
       << "\nTo run the same reconstruction from the command line:\n\n"
       << "    kroenhance sr --size " << lowSize.width << "x" << lowSize.height << " --format f32 "
       << r.framesName << " -o sr.raw --report sr.json\n";

    return md.str();
}

// What the user sees on the console.
void printResults(const DemoRun& r, const std::string& outDir)
{
    const cv::Mat_<float>& truth = r.burst.truth;
    const krotools::Burst& burst = r.burst;
    const std::vector<Method>& methods = r.methods;
    const cv::Size lowSize = burst.frames[0].size();
    const double noise = r.noise;
    std::cout << "kroenhance demo: " << truth.cols << "x" << truth.rows << " thermal image super-resolved from "
              << burst.frames.size() << " frames of " << lowSize.width << "x" << lowSize.height
              << " (known shifts, blur, noise " << noise << " counts)\n\n"
              << "  method                         PSNR      SSIM   ms/frame\n";
    for (const Method& m : methods) {
        std::cout << "  " << std::left << std::setw(29) << m.title << std::right << std::setw(6)
                  << fixed(m.quality.psnr, 2) << " dB   " << fixed(m.quality.ssim, 4);
        if (m.timed)
            std::cout << std::setw(10) << fixed(m.record.totalMs, 1);
        if (m.record.fallback())
            std::cout << "  (failed: bicubic shown)";
        std::cout << '\n';
    }
    const std::string shown = (fs::path(outDir) / "").string();
    std::cout << "\nFiles in " << shown << ":\n"
              << "  comparison.png  all of them side by side (detail enlarged below)\n"
              << "  summary.md      these figures, the shifts, the settings\n"
              << "  truth.png reference_nearest.png reference_bicubic.png sr_corners.png sr_phase.png\n"
              << "  sr_local.png (16-bit), sr_*.pfm (float), burst.json + " << r.framesName << " (the input)\n";
}

// The demo's command line, the scene and the truth's place in it.
struct DemoRequest {
    std::string outDir;
    std::string scenePath;  // empty: the bundled still
    std::string source;     // the scene actually read
    double noise = 0.0;
    long long seed = 1;
    cv::Mat_<float> scene;
    cv::Rect crop;
};

DemoRequest parseDemoRequest(Cli& cli)
{
    DemoRequest q;
    q.outDir = cli.stringOption("-o", "demo-out");
    if (q.outDir.empty())
        throw UsageError("option -o needs a folder name");
    int cropWidth = 0, cropHeight = 0;
    cli.sizeOption("--crop", cropWidth, cropHeight);
    q.scenePath = cli.stringOption("--scene", "");
    q.noise = cli.doubleOption("--noise", kDefaultNoise, 0.0, 1e6);
    q.seed = cli.intOption("--seed", 1, 0, static_cast<long long>(1) << 53);
    const std::vector<std::string> extra = cli.positionals(0);
    if (!extra.empty())
        throw UsageError("demo takes no input files (see --scene), got " + inQuotes(extra[0]));
    if (cropWidth > 0 && (cropWidth < kMinTruthSide || cropHeight < kMinTruthSide))
        throw UsageError("option --crop: the truth must be at least " + std::to_string(kMinTruthSide) + "x" +
                         std::to_string(kMinTruthSide) + " pixels");

    q.source = q.scenePath.empty() ? findBundledFile(kStillName) : q.scenePath;
    q.scene = loadScene(q.source);
    const cv::Mat_<float>& scene = q.scene;
    cv::Size truthSize = cropWidth > 0 ? cv::Size(cropWidth, cropHeight) : scene.size();
    if (truthSize.width > scene.cols || truthSize.height > scene.rows)
        throw UsageError("option --crop: " + std::to_string(truthSize.width) + "x" +
                         std::to_string(truthSize.height) + " is larger than the " + std::to_string(scene.cols) +
                         "x" + std::to_string(scene.rows) + " scene");
    truthSize.width -= truthSize.width % kFactor;
    truthSize.height -= truthSize.height % kFactor;
    if (truthSize.width < kMinTruthSide || truthSize.height < kMinTruthSide)
        throw RunError("the scene " + inQuotes(q.source) + " is smaller than " + std::to_string(kMinTruthSide) +
                       "x" + std::to_string(kMinTruthSide) + " pixels");
    q.crop = cv::Rect((scene.cols - truthSize.width) / 2 / kFactor * kFactor,
                        (scene.rows - truthSize.height) / 2 / kFactor * kFactor, truthSize.width, truthSize.height);

    return q;
}

// Scores every method against the truth and writes the images, the
// comparison and the burst into the staging folder (filling the run's
// border, truth range, qualities and file names).
void writeImages(Staging& staging, DemoRun& run)
{
    const cv::Mat_<float>& truth = run.burst.truth;
    const krotools::Burst& burst = run.burst;
    const cv::Size lowSize = burst.frames[0].size();
    std::vector<Method>& methods = run.methods;
    const int border = run.border = std::max(4, std::min(16, std::min(truth.cols, truth.rows) / 16));
    double& truthMin = run.truthMin;
    double& truthMax = run.truthMax;
    cv::minMaxLoc(truth, &truthMin, &truthMax);
    for (Method& m : methods)
        m.quality = krotools::measureQuality(truth, m.image, border);

    // Images.
    writePng16(staging.file("truth.png"), truth);
    for (const Method& m : methods) {
        writePng16(staging.file(m.file + ".png"), m.image);
        if (m.timed)
            writePfm(staging.file(m.file + ".pfm"), m.image);
    }
    std::vector<ComparisonPanel> panels;
    panels.push_back({"ground truth", fixed(truthMin, 0) + " .. " + fixed(truthMax, 0) + " counts", truth});
    for (const Method& m : methods)
        panels.push_back({m.title, "PSNR " + fixed(m.quality.psnr, 2) + " dB  SSIM " + fixed(m.quality.ssim, 4),
                          m.image});
    const DisplayRange range = percentileRange(truth, kLowPercentile, kHighPercentile);
    // The detail is chosen away from the frame's edges, which no method
    // reconstructs well and the figures leave out too.
    const cv::Rect inner(border, border, truth.cols - 2 * border, truth.rows - 2 * border);
    const cv::Rect detail = detailRegion(truth(inner), cv::Size(truth.cols / kDetailZoom, truth.rows / kDetailZoom)) +
                            inner.tl();
    writePng8(staging.file("comparison.png"), comparisonImage(panels, range, detail, kDetailZoom));
    krotools::writeBurst(burst, staging.folder(), "burst");
    std::ostringstream framesName;
    framesName << "burst_frames_" << lowSize.width << "x" << lowSize.height << "x" << burst.frames.size()
               << "_f32.raw";
    const std::string truthName = run.truthName =
        "burst_truth_" + std::to_string(truth.cols) + "x" + std::to_string(truth.rows) + "_f32.raw";
    staging.file("burst.json");
    staging.file(framesName.str());
    staging.file(truthName);

    run.framesName = framesName.str();
}

int runDemo(const std::vector<std::string>& args)
{
    Cli cli(args);
    if (cli.helpRequested()) {
        std::cout << kDemoHelp;
        return kExitOk;
    }
    const DemoRequest request = parseDemoRequest(cli);
    const std::string& outDir = request.outDir;
    const std::string& scenePath = request.scenePath;
    const std::string& source = request.source;
    const double noise = request.noise;
    const long long seed = request.seed;
    const cv::Mat_<float>& scene = request.scene;
    const cv::Rect crop = request.crop;

    Staging staging(outDir);

    // The burst, with the reference frame where the engine takes it.
    const SrSettings defaults;
    krotools::BurstSettings burstSettings;
    burstSettings.frames = defaults.window;
    burstSettings.factor = kFactor;
    burstSettings.psfSigma = defaults.psfSigma;
    burstSettings.noise = noise;
    burstSettings.maxShift = kMaxShift;
    burstSettings.referencePosition = std::max(0, defaults.window - defaults.referenceIndex - 1);
    burstSettings.bitDepth = 16;
    burstSettings.seed = static_cast<std::uint64_t>(seed);
    const krotools::Burst burst = krotools::generateBurst(scene(crop).clone(), burstSettings);
    const cv::Mat_<float>& truth = burst.truth;
    const cv::Mat_<float>& reference = burst.frames[burstSettings.referencePosition];

    std::vector<Method> methods(5);
    methods[0].file = "reference_nearest";
    methods[0].title = "reference, pixel replication";
    methods[0].longName = "Reference frame, pixel replication";
    cv::resize(reference, methods[0].image, truth.size(), 0.0, 0.0, cv::INTER_NEAREST);
    methods[1].file = "reference_bicubic";
    methods[1].title = "reference, bicubic";
    methods[1].longName = "Reference frame, bicubic";
    cv::resize(reference, methods[1].image, truth.size(), 0.0, 0.0, cv::INTER_CUBIC);
    for (int k = 0; k < 3; ++k)
        methods[2 + k] = reconstructBurst(burst, k, burstSettings.psfSigma);

    DemoRun run;
    run.source = source;
    run.bundled = scenePath.empty();
    run.sceneSize = scene.size();
    run.crop = crop;
    run.burst = burst;
    run.burstSettings = burstSettings;
    run.noise = noise;
    run.methods = methods;
    writeImages(staging, run);
    const PipelineDemo pipeline = runPipelineDemo(findBundledFile(kDemoRecordingName));
    writePng8(staging.file("pipeline.png"), pipeline.comparison);
    const std::string summary = summaryMarkdown(run) + pipelineSummaryMarkdown(pipeline);
    {
        std::FILE* file = std::fopen(staging.file("summary.md").c_str(), "wb");
        const std::string& text = summary;
        const bool ok = file && std::fwrite(text.data(), 1, text.size(), file) == text.size();
        if (file && std::fclose(file) != 0)
            throw RunError("cannot write summary.md into " + inQuotes(outDir));
        if (!ok)
            throw RunError("cannot write summary.md into " + inQuotes(outDir));
    }
    staging.commit();

    printResults(run, outDir);
    std::cout << pipelineConsoleText(pipeline);
    return kExitOk;
}

} // namespace
} // namespace kroenhance

KROENHANCE_COMMAND(demo, "demo", "super-resolution of a bundled thermal still, compared with the truth",
                   kroenhance::runDemo);
