#include "BurstGenerator.h"

#include <cmath>
#include <fstream>
#include <iomanip>
#include <random>
#include <sstream>
#include <stdexcept>

#include <opencv2/imgproc.hpp>

namespace krotools {

namespace {

void writeRaw(const std::string& path, const std::vector<cv::Mat_<float>>& images)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    for (const cv::Mat_<float>& image : images)
        for (int y = 0; y < image.rows; ++y)
            out.write(reinterpret_cast<const char*>(image.ptr<float>(y)),
                      static_cast<std::streamsize>(image.cols * sizeof(float)));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

} // namespace

Burst generateBurst(const cv::Mat_<float>& scene, const BurstSettings& s)
{
    if (s.frames < 1 || s.factor < 1 || s.psfSigma < 0.0 || s.noise < 0.0 || s.maxShift < 0.0 ||
        s.referencePosition < 0 || s.referencePosition >= s.frames || s.bitDepth < 0 || s.bitDepth > 24)
        throw std::invalid_argument("invalid burst settings");
    const int lowWidth = scene.cols / s.factor;
    const int lowHeight = scene.rows / s.factor;
    if (lowWidth < 2 || lowHeight < 2)
        throw std::invalid_argument("scene too small for the burst's factor");

    Burst burst;
    burst.settings = s;
    burst.truth = scene(cv::Rect(0, 0, lowWidth * s.factor, lowHeight * s.factor)).clone();

    // The sensor blur is applied once on the fine grid; moving the blurred
    // scene is then the same as blurring the moved one, and the blurred scene
    // is smooth enough for a windowed-sinc shift to be accurate.
    cv::Mat_<float> blurred = burst.truth.clone();
    if (s.psfSigma > 0.0) {
        const double sigma = s.psfSigma * s.factor;
        cv::GaussianBlur(blurred, blurred, cv::Size(0, 0), sigma, sigma, cv::BORDER_REFLECT_101);
    }

    std::mt19937_64 rng(s.seed);
    std::uniform_real_distribution<double> shift(-s.maxShift, s.maxShift);
    cv::RNG noiseRng(s.seed * 0x9E3779B97F4A7C15ull + 1);
    const float maxValue = s.bitDepth > 0 ? static_cast<float>((1 << s.bitDepth) - 1) : 0.0f;
    for (int i = 0; i < s.frames; ++i) {
        velmor::kro::PointF d;
        if (i != s.referencePosition) {
            d.x = static_cast<float>(shift(rng));
            d.y = static_cast<float>(shift(rng));
        }
        burst.shifts.push_back(d);

        // warpAffine without WARP_INVERSE_MAP: moved(x) = blurred(x - t).
        const cv::Mat transform = (cv::Mat_<double>(2, 3) << 1, 0, d.x * s.factor, 0, 1, d.y * s.factor);
        cv::Mat_<float> moved;
        cv::warpAffine(blurred, moved, transform, blurred.size(), cv::INTER_LANCZOS4, cv::BORDER_REFLECT_101);
        cv::Mat_<float> frame;
        cv::resize(moved, frame, cv::Size(lowWidth, lowHeight), 0, 0, cv::INTER_AREA);
        if (s.noise > 0.0) {
            cv::Mat_<float> noise(frame.size());
            noiseRng.fill(noise, cv::RNG::NORMAL, 0.0, s.noise);
            frame += noise;
        }
        if (s.bitDepth > 0)
            for (int y = 0; y < frame.rows; ++y)
                for (int x = 0; x < frame.cols; ++x)
                    frame(y, x) = std::min(maxValue, std::max(0.0f, std::nearbyint(frame(y, x))));
        burst.frames.push_back(frame);
    }
    return burst;
}

cv::Mat_<float> proceduralScene(int rows, int cols, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);

    // Sky-to-ground gradient: cold at the top, warm at the bottom.
    cv::Mat_<float> scene(rows, cols);
    for (int y = 0; y < rows; ++y)
        scene.row(y).setTo(3000.0 + 2500.0 * y / std::max(1, rows - 1));

    // Buildings: hard-edged blocks with windows.
    for (int i = 0; i < 6; ++i) {
        const int w = static_cast<int>(cols * (0.08 + 0.15 * unit(rng)));
        const int h = static_cast<int>(rows * (0.2 + 0.4 * unit(rng)));
        const int x = static_cast<int>(unit(rng) * (cols - w));
        const int y = rows / 3 + static_cast<int>(unit(rng) * std::max(1, rows - rows / 3 - h));
        const double level = 4000.0 + 2000.0 * unit(rng);
        cv::rectangle(scene, cv::Rect(x, y, w, h), cv::Scalar(level), cv::FILLED);
        const int pitch = std::max(4, w / 6);
        for (int wy = y + pitch / 2; wy + pitch / 2 < y + h; wy += pitch)
            for (int wx = x + pitch / 2; wx + pitch / 2 < x + w; wx += pitch)
                cv::rectangle(scene, cv::Rect(wx, wy, std::max(1, pitch / 2), std::max(1, pitch / 3)),
                              cv::Scalar(level + 600.0 + 800.0 * unit(rng)), cv::FILLED);
    }
    // Warm objects with soft edges (people, engines, lamps).
    cv::Mat_<float> warm(rows, cols, 0.0f);
    for (int i = 0; i < 25; ++i) {
        const cv::Point centre(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        const cv::Size axes(1 + static_cast<int>(unit(rng) * cols / 30), 1 + static_cast<int>(unit(rng) * rows / 15));
        cv::ellipse(warm, centre, axes, 360.0 * unit(rng), 0, 360, cv::Scalar(1500.0 + 3000.0 * unit(rng)), cv::FILLED);
    }
    cv::GaussianBlur(warm, warm, cv::Size(0, 0), 1.2);
    scene += warm;
    // Thin wires and poles: detail at the scale super-resolution recovers.
    for (int i = 0; i < 10; ++i) {
        const cv::Point a(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        const cv::Point b(static_cast<int>(unit(rng) * cols), static_cast<int>(unit(rng) * rows));
        cv::line(scene, a, b, cv::Scalar(2500.0 + 3000.0 * unit(rng)), 1, cv::LINE_AA);
    }
    // Fine texture: noise at a few scales.
    for (int octave = 0; octave < 4; ++octave) {
        const int step = 2 << octave;
        cv::Mat_<float> coarse(rows / step + 2, cols / step + 2);
        cv::RNG textureRng(seed * 31 + octave);
        textureRng.fill(coarse, cv::RNG::NORMAL, 0.0, 25.0 * (octave + 1));
        cv::Mat_<float> fine;
        cv::resize(coarse, fine, cv::Size(cols, rows), 0, 0, cv::INTER_CUBIC);
        scene += fine;
    }
    cv::min(scene, 16383.0, scene);
    cv::max(scene, 0.0, scene);
    return scene;
}

std::string writeBurst(const Burst& burst, const std::string& directory, const std::string& name)
{
    const cv::Size low = burst.frames.empty() ? cv::Size() : burst.frames[0].size();
    std::ostringstream framesName, truthName;
    framesName << name << "_frames_" << low.width << "x" << low.height << "x" << burst.frames.size() << "_f32.raw";
    truthName << name << "_truth_" << burst.truth.cols << "x" << burst.truth.rows << "_f32.raw";
    writeRaw(directory + "/" + framesName.str(), burst.frames);
    writeRaw(directory + "/" + truthName.str(), {burst.truth});

    const BurstSettings& s = burst.settings;
    std::ostringstream json;
    json << std::setprecision(9);
    json << "{\n"
         << "  \"frames_file\": \"" << framesName.str() << "\",\n"
         << "  \"truth_file\": \"" << truthName.str() << "\",\n"
         << "  \"format\": \"f32 little-endian, row-major, frames concatenated\",\n"
         << "  \"width\": " << low.width << ",\n"
         << "  \"height\": " << low.height << ",\n"
         << "  \"frames\": " << burst.frames.size() << ",\n"
         << "  \"truth_width\": " << burst.truth.cols << ",\n"
         << "  \"truth_height\": " << burst.truth.rows << ",\n"
         << "  \"factor\": " << s.factor << ",\n"
         << "  \"psf_sigma\": " << s.psfSigma << ",\n"
         << "  \"noise\": " << s.noise << ",\n"
         << "  \"bit_depth\": " << s.bitDepth << ",\n"
         << "  \"reference_position\": " << s.referencePosition << ",\n"
         << "  \"seed\": " << s.seed << ",\n"
         << "  \"shifts\": [";
    for (std::size_t i = 0; i < burst.shifts.size(); ++i)
        json << (i ? ", " : "") << "[" << burst.shifts[i].x << ", " << burst.shifts[i].y << "]";
    json << "]\n}\n";
    const std::string jsonPath = directory + "/" + name + ".json";
    std::ofstream out(jsonPath, std::ios::trunc);
    out << json.str();
    if (!out.flush())
        throw std::runtime_error("cannot write " + jsonPath);
    return jsonPath;
}

} // namespace krotools
