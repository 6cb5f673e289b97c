// Writing frames to raw streams, numbered images, TIFF and PFM (FrameWriter).
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

} // namespace kroenhance
