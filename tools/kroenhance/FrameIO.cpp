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
#include "ImageIO.h"

namespace kroenhance {

namespace fs = std::filesystem;

namespace {

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

} // namespace

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

struct FrameReader::Impl {
    InputSpec request;
    cv::Size size;
    int type = -1;
    long long count = -1;
    std::size_t frameBytes = 0;

    std::size_t fileIndex = 0;
    std::ifstream stream;               // raw: the file being read
    long long framesLeftInFile = 0;     // raw
    std::vector<long long> framesPerFile;
    std::vector<cv::Mat> pending;       // images: frames of the current file
    std::size_t pendingIndex = 0;

    void openRaw()
    {
        frameBytes = static_cast<std::size_t>(request.size.width) * request.size.height *
                     sampleFormatBytes(request.format);
        size = request.size;
        type = CV_MAKETYPE(sampleFormatDepth(request.format), 1);
        count = 0;
        for (const std::string& path : request.paths) {
            requireInputFile(path);
            std::error_code error;
            const std::uintmax_t bytes = fs::file_size(path, error);
            if (error)
                throw RunError("cannot read the size of input " + inQuotes(path) + ": " + error.message());
            if (bytes % frameBytes != 0) {
                std::ostringstream why;
                why << "input " << inQuotes(path) << " holds " << bytes << " bytes, not a whole number of "
                    << request.size.width << "x" << request.size.height << " " << sampleFormatName(request.format)
                    << " frames of " << frameBytes << " bytes (check --size and --format)";
                throw RunError(why.str());
            }
            framesPerFile.push_back(static_cast<long long>(bytes / frameBytes));
            count += framesPerFile.back();
        }
        if (count == 0)
            throw RunError("the input holds no frames");
    }

    void openImages()
    {
        pending = loadImageFile(request.paths[0]);
        size = pending[0].size();
        type = pending[0].type();
        fileIndex = 1;
        pendingIndex = 0;
    }

    void restart()
    {
        stream.close();
        stream.clear();
        fileIndex = 0;
        framesLeftInFile = 0;
        pending.clear();
        pendingIndex = 0;
        if (!request.raw)
            openImages();
    }

    bool readRaw(cv::Mat& frame)
    {
        while (framesLeftInFile == 0) {
            stream.close();
            stream.clear();
            if (fileIndex >= request.paths.size())
                return false;
            const std::string& path = request.paths[fileIndex];
            stream.open(path, std::ios::binary);
            if (!stream)
                throw RunError("cannot open input " + inQuotes(path) + ": " + systemError());
            framesLeftInFile = framesPerFile[fileIndex];
            ++fileIndex;
        }
        frame = cv::Mat(size, type);  // a buffer of its own: callers may keep frames
        stream.read(reinterpret_cast<char*>(frame.data), static_cast<std::streamsize>(frameBytes));
        if (static_cast<std::size_t>(stream.gcount()) != frameBytes)
            throw RunError("input " + inQuotes(request.paths[fileIndex - 1]) +
                           " ended early (changed while being read?)");
        --framesLeftInFile;
        if (!hostIsLittleEndian())
            swapSampleBytes(frame);
        return true;
    }

    bool readImage(cv::Mat& frame)
    {
        while (pendingIndex >= pending.size()) {
            if (fileIndex >= request.paths.size())
                return false;
            pending = loadImageFile(request.paths[fileIndex]);
            pendingIndex = 0;
            ++fileIndex;
        }
        frame = pending[pendingIndex];
        pending[pendingIndex++].release();
        if (frame.size() != size || frame.type() != type)
            throw RunError("image " + inQuotes(request.paths[fileIndex - 1]) + " holds a " +
                           describeFrame(frame.size(), frame.type()) + " frame, unlike the first (" +
                           describeFrame(size, type) + ")");
        return true;
    }
};

FrameReader::FrameReader(const InputSpec& request) : impl_(new Impl)
{
    impl_->request = request;
    if (request.paths.empty())
        throw UsageError("no input given");
    if (request.raw)
        impl_->openRaw();
    else
        impl_->openImages();
}

FrameReader::~FrameReader() = default;

bool FrameReader::read(cv::Mat& frame)
{
    return impl_->request.raw ? impl_->readRaw(frame) : impl_->readImage(frame);
}

void FrameReader::rewind() { impl_->restart(); }
long long FrameReader::frameCount() const { return impl_->count; }
cv::Size FrameReader::frameSize() const { return impl_->size; }
int FrameReader::frameType() const { return impl_->type; }

// ---------------------------------------------------------------------------

struct FrameWriter::Impl {
    enum class Kind { Raw, Pattern, SingleImage };

    std::string path;
    std::string ext;
    Kind kind = Kind::Raw;
    SampleFormat rawFormat = SampleFormat::S16;
    std::vector<std::pair<std::string, std::string>> files;  // temporary, final
    std::ofstream rawStream;
    velmor::kro::ImageIO pfmStream;
    std::vector<cv::Mat> tiffPages;
    long long count = 0;
    cv::Size size;
    int type = -1;
    bool committed = false;

    // A hidden name in the folder of `final`, keeping its extension so that
    // the image writer picks the right encoder.
    static std::string temporaryName(const std::string& final)
    {
        const fs::path target(final);
        const std::string name = ".kroenhance-" + std::to_string(::getpid()) + "-" +
                                 target.filename().string();
        return (target.parent_path() / name).string();
    }

    const std::string& newFile(const std::string& final)
    {
        files.emplace_back(temporaryName(final), final);
        return files.back().first;
    }

    void removeTemporaries()
    {
        if (rawStream.is_open())
            rawStream.close();
        pfmStream.close();
        for (const auto& file : files) {
            std::error_code ignored;
            fs::remove(file.first, ignored);
        }
        files.clear();
    }

    void writeRaw(const cv::Mat& frame)
    {
        if (frame.channels() != 1)
            throw RunError("a raw stream holds single-channel frames; this frame has " +
                           std::to_string(frame.channels()) + " channels");
        if (count == 0) {
            const std::string& temp = newFile(path);
            rawStream.open(temp, std::ios::binary | std::ios::trunc);
            if (!rawStream)
                throw RunError("cannot create output " + inQuotes(path) + ": " + systemError());
        }
        cv::Mat samples;
        const int depth = sampleFormatDepth(rawFormat);
        if (frame.depth() == depth && frame.isContinuous())
            samples = frame;
        else
            frame.convertTo(samples, depth);
        if (!samples.isContinuous())
            samples = samples.clone();
        if (!hostIsLittleEndian()) {
            samples = samples.clone();
            swapSampleBytes(samples);
        }
        rawStream.write(reinterpret_cast<const char*>(samples.data),
                        static_cast<std::streamsize>(samples.total() * samples.elemSize()));
        if (!rawStream)
            throw RunError("cannot write output " + inQuotes(path) + ": " + systemError());
    }

    void writeSingle(const cv::Mat& frame)
    {
        if (ext == ".tif" || ext == ".tiff") {
            tiffPages.push_back(frame.clone());
            if (count == 0)
                newFile(path);
            return;
        }
        if (ext == ".pfm") {
            if (count == 0 && !pfmStream.open(newFile(path)))
                throw RunError("cannot create output " + inQuotes(path) + ": " + systemError());
            try {
                pfmStream << frame;
            } catch (const velmor::kro::Exception& e) {
                throw RunError("cannot write output " + inQuotes(path) + ": " + e.what());
            }
            return;
        }
        if (count > 0)
            throw RunError("the output " + inQuotes(path) +
                           " holds one image but the recording has more frames; use a pattern "
                           "such as out_%04d.png, a .tif or a .pfm name");
        writeImageFile(newFile(path), frame, ext);
    }
};

FrameWriter::FrameWriter(const std::string& path, SampleFormat rawFormat) : impl_(new Impl)
{
    impl_->path = path;
    impl_->ext = lowerExtension(path);
    impl_->rawFormat = rawFormat;
    if (!isImageFileName(path))
        impl_->kind = Impl::Kind::Raw;
    else if (path.find('%') != std::string::npos)
        impl_->kind = Impl::Kind::Pattern;
    else
        impl_->kind = Impl::Kind::SingleImage;
    if (impl_->kind == Impl::Kind::Pattern && !validPattern(path))
        throw UsageError("option -o: " + inQuotes(path) +
                         " must hold exactly one number conversion such as %04d");
}

FrameWriter::~FrameWriter()
{
    if (!impl_->committed)
        impl_->removeTemporaries();
}

void FrameWriter::write(const cv::Mat& frame)
{
    Impl& d = *impl_;
    if (d.committed)
        throw RunError("output " + inQuotes(d.path) + " is already complete");
    if (frame.empty())
        throw RunError("cannot write an empty frame to " + inQuotes(d.path));
    if (d.count == 0) {
        d.size = frame.size();
        d.type = frame.type();
    } else if (frame.size() != d.size || frame.type() != d.type) {
        throw RunError("frame " + std::to_string(d.count) + " (" + describeFrame(frame.size(), frame.type()) +
                       ") differs from the first (" + describeFrame(d.size, d.type) + ")");
    }
    switch (d.kind) {
    case Impl::Kind::Raw: d.writeRaw(frame); break;
    case Impl::Kind::Pattern: writeImageFile(d.newFile(formatPattern(d.path, d.count)), frame, d.ext); break;
    case Impl::Kind::SingleImage: d.writeSingle(frame); break;
    }
    ++d.count;
}

void FrameWriter::commit()
{
    Impl& d = *impl_;
    if (d.committed)
        return;
    if (d.count == 0)
        throw RunError("no frames were written to " + inQuotes(d.path));
    if (d.rawStream.is_open()) {
        d.rawStream.close();
        if (!d.rawStream)
            throw RunError("cannot finish output " + inQuotes(d.path) + ": " + systemError());
    }
    d.pfmStream.close();
    if (!d.tiffPages.empty()) {
        bool ok = false;
        try {
            ok = cv::imwritemulti(d.files.front().first, d.tiffPages);
        } catch (const cv::Exception& e) {
            throw RunError("cannot write " + inQuotes(d.path) + ": " + e.what());
        }
        if (!ok)
            throw RunError("cannot write " + inQuotes(d.path));
        d.tiffPages.clear();
    }
    for (std::size_t i = 0; i < d.files.size(); ++i) {
        std::error_code error;
        fs::rename(d.files[i].first, d.files[i].second, error);
        if (error) {
            // Files already renamed are complete; the rest are removed.
            d.files.erase(d.files.begin(), d.files.begin() + static_cast<std::ptrdiff_t>(i));
            throw RunError("cannot move the finished output to " + inQuotes(d.files.front().second) +
                           ": " + error.message());
        }
    }
    d.files.clear();
    d.committed = true;
}

long long FrameWriter::framesWritten() const { return impl_->count; }
bool FrameWriter::raw() const { return impl_->kind == Impl::Kind::Raw; }

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
