#include "FrameIO.h"

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
#include "FrameFiles.h"
#include "ImageIO.h"

namespace kroenhance {

namespace fs = std::filesystem;
using namespace frameio;


SampleFormat parseSampleFormat(const std::string& option, const std::string& text)
{
    if (text == "s16")
        return SampleFormat::S16;
    if (text == "u16")
        return SampleFormat::U16;
    if (text == "s32")
        return SampleFormat::S32;
    if (text == "f32")
        return SampleFormat::F32;
    throw UsageError("option " + option + ": unknown format \"" + text +
                     "\" (use s16, u16, s32 or f32)");
}

const char* sampleFormatName(SampleFormat format)
{
    switch (format) {
    case SampleFormat::S16: return "s16";
    case SampleFormat::U16: return "u16";
    case SampleFormat::S32: return "s32";
    case SampleFormat::F32: return "f32";
    }
    return "?";
}

int sampleFormatDepth(SampleFormat format)
{
    switch (format) {
    case SampleFormat::S16: return CV_16S;
    case SampleFormat::U16: return CV_16U;
    case SampleFormat::S32: return CV_32S;
    case SampleFormat::F32: return CV_32F;
    }
    return CV_16S;
}

std::size_t sampleFormatBytes(SampleFormat format)
{
    return format == SampleFormat::S16 || format == SampleFormat::U16 ? 2 : 4;
}

SampleFormat sampleFormatForDepth(int depth)
{
    switch (depth) {
    case CV_8U:
    case CV_16U: return SampleFormat::U16;
    case CV_8S:
    case CV_16S: return SampleFormat::S16;
    case CV_32S: return SampleFormat::S32;
    default: return SampleFormat::F32;
    }
}

bool isImageFileName(const std::string& path)
{
    const std::string ext = lowerExtension(path);
    return ext == ".png" || ext == ".tif" || ext == ".tiff" || ext == ".pgm" || ext == ".pnm" ||
           ext == ".pfm";
}

std::string describeFrame(const cv::Size& size, int type)
{
    std::ostringstream text;
    text << size.width << "x" << size.height << " " << depthName(CV_MAT_DEPTH(type));
    if (CV_MAT_CN(type) > 1)
        text << " x" << CV_MAT_CN(type) << " channels";
    return text.str();
}

InputSpec inputFromCommandLine(Cli& cli)
{
    InputSpec request;
    const bool hasSize = cli.has("--size");
    const bool hasFormat = cli.has("--format");
    int width = 0, height = 0;
    cli.sizeOption("--size", width, height);
    const std::string format = cli.stringOption("--format", "");
    request.paths = cli.positionals(1);
    if (hasSize || hasFormat) {
        if (!hasSize || !hasFormat)
            throw UsageError("a raw stream needs both --size WxH and --format s16|u16|s32|f32");
        for (const std::string& path : request.paths)
            if (isImageFileName(path))
                throw UsageError("--size and --format describe raw streams; the image file " +
                                 inQuotes(path) + " carries its own size and type");
        request.raw = true;
        request.size = cv::Size(width, height);
        request.format = parseSampleFormat("--format", format);
    } else {
        for (const std::string& path : request.paths)
            if (!isImageFileName(path))
                throw UsageError("input " + inQuotes(path) +
                                 " is not an image file (.png, .tif, .tiff, .pgm, .pnm, .pfm); "
                                 "give --size WxH and --format for a raw stream");
    }
    return request;
}

OutputSpec outputFromCommandLine(Cli& cli)
{
    OutputSpec request;
    request.path = cli.requiredString("-o");
    if (request.path.empty())
        throw UsageError("option -o needs a file name");
    if (cli.has("--output-format")) {
        request.formatGiven = true;
        request.format = parseSampleFormat("--output-format", cli.stringOption("--output-format", ""));
        if (isImageFileName(request.path))
            throw UsageError("--output-format applies to raw streams, not to the image output " +
                             inQuotes(request.path));
    }
    if (request.path.find('%') != std::string::npos) {
        if (!isImageFileName(request.path))
            throw UsageError("option -o: a numbered pattern needs an image extension, got " +
                             inQuotes(request.path));
        if (!validPattern(request.path))
            throw UsageError("option -o: " + inQuotes(request.path) +
                             " must hold exactly one number conversion such as %04d "
                             "(write %% for a percent sign)");
    }
    return request;
}

SampleFormat outputRawFormat(const OutputSpec& output, const InputSpec& input, int frameDepth)
{
    if (output.formatGiven)
        return output.format;
    if (input.raw)
        return input.format;
    return sampleFormatForDepth(frameDepth);
}

const char* const kFrameIoHelp =
    "\nInput (one recording, read frame after frame):\n"
    "  --size WxH          frame size of raw streams, e.g. 640x512\n"
    "  --format F          sample format of raw streams: s16, u16, s32 or f32\n"
    "                      (little-endian, row-major, frames concatenated, no header)\n"
    "  INPUT...            raw stream files (read one after the other), or image\n"
    "                      files: 8/16-bit PNG, TIFF (all pages), PGM, PFM streams;\n"
    "                      images take no --size/--format\n"
    "Output:\n"
    "  -o OUTPUT           a raw stream, a numbered image pattern such as\n"
    "                      out_%04d.png (from 0), a multi-page .tif, a .pfm stream,\n"
    "                      or one .png/.pgm image for a single frame\n"
    "  --output-format F   sample format of a raw output stream (default: the input's)\n"
    "Samples are converted by value, rounded and saturated, where the output type\n"
    "is narrower. Nothing is left behind when a run fails.\n";


// ---------------------------------------------------------------------------

AtomicFile::AtomicFile(const std::string& path) : path_(path)
{
    const fs::path target(path);
    temporary_ = (target.parent_path() /
                  (".kroenhance-" + std::to_string(::getpid()) + "-" + target.filename().string()))
                     .string();
    stream_.open(temporary_, std::ios::binary | std::ios::trunc);
    if (!stream_)
        throw RunError("cannot create " + inQuotes(path) + ": " + systemError());
}

AtomicFile::~AtomicFile()
{
    if (committed_)
        return;
    stream_.close();
    std::error_code ignored;
    fs::remove(temporary_, ignored);
}

std::ostream& AtomicFile::stream() { return stream_; }

void AtomicFile::commit()
{
    if (committed_)
        return;
    stream_.close();
    if (!stream_)
        throw RunError("cannot write " + inQuotes(path_) + ": " + systemError());
    std::error_code error;
    fs::rename(temporary_, path_, error);
    if (error)
        throw RunError("cannot move the finished file to " + inQuotes(path_) + ": " + error.message());
    committed_ = true;
}

namespace {

double monotonicSeconds()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

} // namespace

Progress::Progress(std::string label, long long total, bool enabled)
    : label_(std::move(label)),
      total_(total),
      enabled_(enabled && ::isatty(::fileno(stderr)) != 0),
      started_(monotonicSeconds())
{
}

Progress::~Progress()
{
    if (printed_)
        std::cerr << '\n';
}

void Progress::update(long long done)
{
    if (!enabled_)
        return;
    const double now = monotonicSeconds();
    const bool last = total_ > 0 && done >= total_;
    if (!last && lastShown_ >= 0.0 && now - lastShown_ < 0.2)
        return;
    lastShown_ = now;
    std::ostringstream line;
    line << '\r' << label_ << ": frame " << done;
    if (total_ > 0)
        line << '/' << total_;
    const double elapsed = now - started_;
    if (done > 0 && elapsed > 0.0) {
        const double rate = done / elapsed;
        line << ", " << std::fixed << std::setprecision(rate < 10.0 ? 2 : 1) << rate << " frames/s";
        if (total_ > 0 && !last)
            line << ", " << static_cast<long long>((total_ - done) / rate + 0.5) << " s left";
    }
    // Blank the rest of a longer earlier line.
    line << "        ";
    std::cerr << line.str() << std::flush;
    printed_ = true;
}

} // namespace kroenhance
