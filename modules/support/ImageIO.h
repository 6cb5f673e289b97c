#pragma once

#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Portable float map (.pfm) files and streams.
//
// Each image is written as a standard PFM record: "Pf" (one channel) or "PF"
// (three channels, written in RGB order from OpenCV's BGR), the width and
// height, the scale -1 (little-endian samples), then the rows bottom to top
// as 32-bit floats. A stream is several records one after the other; a file
// holding a single record is an ordinary .pfm that image tools (OpenCV's
// imread among them) read. Any depth is accepted and converted to float.
//
// An ImageIO object owns one output stream: open() it, append images with
// operator<<, close() it (the destructor closes too). Objects can be moved,
// not copied.
class KROLIB_EXPORT ImageIO {
public:
    // Flags of save(), combined with |.
    enum SaveFlag : unsigned int {
        kSaveAppend = 1u,  // append the record to an existing file (a stream)
        kSaveAtomic = 2u   // write a temporary file and rename it over the target,
                           // so readers never see a half-written image
    };

    ImageIO() = default;
    ImageIO(ImageIO&&) noexcept = default;
    ImageIO& operator=(ImageIO&&) noexcept = default;
    ImageIO(const ImageIO&) = delete;
    ImageIO& operator=(const ImageIO&) = delete;
    ~ImageIO();

    // Opens (and truncates) `path` for writing; false if it cannot be opened.
    bool open(const std::string& path);
    bool isOpen() const;
    void close();

    // Appends one image to the open stream. Throws velmor::kro::Exception when
    // the stream is not open, the image is empty or has a channel count other
    // than 1 or 3, or the write fails.
    ImageIO& operator<<(const cv::Mat& image);

    // Writes one image to `path` (see SaveFlag). Returns false, leaving no
    // partial file behind with kSaveAtomic, when the image cannot be written.
    static bool save(const std::string& path, const cv::Mat& image, unsigned int flag = 0);

    // Reads every record of a .pfm file or stream, as CV_32FC1 or CV_32FC3
    // (BGR) matrices. Throws velmor::kro::Exception naming the file and the
    // problem for a missing, malformed or truncated file.
    static std::vector<cv::Mat> load(const std::string& path);

private:
    std::ofstream stream_;
};

} // namespace kro
} // namespace velmor
