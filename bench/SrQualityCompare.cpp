// Quality and speed of the float super-resolution engine next to the
// alternatives a user would otherwise take, measured in one run on the same
// frames:
//   - SrFloat with both registrations, with the C interface's settings
//     (window 5, reference index 3, TV weight 400, registration error 0.0001,
//     relative residue 0.007, PSF sigma 0.683, at most 8 CG iterations), and
//     SrFloat with corner registration and a tuned setting (see kTuned);
//   - bicubic interpolation of the reference frame;
//   - OpenCV's multi-frame super-resolution BTV-L1 (superres module, scale 2,
//     its defaults otherwise), fed the same five frames through a frame
//     source. It works on 8-bit frames: the five frames' range [min, max] is
//     mapped linearly to [0, 255] and its output mapped back.
//
// Data: bursts from the project's generator (sensor blur of 0.683
// low-resolution pixels, x2 decimation, read noise, 14-bit counts) made from
// procedural thermal-like scenes (several seeds) and from the bundled real
// still, at noise 8 and 32 counts. Figures: PSNR and SSIM against the truth
// over the image minus a 16-pixel border, after aligning each output to the
// truth's sampling grid (QualityMetrics' measureQuality); milliseconds per
// output frame, the first output of a fresh engine and the steady state (a
// sliding window, one new frame per output) reported apart.
//
// On the first noise-8 burst of each size and source the program also runs
// a diagnosis of the engine's defaults: registration error against the known
// shifts, the gain when the solve is run to convergence, when the PSF matches
// the burst's blur, on a burst blurred as the engine's default PSF models,
// and the gain of the truth blurred by the sensor alone (what a perfect
// de-aliasing without deblurring would reach).
//
// Writes <out>/sr_quality.json (every measurement, the diagnosis, the
// summary behind the chart) and <out>/sr_quality.png (PSNR against
// milliseconds per frame).
//
//   SrQualityCompare [--out DIR] [--threads N] [--quick] [--no-btv] [--tune]
//
// --quick: 160x120 only, one seed (a smoke run); --no-btv: leave BTV-L1 out;
// --tune: run the search that chose the tuned setting and print its table.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/superres.hpp>

#include "BurstGenerator.h"
#include "KroLibVersion.h"
#include "QualityMetrics.h"
#include "SrFloat.h"
#include "SrQualityChart.h"
#include "SrQualityRuns.h"

namespace {

using namespace srquality;
// ---------------------------------------------------------------------------
// Data sets

struct Dataset {
    std::string source;  // "procedural" or "real still"
    std::string how;     // how the truth was made
    cv::Size low;
    double noise = 0.0;
    std::uint64_t seed = 0;
    krotools::Burst burst;  // kWindow + kSteadyFrames frames; the first kWindow give the quality
    bool runBtv = false;
};

krotools::Burst makeBurst(const cv::Mat_<float>& scene, double noise, std::uint64_t seed,
                          double sigma = kSensorSigma)
{
    krotools::BurstSettings settings;
    settings.frames = kWindow + kSteadyFrames;
    settings.psfSigma = sigma;
    settings.noise = noise;
    settings.seed = seed;
    settings.referencePosition = kReferencePosition;
    return krotools::generateBurst(scene, settings);
}

cv::Mat_<float> bundledStill()
{
    const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png";
    const cv::Mat raw = cv::imread(path, cv::IMREAD_UNCHANGED);
    if (raw.empty() || raw.channels() != 1)
        throw std::runtime_error("cannot read the 16-bit still " + path);
    cv::Mat_<float> still;
    raw.convertTo(still, CV_32F);
    return still;
}


// ---------------------------------------------------------------------------
// Results

struct Row {
    std::string method;
    std::string source;
    cv::Size low;
    double noise = 0.0;
    std::uint64_t seed = 0;
    double psnr = NAN;
    double ssim = NAN;
    cv::Point2d offset;
    double firstMs = NAN;
    double steadyMs = NAN;
    std::string note;
};

// The engine's defaults taken apart on one noise-8 burst (corner
// registration). Gains are PSNR differences to bicubic on the same burst.
struct Diagnosis {
    std::string source;
    cv::Size low;
    std::uint64_t seed = 0;
    double registrationError = NAN;  // mean |estimated - true shift| over the four moved frames, px
    double gainDefaults = NAN;
    double gainConverged = NAN;    // maxCGIters 100, relative residue 0.0001
    double gainMatchedPsf = NAN;   // PSF sigma 1.366 (the burst's blur in output pixels)
    double gainBoth = NAN;         // both of the above
    double gainModelBurst = NAN;   // defaults on a burst blurred by 0.3415 low-res px
    double gainSensorBlurOnly = NAN;  // the truth blurred by the sensor, no sampling, no noise
};

std::string jsonNumber(double v, int digits = 4)
{
    if (!std::isfinite(v))
        return "null";
    std::ostringstream s;
    s << std::fixed << std::setprecision(digits) << v;
    return s.str();
}

std::string jsonString(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

struct Options {
    std::string out = std::string(KROLIB_SOURCE_DIR) + "/bench/results";
    int threads = 2;
    bool quick = false;
    bool btv = true;
    bool tune = false;
};

Options parse(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--out" && i + 1 < argc)
            o.out = argv[++i];
        else if (a == "--threads" && i + 1 < argc)
            o.threads = std::max(1, std::atoi(argv[++i]));
        else if (a == "--quick")
            o.quick = true;
        else if (a == "--no-btv")
            o.btv = false;
        else if (a == "--tune")
            o.tune = true;
        else
            throw std::invalid_argument("usage: SrQualityCompare [--out DIR] [--threads N] [--quick] [--no-btv]"
                                        " [--tune] (unknown argument '" + a + "')");
    }
    return o;
}

// The search that chose the tuned setting, on bursts of its own (procedural
// scenes and bursts with seeds 101 to 103, which the comparison never uses):
// prints the mean PSNR gain over bicubic of every setting of a small grid.
void tune()
{
    struct Candidate {
        EngineSettings settings;
        double gain = 0.0;
        double ms = 0.0;
        int n = 0;
    };
    std::vector<Candidate> candidates;
    for (float psf : {0.683f, 1.0f, 1.366f, 2.0f, 3.0f})
        for (float tv : {400.0f, 800.0f, 1600.0f, 3200.0f})
            for (const std::pair<int, float>& stop : {std::make_pair(8, 0.007f), std::make_pair(30, 0.001f)}) {
                Candidate c;
                c.settings.psfSigma = psf;
                c.settings.weightTV = tv;
                c.settings.maxCGIters = stop.first;
                c.settings.relativeResidue = stop.second;
                candidates.push_back(c);
            }
    for (const cv::Size low : {cv::Size(160, 120), cv::Size(320, 240)})
        for (double noise : {8.0, 32.0})
            for (std::uint64_t seed = 101; seed <= 103; ++seed) {
                const krotools::Burst burst =
                    makeBurst(krotools::proceduralScene(2 * low.height, 2 * low.width, seed), noise, seed);
                const double bicubic = bicubicPsnr(burst);
                for (Candidate& c : candidates) {
                    const Output o = runEngine(c.settings, burst, false);
                    c.gain += krotools::measureQuality(burst.truth, o.image, kBorder).psnr - bicubic;
                    c.ms += o.firstMs;
                    ++c.n;
                }
            }
    std::sort(candidates.begin(), candidates.end(),
              [](const Candidate& a, const Candidate& b) { return a.gain > b.gain; });
    std::cout << "mean gain over bicubic (dB), mean ms per output, setting\n";
    for (const Candidate& c : candidates)
        std::cout << std::fixed << std::setprecision(3) << c.gain / c.n << "  " << std::setprecision(1)
                  << c.ms / c.n << " ms  psf " << std::setprecision(3) << c.settings.psfSigma << " tv "
                  << std::setprecision(0) << c.settings.weightTV << " maxCGIters " << c.settings.maxCGIters
                  << " relRes " << std::setprecision(4) << c.settings.relativeResidue << "\n";
}

Diagnosis diagnose(const Dataset& d, const EngineSettings& defaults, double gainDefaults,
                   const std::vector<PointF>& shifts)
{
    Diagnosis g;
    g.source = d.source;
    g.low = d.low;
    g.seed = d.seed;
    g.gainDefaults = gainDefaults;
    double error = 0.0;
    int moved = 0;
    for (int i = 0; i < kWindow && i < static_cast<int>(shifts.size()); ++i)
        if (i != kReferencePosition) {
            error += std::hypot(shifts[i].x - d.burst.shifts[i].x, shifts[i].y - d.burst.shifts[i].y);
            ++moved;
        }
    g.registrationError = moved ? error / moved : NAN;

    const double bicubic = bicubicPsnr(d.burst);
    auto gain = [&](const EngineSettings& s, const krotools::Burst& burst, double reference) {
        return krotools::measureQuality(burst.truth, runEngine(s, burst, false).image, kBorder).psnr - reference;
    };
    EngineSettings converged = defaults;
    converged.maxCGIters = 100;
    converged.relativeResidue = 0.0001f;
    g.gainConverged = gain(converged, d.burst, bicubic);
    EngineSettings matched = defaults;
    matched.psfSigma = static_cast<float>(2.0 * kSensorSigma);
    g.gainMatchedPsf = gain(matched, d.burst, bicubic);
    matched.maxCGIters = converged.maxCGIters;
    matched.relativeResidue = converged.relativeResidue;
    g.gainBoth = gain(matched, d.burst, bicubic);

    // The engine's default PSF is a Gaussian of 0.683 output pixels (0.3415
    // low-resolution pixels) integrated over output pixels; a burst blurred
    // that much is one its model fits.
    const krotools::Burst modelBurst = makeBurst(d.burst.truth, d.noise, d.seed, kSensorSigma / 2.0);
    g.gainModelBurst = gain(defaults, modelBurst, bicubicPsnr(modelBurst));

    cv::Mat_<float> blurred;
    const double sigma = 2.0 * kSensorSigma;
    cv::GaussianBlur(d.burst.truth, blurred, cv::Size(0, 0), sigma, sigma, cv::BORDER_REFLECT_101);
    g.gainSensorBlurOnly = krotools::measureQuality(d.burst.truth, blurred, kBorder).psnr - bicubic;
    return g;
}

// ---------------------------------------------------------------------------
// The measurement

const std::vector<double> kNoises = {8.0, 32.0};
const char* const kBicubicName = "bicubic (reference frame)";
const char* const kBtvName = "BTV-L1 (OpenCV superres, 8-bit)";

std::vector<cv::Size> lowSizes(const Options& options)
{
    return options.quick ? std::vector<cv::Size>{{160, 120}}
                         : std::vector<cv::Size>{{160, 120}, {320, 240}, {640, 512}};
}

// BTV-L1 takes seconds per output (tens at 640x512, and its first call
// reconstructs five outputs): it runs on every procedural seed at noise 8
// and on the first seed otherwise at 160x120, on the first seed at noise 8
// at 320x240 and 640x512, so that the whole benchmark stays within its
// time budget.
bool btvRuns(const Options& options, cv::Size low, double noise, int seed, bool procedural)
{
    if (!options.btv)
        return false;
    if (low.width <= 160)
        return seed == 1 || (procedural && noise == kNoises.front());
    return seed == 1 && noise == kNoises.front() && (procedural || low.width <= 320);
}

Dataset makeDataset(const std::string& source, const std::string& how, cv::Size low, double noise, int seed,
                    const cv::Mat_<float>& truth, bool runBtv)
{
    Dataset d;
    d.source = source;
    d.how = how;
    d.low = low;
    d.noise = noise;
    d.seed = static_cast<std::uint64_t>(seed);
    d.burst = makeBurst(truth, noise, d.seed);
    d.runBtv = runBtv;
    return d;
}

std::vector<Dataset> makeDatasets(const Options& options, const std::vector<cv::Size>& sizes)
{
    std::vector<Dataset> datasets;
    for (const cv::Size& low : sizes) {
        const int seeds = options.quick ? 1 : (low.width >= 640 ? 2 : 3);
        for (double noise : kNoises)
            for (int seed = 1; seed <= seeds; ++seed)
                datasets.push_back(makeDataset(
                    "procedural", "procedural scene " + sizeText(low * 2) + ", seed " + std::to_string(seed), low,
                    noise, seed, krotools::proceduralScene(2 * low.height, 2 * low.width, seed),
                    btvRuns(options, low, noise, seed, true)));
    }
    // The real still is 640x512: its central 640x480 is the truth for
    // 320x240 frames and, reduced by 2 (pixel-area averaging), for 160x120
    // frames. 640x512 frames would need a 1280x1024 truth, which the still
    // cannot give.
    const cv::Mat_<float> still = bundledStill();
    const cv::Mat_<float> still640x480 = still(cv::Rect(0, (still.rows - 480) / 2, 640, 480)).clone();
    for (const cv::Size& low : sizes) {
        if (low.width > 320)
            continue;
        cv::Mat_<float> truth = still640x480;
        std::string how = "real still, central 640x480";
        if (low.width == 160) {
            cv::resize(still640x480, truth, cv::Size(320, 240), 0, 0, cv::INTER_AREA);
            how += " reduced to 320x240 (pixel area)";
        }
        const int seeds = options.quick ? 1 : 3;
        for (double noise : kNoises)
            for (int seed = 1; seed <= seeds; ++seed)
                datasets.push_back(makeDataset("real still", how + ", burst seed " + std::to_string(seed), low,
                                               noise, seed, truth, btvRuns(options, low, noise, seed, false)));
    }
    return datasets;
}

std::vector<EngineSettings> engineMethods()
{
    std::vector<EngineSettings> engines;
    EngineSettings reg2;
    reg2.name = "SrFloat corners (C defaults)";
    engines.push_back(reg2);
    EngineSettings reg1 = reg2;
    reg1.name = "SrFloat phase (C defaults)";
    reg1.corners = false;
    engines.push_back(reg1);
    engines.push_back(tunedSettings());
    return engines;
}

// One result, measured against the burst's truth and printed as it comes.
Row makeRow(const std::string& method, const Dataset& d, const cv::Mat_<float>& image, double firstMs,
            double steadyMs, const std::string& note)
{
    Row r;
    r.method = method;
    r.source = d.source;
    r.low = d.low;
    r.noise = d.noise;
    r.seed = d.seed;
    const krotools::Quality q = krotools::measureQuality(d.burst.truth, image, kBorder);
    r.psnr = q.psnr;
    r.ssim = q.ssim;
    r.offset = q.offset;
    r.firstMs = firstMs;
    r.steadyMs = steadyMs;
    r.note = note;
    std::ostringstream line;
    line << std::left << std::setw(32) << method << std::setw(11) << d.source << " " << std::setw(8)
         << sizeText(d.low) << " noise " << std::setw(3) << d.noise << " seed " << d.seed << std::right << std::fixed
         << std::setprecision(2) << "  PSNR " << std::setw(6) << r.psnr << " dB  SSIM " << std::setprecision(4)
         << r.ssim << std::setprecision(1) << "  first " << std::setw(8) << firstMs << " ms  steady " << std::setw(8)
         << steadyMs << " ms  offset (" << std::setprecision(2) << q.offset.x << ", " << q.offset.y << ")"
         << (note.empty() ? "" : "  " + note);
    std::cout << line.str() << std::endl;
    return r;
}

struct Measured {
    std::vector<Row> rows;
    std::vector<Diagnosis> diagnoses;
    double totalSeconds = 0.0;
};

// BTV-L1's steady state: one longer sequence per size (procedural, noise 8,
// seed 1), timed after its first call, given to every BTV-L1 row of that size.
void addBtvSteadyState(const std::vector<cv::Size>& sizes, const std::vector<Dataset>& datasets,
                       std::vector<Row>& rows)
{
    std::map<std::string, double> btvSteady;
    for (const cv::Size& low : sizes)
        for (const Dataset& d : datasets)
            if (d.low == low && d.source == "procedural" && d.noise == kNoises.front() && d.seed == 1) {
                const int later = low.width >= 640 ? 1 : 2;
                const int count = std::min(static_cast<int>(d.burst.frames.size()), 2 * kBtvRadius + 1 + later);
                const BtvRun run = runBtv(d.burst, count, 1 + later);
                btvSteady[sizeText(low)] = median(run.laterMs);
                std::cout << "BTV-L1 steady state " << sizeText(low) << ": first call " << run.firstMs
                          << " ms, then " << median(run.laterMs) << " ms per output" << std::endl;
            }
    for (Row& r : rows)
        if (r.method == kBtvName && btvSteady.count(sizeText(r.low)))
            r.steadyMs = btvSteady[sizeText(r.low)];
}

Measured measureAll(const Options& options, const std::vector<cv::Size>& sizes,
                    const std::vector<Dataset>& datasets, const std::vector<EngineSettings>& engines)
{
    Measured m;
    const Clock::time_point allStart = Clock::now();
    for (const Dataset& d : datasets) {
        std::cout << "-- " << sizeText(d.low) << ", " << d.how << ", noise " << d.noise << " ("
                  << static_cast<int>(msSince(allStart) / 1000.0) << " s)" << std::endl;
        const Output b = runBicubic(d.burst);
        m.rows.push_back(makeRow(kBicubicName, d, b.image, b.firstMs, b.steadyMs, ""));
        const double bicubicPsnr = m.rows.back().psnr;
        for (const EngineSettings& e : engines) {
            const Output o = runEngine(e, d.burst, true);
            m.rows.push_back(makeRow(e.name, d, o.image, o.firstMs, o.steadyMs, o.note));
            if (&e == &engines.front() && d.noise == kNoises.front() && d.seed == 1)
                m.diagnoses.push_back(diagnose(d, e, m.rows.back().psnr - bicubicPsnr, o.shifts));
        }
        if (d.runBtv) {
            const BtvRun btv = runBtv(d.burst, kWindow, kReferencePosition + 1);
            m.rows.push_back(makeRow(kBtvName, d, btv.reference, btv.firstMs, NAN, ""));
        }
    }
    if (options.btv)
        addBtvSteadyState(sizes, datasets, m.rows);
    m.totalSeconds = msSince(allStart) / 1000.0;
    std::cout << "total " << m.totalSeconds << " s" << std::endl;
    return m;
}

// ---------------------------------------------------------------------------
// Chart and JSON

// The chart: mean PSNR over the procedural noise-8 bursts that every method
// ran on, against the median steady-state time. Returns the same points as
// JSON entries.
std::string writeChart(const Options& options, const std::vector<cv::Size>& sizes,
                       const std::vector<Dataset>& datasets, const std::vector<EngineSettings>& engines,
                       const std::vector<Row>& rows)
{
    std::vector<std::string> methods;
    for (const EngineSettings& e : engines)
        methods.push_back(e.name);
    methods.push_back(kBicubicName);
    if (options.btv)
        methods.push_back(kBtvName);
    std::vector<std::string> sizeNames;
    std::vector<ChartPoint> points;
    std::ostringstream summary;
    for (std::size_t s = 0; s < sizes.size(); ++s) {
        sizeNames.push_back(sizeText(sizes[s]));
        for (std::size_t m = 0; m < methods.size(); ++m) {
            std::vector<double> psnrs, steady;
            for (const Dataset& d : datasets) {
                if (d.low != sizes[s] || d.source != "procedural" || d.noise != kNoises.front())
                    continue;
                if (options.btv && !d.runBtv)
                    continue;
                for (const Row& r : rows)
                    if (r.method == methods[m] && r.low == d.low && r.source == d.source && r.noise == d.noise &&
                        r.seed == d.seed) {
                        psnrs.push_back(r.psnr);
                        steady.push_back(r.steadyMs);
                    }
            }
            ChartPoint p;
            p.series = static_cast<int>(m);
            p.marker = static_cast<int>(s);
            p.label = sizeText(sizes[s]);
            p.ms = median(steady);
            p.psnr = mean(psnrs);
            points.push_back(p);
            summary << (points.size() == 1 ? "" : ",\n") << "    {\"method\": " << jsonString(methods[m])
                    << ", \"size\": " << jsonString(sizeText(sizes[s])) << ", \"psnr\": " << jsonNumber(p.psnr)
                    << ", \"steady_ms\": " << jsonNumber(p.ms, 3) << ", \"bursts\": " << psnrs.size() << "}";
        }
    }
    const std::string chartPath = options.out + "/sr_quality.png";
    drawQualityChart(points, methods, sizeNames, "Super-resolution x2: quality against time per output frame",
                     "procedural bursts, noise 8 counts (14-bit), mean PSNR over the bursts every method ran on; "
                     "steady state, " + std::to_string(options.threads) + " threads",
                     chartPath);
    std::cout << "wrote " << chartPath << std::endl;
    return summary.str();
}

void writeRows(std::ostream& json, const std::vector<Dataset>& datasets, const Measured& m)
{
    for (std::size_t i = 0; i < datasets.size(); ++i) {
        const Dataset& d = datasets[i];
        json << "    {\"source\": " << jsonString(d.source) << ", \"size\": " << jsonString(sizeText(d.low))
             << ", \"noise\": " << d.noise << ", \"seed\": " << d.seed << ", \"how\": " << jsonString(d.how)
             << ", \"btv\": " << (d.runBtv ? "true" : "false") << "}" << (i + 1 < datasets.size() ? "," : "")
             << "\n";
    }
    json << "  ],\n  \"rows\": [\n";
    for (std::size_t i = 0; i < m.rows.size(); ++i) {
        const Row& r = m.rows[i];
        json << "    {\"method\": " << jsonString(r.method) << ", \"source\": " << jsonString(r.source)
             << ", \"size\": " << jsonString(sizeText(r.low)) << ", \"noise\": " << r.noise << ", \"seed\": " << r.seed
             << ", \"psnr\": " << jsonNumber(r.psnr) << ", \"ssim\": " << jsonNumber(r.ssim, 5)
             << ", \"offset_x\": " << jsonNumber(r.offset.x, 3) << ", \"offset_y\": " << jsonNumber(r.offset.y, 3)
             << ", \"first_ms\": " << jsonNumber(r.firstMs, 3) << ", \"steady_ms\": " << jsonNumber(r.steadyMs, 3)
             << ", \"note\": " << jsonString(r.note) << "}" << (i + 1 < m.rows.size() ? "," : "") << "\n";
    }
    json << "  ],\n  \"diagnosis\": [\n";
    for (std::size_t i = 0; i < m.diagnoses.size(); ++i) {
        const Diagnosis& g = m.diagnoses[i];
        json << "    {\"source\": " << jsonString(g.source) << ", \"size\": " << jsonString(sizeText(g.low))
             << ", \"seed\": " << g.seed << ", \"registration_error\": " << jsonNumber(g.registrationError)
             << ", \"gain_defaults\": " << jsonNumber(g.gainDefaults)
             << ", \"gain_converged\": " << jsonNumber(g.gainConverged)
             << ", \"gain_matched_psf\": " << jsonNumber(g.gainMatchedPsf) << ", \"gain_both\": " << jsonNumber(g.gainBoth)
             << ", \"gain_model_burst\": " << jsonNumber(g.gainModelBurst)
             << ", \"gain_sensor_blur_only\": " << jsonNumber(g.gainSensorBlurOnly) << "}"
             << (i + 1 < m.diagnoses.size() ? "," : "") << "\n";
    }
}

void writeJson(const Options& options, const std::vector<Dataset>& datasets, const Measured& m,
               const std::string& chartEntries)
{
    const std::string jsonPath = options.out + "/sr_quality.json";
    std::ofstream json(jsonPath, std::ios::trunc);
    json << "{\n  \"krolib_version\": " << jsonString(KROLIB_VERSION_STRING) << ",\n"
         << "  \"threads\": " << options.threads << ",\n"
         << "  \"border\": " << kBorder << ",\n"
         << "  \"steady_frames\": " << kSteadyFrames << ",\n"
         << "  \"total_seconds\": " << jsonNumber(m.totalSeconds, 1) << ",\n"
         << "  \"btv_defaults\": " << jsonString(btvDefaults()) << ",\n";
    const EngineSettings t = tunedSettings();
    json << "  \"tuned\": {\"psf_sigma\": " << t.psfSigma << ", \"weight_tv\": " << t.weightTV
         << ", \"max_cg_iters\": " << t.maxCGIters << ", \"relative_residue\": " << t.relativeResidue << "},\n"
         << "  \"datasets\": [\n";
    writeRows(json, datasets, m);
    json << "  ],\n  \"chart\": [\n" << chartEntries << "\n  ]\n}\n";
    if (!json.flush())
        throw std::runtime_error("cannot write " + jsonPath);
    std::cout << "wrote " << jsonPath << std::endl;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        const Options options = parse(argc, argv);
        engineThreads = options.threads;
        cv::setNumThreads(options.threads);
        if (options.tune) {
            tune();
            return 0;
        }
        const std::vector<cv::Size> sizes = lowSizes(options);
        const std::vector<Dataset> datasets = makeDatasets(options, sizes);
        const std::vector<EngineSettings> engines = engineMethods();
        const Measured measured = measureAll(options, sizes, datasets, engines);
        const std::string chartEntries = writeChart(options, sizes, datasets, engines, measured.rows);
        writeJson(options, datasets, measured, chartEntries);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "SrQualityCompare: " << e.what() << std::endl;
        return 1;
    } catch (const char* message) {
        std::cerr << "SrQualityCompare: " << message << std::endl;
        return 1;
    }
}
