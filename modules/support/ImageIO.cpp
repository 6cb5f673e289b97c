#include "ImageIO.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

#include <opencv2/imgproc.hpp>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

bool hostIsLittleEndian()
{
    const std::uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

bool supportedForPfm(const cv::Mat& image)
{
    return !image.empty() && image.dims == 2 && (image.channels() == 1 || image.channels() == 3);
}

// Writes one PFM record; the image must pass supportedForPfm().
bool writeRecord(std::ostream& out, const cv::Mat& image)
{
    cv::Mat floats;
    image.convertTo(floats, CV_32F);
    if (floats.channels() == 3)
        cv::cvtColor(floats, floats, cv::COLOR_BGR2RGB);

    out << (floats.channels() == 1 ? "Pf" : "PF") << '\n'
        << floats.cols << ' ' << floats.rows << '\n'
        << "-1.0\n";

    const bool swap = !hostIsLittleEndian();
    const std::size_t rowValues = static_cast<std::size_t>(floats.cols) * floats.channels();
    std::vector<char> row(rowValues * sizeof(float));
    for (int y = floats.rows - 1; y >= 0; --y) {
        std::memcpy(row.data(), floats.ptr<float>(y), row.size());
        if (swap)
            for (std::size_t i = 0; i < rowValues; ++i)
                std::swap(row[4 * i], row[4 * i + 3]), std::swap(row[4 * i + 1], row[4 * i + 2]);
        out.write(row.data(), static_cast<std::streamsize>(row.size()));
    }
    return static_cast<bool>(out);
}

} // namespace

ImageIO::~ImageIO() { close(); }

bool ImageIO::open(const std::string& path)
{
    close();
    stream_.open(path, std::ios::out | std::ios::binary | std::ios::trunc);
    return stream_.is_open();
}

bool ImageIO::isOpen() const { return stream_.is_open(); }

void ImageIO::close()
{
    if (stream_.is_open())
        stream_.close();
    stream_.clear();
}

ImageIO& ImageIO::operator<<(const cv::Mat& image)
{
    if (!stream_.is_open())
        KRO_THROW("image stream is not open");
    if (!supportedForPfm(image))
        KRO_THROW("cannot write a " << image.cols << "x" << image.rows << " image with "
                                    << image.channels() << " channels as .pfm (1 or 3 channels)");
    if (!writeRecord(stream_, image))
        KRO_THROW("writing to the image stream failed");
    stream_.flush();
    return *this;
}

bool ImageIO::save(const std::string& path, const cv::Mat& image, unsigned int flag)
{
    if (!supportedForPfm(image))
        return false;
    const bool append = (flag & kSaveAppend) != 0;
    const bool atomic = (flag & kSaveAtomic) != 0 && !append;
    const std::string target = atomic ? path + ".part" : path;

    std::ofstream out(target, std::ios::out | std::ios::binary |
                                  (append ? std::ios::app : std::ios::trunc));
    if (!out.is_open())
        return false;
    bool ok = writeRecord(out, image);
    out.close();
    ok = ok && !out.fail();
    if (atomic) {
        if (ok && std::rename(target.c_str(), path.c_str()) == 0)
            return true;
        std::remove(target.c_str());
        return false;
    }
    return ok;
}

std::vector<cv::Mat> ImageIO::load(const std::string& path)
{
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in.is_open())
        KRO_THROW("cannot open \"" << path << "\" for reading");

    std::vector<cv::Mat> images;
    const bool swap = !hostIsLittleEndian();
    while (true) {
        in >> std::ws;
        if (in.peek() == std::char_traits<char>::eof())
            break;
        std::string magic;
        long long width = 0, height = 0;
        double scale = 0.0;
        in >> magic >> width >> height >> scale;
        if (!in || (magic != "Pf" && magic != "PF"))
            KRO_THROW("\"" << path << "\": record " << images.size() + 1
                           << " is not a portable float map (expected a \"Pf\" or \"PF\" header)");
        if (width <= 0 || height <= 0 || width > (1 << 20) || height > (1 << 20) || scale == 0.0)
            KRO_THROW("\"" << path << "\": record " << images.size() + 1 << " has an invalid header ("
                           << width << "x" << height << ", scale " << scale << ")");
        in.get(); // the single whitespace character that ends the header

        const int channels = magic == "PF" ? 3 : 1;
        cv::Mat image(static_cast<int>(height), static_cast<int>(width), CV_32FC(channels));
        const bool dataLittleEndian = scale < 0.0;
        const bool swapThis = dataLittleEndian == swap;
        const std::size_t rowBytes = static_cast<std::size_t>(width) * channels * sizeof(float);
        for (int y = image.rows - 1; y >= 0; --y) {
            char* row = reinterpret_cast<char*>(image.ptr<float>(y));
            in.read(row, static_cast<std::streamsize>(rowBytes));
            if (in.gcount() != static_cast<std::streamsize>(rowBytes))
                KRO_THROW("\"" << path << "\": record " << images.size() + 1 << " is truncated");
            if (swapThis)
                for (std::size_t i = 0; i < rowBytes; i += 4)
                    std::swap(row[i], row[i + 3]), std::swap(row[i + 1], row[i + 2]);
        }
        if (channels == 3)
            cv::cvtColor(image, image, cv::COLOR_RGB2BGR);
        images.push_back(image);
    }
    if (images.empty())
        KRO_THROW("\"" << path << "\" holds no image");
    return images;
}

} // namespace kro
} // namespace velmor
