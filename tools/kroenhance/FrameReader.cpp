// Reading frames from raw streams and image files (FrameReader).
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

} // namespace kroenhance
