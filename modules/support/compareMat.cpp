#include "compareMat.h"

#include <cmath>
#include <sstream>

namespace velmor {
namespace kro {

namespace {

double valueAt(const cv::Mat& m, int row, int col, int channel)
{
    const int index = col * m.channels() + channel;
    switch (m.depth()) {
    case CV_8U: return m.ptr<uchar>(row)[index];
    case CV_8S: return m.ptr<schar>(row)[index];
    case CV_16U: return m.ptr<ushort>(row)[index];
    case CV_16S: return m.ptr<short>(row)[index];
    case CV_32S: return m.ptr<int>(row)[index];
    case CV_32F: return m.ptr<float>(row)[index];
    default: return m.ptr<double>(row)[index];
    }
}

bool sameValue(double a, double b, double tolerance)
{
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) && std::isnan(b);
    return std::fabs(a - b) <= tolerance;
}

struct Difference {
    bool found = false;
    int x = 0, y = 0, channel = 0;
    double a = 0.0, b = 0.0;
};

// First pair of values further apart than `tolerance`, in row-major order
// (channels innermost). a and b have the same size and channel count.
Difference firstDifference(const cv::Mat& a, const cv::Mat& b, double tolerance)
{
    const int channels = a.channels();
    for (int y = 0; y < a.rows; ++y)
        for (int x = 0; x < a.cols; ++x)
            for (int c = 0; c < channels; ++c) {
                const double va = valueAt(a, y, x, c);
                const double vb = valueAt(b, y, x, c);
                if (!sameValue(va, vb, tolerance))
                    return Difference{true, x, y, c, va, vb};
            }
    return Difference{};
}

} // namespace

bool compareMat(DebugChannel* channel, const cv::Mat& a, const cv::Mat& b,
                const std::string& nameA, const std::string& nameB, float tolerance)
{
    const bool sameSize = a.size() == b.size();
    const bool sameChannels = a.channels() == b.channels();
    Difference d;
    if (sameSize && sameChannels)
        d = firstDifference(a, b, tolerance);
    const bool match = sameSize && sameChannels && !d.found;
    if (!channel || !channel->isDebugActive(kCompareMatDebugLevel))
        return match;

    // Values with 9 digits (a float's full precision), the tolerance as given.
    std::ostringstream line;
    line << "compareMat: " << nameA << " and " << nameB;
    if (match) {
        line << " match (tolerance " << tolerance << ")";
    } else if (!sameSize) {
        line << " differ in size: " << nameA << " " << a.cols << "x" << a.rows << ", " << nameB
             << " " << b.cols << "x" << b.rows;
    } else if (!sameChannels) {
        line << " differ in channel count: " << nameA << " " << a.channels() << ", " << nameB
             << " " << b.channels();
    } else {
        line << " differ at (x=" << d.x << ", y=" << d.y;
        if (a.channels() > 1)
            line << ", channel " << d.channel;
        std::ostringstream values;
        values.precision(9);
        values << nameA << " " << d.a << ", " << nameB << " " << d.b;
        line << "): " << values.str() << " (tolerance " << tolerance << ")";
    }
    channel->send(line.str(), kCompareMatDebugLevel);
    return match;
}

} // namespace kro
} // namespace velmor
