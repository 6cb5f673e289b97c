#include "FrameFiles.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <system_error>
#include <utility>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "Exception.h"
#include "ImageIO.h"

#include "Cli.h"
#include "FrameIO.h"

namespace kroenhance {
namespace frameio {

namespace fs = std::filesystem;

std::string lowerExtension(const std::string& path)
{
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

bool hostIsLittleEndian()
{
    const std::uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

// Reverses the bytes of every sample (raw streams are little-endian).
void swapSampleBytes(cv::Mat& frame)
{
    const std::size_t bytes = frame.elemSize1();
    if (bytes == 1)
        return;
    for (int r = 0; r < frame.rows; ++r) {
        unsigned char* p = frame.ptr(r);
        const std::size_t samples = static_cast<std::size_t>(frame.cols) * frame.channels();
        for (std::size_t i = 0; i < samples; ++i, p += bytes)
            std::reverse(p, p + bytes);
    }
}

const char* depthName(int depth)
{
    switch (depth) {
    case CV_8U: return "u8";
    case CV_8S: return "s8";
    case CV_16U: return "u16";
    case CV_16S: return "s16";
    case CV_32S: return "s32";
    case CV_32F: return "f32";
    case CV_64F: return "f64";
    default: return "?";
    }
}

std::string inQuotes(const std::string& path) { return "\"" + path + "\""; }

std::string systemError() { return std::strerror(errno); }

// Checks that `path` names a readable regular file.
void requireInputFile(const std::string& path)
{
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (error || !fs::exists(status))
        throw RunError("cannot open input " + inQuotes(path) + ": no such file");
    if (fs::is_directory(status))
        throw RunError("input " + inQuotes(path) + " is a directory");
    std::ifstream probe(path, std::ios::binary);
    if (!probe)
        throw RunError("cannot open input " + inQuotes(path) + ": " + systemError());
}

bool looksLikePfm(const std::string& path)
{
    if (lowerExtension(path) == ".pfm")
        return true;
    std::ifstream in(path, std::ios::binary);
    char magic[2] = {0, 0};
    in.read(magic, 2);
    return in && magic[0] == 'P' && (magic[1] == 'f' || magic[1] == 'F');
}

// Every frame (page, record) of one image file.
std::vector<cv::Mat> loadImageFile(const std::string& path)
{
    requireInputFile(path);
    std::vector<cv::Mat> frames;
    if (looksLikePfm(path)) {
        try {
            frames = velmor::kro::ImageIO::load(path);
        } catch (const velmor::kro::Exception& e) {
            throw RunError(std::string(e.what()));
        }
    } else {
        bool ok = false;
        try {
            ok = cv::imreadmulti(path, frames, cv::IMREAD_UNCHANGED);
        } catch (const cv::Exception& e) {
            throw RunError("cannot read image " + inQuotes(path) + ": " + e.what());
        }
        if (!ok)
            frames.clear();
    }
    if (frames.empty())
        throw RunError("cannot read image " + inQuotes(path) +
                       " (not a PNG, TIFF, PGM or PFM image, or damaged)");
    return frames;
}

// A pattern holds exactly one integer conversion (%d or %i with an optional
// 0 flag and width); "%%" stands for a percent sign.
bool validPattern(const std::string& pattern)
{
    int conversions = 0;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '%')
            continue;
        if (i + 1 < pattern.size() && pattern[i + 1] == '%') {
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        while (j < pattern.size() && std::isdigit(static_cast<unsigned char>(pattern[j])))
            ++j;
        if (j >= pattern.size() || (pattern[j] != 'd' && pattern[j] != 'i') || j - i > 4)
            return false;
        ++conversions;
        i = j;
    }
    return conversions == 1;
}

std::string formatPattern(const std::string& pattern, long long index)
{
    std::vector<char> buffer(pattern.size() + 32);
    const int n = std::snprintf(buffer.data(), buffer.size(), pattern.c_str(), static_cast<int>(index));
    if (n < 0 || static_cast<std::size_t>(n) >= buffer.size())
        throw RunError("cannot form a file name from the pattern " + inQuotes(pattern));
    return std::string(buffer.data(), static_cast<std::size_t>(n));
}

// The frame as the image format stores it.
cv::Mat convertForImage(const cv::Mat& frame, const std::string& ext)
{
    if (ext == ".png" || ext == ".pgm" || ext == ".pnm") {
        if (frame.depth() == CV_8U || frame.depth() == CV_16U)
            return frame;
        cv::Mat converted;
        frame.convertTo(converted, CV_MAKETYPE(CV_16U, frame.channels()));
        return converted;
    }
    return frame;  // TIFF keeps every depth; PFM converts to float itself
}

void writeImageFile(const std::string& path, const cv::Mat& frame, const std::string& ext)
{
    bool ok = false;
    if (ext == ".pfm") {
        ok = velmor::kro::ImageIO::save(path, frame);
    } else {
        try {
            ok = cv::imwrite(path, convertForImage(frame, ext));
        } catch (const cv::Exception& e) {
            throw RunError("cannot write image " + inQuotes(path) + ": " + e.what());
        }
    }
    if (!ok)
        throw RunError("cannot write image " + inQuotes(path) + " (" +
                       describeFrame(frame.size(), frame.type()) + ")");
}

} // namespace frameio
} // namespace kroenhance
