#pragma once

// Frame input and output of the kroenhance commands.
//
// Input is either raw streams or image files:
//   - raw: --size WxH --format s16|u16|s32|f32; little-endian samples,
//     row-major, frames concatenated, no header. Several files are read one
//     after the other as one recording. A file that is not a whole number of
//     frames is refused.
//   - image files (recognised by the extension .png, .tif, .tiff, .pgm, .pnm
//     or .pfm): 16- or 8-bit PNG, TIFF (every page of a multi-page file),
//     PGM, and PFM files or streams of several records. All frames must have
//     the size and type of the first.
// FrameReader hands out the frames one at a time as cv::Mat of the stream's
// native type (CV_16S, CV_16U, CV_32S, CV_32F for raw streams; as stored for
// images), so a recording never has to fit in memory.
//
// Output is a raw stream of a given format, or image files: a printf-style
// pattern with one integer conversion (out_%04d.png, numbered from 0), or a
// single image name (a .tif or .pfm name takes any number of frames as pages
// or records; other names take one frame). Frames are converted as the
// target needs, by value with rounding and saturation when narrowing (PNG and
// PGM hold 8- or 16-bit unsigned samples, TIFF keeps the frame's type, PFM
// holds float). FrameWriter writes everything under temporary names in the
// target folder and renames them only in commit(), so a failed run leaves no
// output file behind and never half-overwrites an old one.
//
// Problems with files throw RunError (exit status 1); problems with options
// throw UsageError (exit status 2).

#include <cstddef>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "Cli.h"

namespace kroenhance {

enum class SampleFormat { S16, U16, S32, F32 };

// "s16", "u16", "s32", "f32"; anything else throws UsageError naming `option`.
SampleFormat parseSampleFormat(const std::string& option, const std::string& text);
const char* sampleFormatName(SampleFormat format);
int sampleFormatDepth(SampleFormat format);
std::size_t sampleFormatBytes(SampleFormat format);
// The raw format that holds every value of an OpenCV depth (8-bit unsigned in
// u16, 8-bit signed in s16, 64-bit float in f32, the others as they are).
SampleFormat sampleFormatForDepth(int depth);

// True for the image extensions listed above (any letter case).
bool isImageFileName(const std::string& path);

// "640x512 u16" style description of a frame type, for messages.
std::string describeFrame(const cv::Size& size, int type);

struct InputSpec {
    std::vector<std::string> paths;
    bool raw = false;  // raw streams (size and format given) or image files
    cv::Size size;
    SampleFormat format = SampleFormat::S16;
};

// Takes --size and --format and the remaining (positional) arguments as the
// inputs, so call it after every other option has been taken. Raw streams
// need both options; image files take neither.
InputSpec inputFromCommandLine(Cli& cli);

struct OutputSpec {
    std::string path;
    bool formatGiven = false;  // --output-format given
    SampleFormat format = SampleFormat::S16;
};

// Takes -o (required) and --output-format.
OutputSpec outputFromCommandLine(Cli& cli);

// The raw format of the output: --output-format, else the input's raw format,
// else the format that holds the frames' depth.
SampleFormat outputRawFormat(const OutputSpec& output, const InputSpec& input, int frameDepth);

// Help text shared by the commands: the input and output options.
extern const char* const kFrameIoHelp;

class FrameReader {
public:
    // Checks every input (exists, whole number of frames for raw streams) and
    // reads the first image file to learn the frame size and type.
    explicit FrameReader(const InputSpec& request);
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    // The next frame in a buffer of its own; false after the last one.
    bool read(cv::Mat& frame);
    // Starts again at the first frame.
    void rewind();

    // Number of frames, or -1 when not known before reading (image files).
    long long frameCount() const;
    cv::Size frameSize() const;
    int frameType() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

class FrameWriter {
public:
    // Checks the name (a pattern must hold exactly one integer conversion,
    // UsageError otherwise); creates nothing yet.
    FrameWriter(const std::string& path, SampleFormat rawFormat);
    // Removes every temporary file unless commit() succeeded.
    ~FrameWriter();
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    void write(const cv::Mat& frame);
    // Finishes the files and gives them their names.
    void commit();

    long long framesWritten() const;
    // True when the output is a raw stream (not image files).
    bool raw() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// One file (a report, a summary) written under a temporary name in the
// target's folder and given its name by commit(); removed unless committed,
// so a failed run never leaves a partial file or half-overwrites an old one.
class AtomicFile {
public:
    // Creates the temporary file; RunError when it cannot be created.
    explicit AtomicFile(const std::string& path);
    ~AtomicFile();
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    std::ostream& stream();
    // Flushes, closes and renames; RunError when any of it fails.
    void commit();
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::string temporary_;
    std::ofstream stream_;
    bool committed_ = false;
};

// "label: frame i/n, 12.5 frames/s, 8 s left" on standard error, refreshed in
// place at most a few times a second, only when standard error is a terminal
// and `enabled` is set. A total of 0 or less means unknown.
class Progress {
public:
    Progress(std::string label, long long total, bool enabled = true);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void update(long long done);

private:
    std::string label_;
    long long total_;
    bool enabled_;
    bool printed_ = false;
    double started_ = 0.0;    // seconds on a monotonic clock
    double lastShown_ = -1.0;
};

} // namespace kroenhance
