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

} // namespace

bool compareMat(const cv::Mat& expected, const cv::Mat& actual, double tolerance,
                std::string* difference)
{
    std::ostringstream why;
    if (expected.size() != actual.size()) {
        why << "size differs: expected " << expected.cols << "x" << expected.rows << ", got "
            << actual.cols << "x" << actual.rows;
    } else if (expected.channels() != actual.channels()) {
        why << "channel count differs: expected " << expected.channels() << ", got "
            << actual.channels();
    } else {
        const int channels = expected.channels();
        for (int y = 0; y < expected.rows; ++y)
            for (int x = 0; x < expected.cols; ++x)
                for (int c = 0; c < channels; ++c) {
                    const double a = valueAt(expected, y, x, c);
                    const double b = valueAt(actual, y, x, c);
                    if (!sameValue(a, b, tolerance)) {
                        if (difference) {
                            why.precision(9);
                            why << "first difference at (x=" << x << ", y=" << y;
                            if (channels > 1)
                                why << ", channel " << c;
                            why << "): expected " << a << ", got " << b << " (tolerance "
                                << tolerance << ")";
                            *difference = why.str();
                        }
                        return false;
                    }
                }
        return true;
    }
    if (difference)
        *difference = why.str();
    return false;
}

} // namespace kro
} // namespace velmor
