#pragma once

// cv::DataType<unsigned int>, which OpenCV 4 lacks, so that cv::Mat_<unsigned
// int> can hold frames of 32-bit unsigned samples (the library's frame
// templates take them). The matrix is of type CV_32SC1: element access
// through Mat_<unsigned int> sees the unsigned values; OpenCV's own
// arithmetic (convertTo, comparisons, norms) sees the same bits as int.
// Copies and creation, which is all the library needs, keep every value.

#include <opencv2/core.hpp>

namespace cv {

template <>
class DataType<unsigned int> {
public:
    typedef unsigned int value_type;
    typedef value_type work_type;
    typedef value_type channel_type;
    typedef value_type vec_type;
    enum {
        generic_type = 0,
        depth = CV_32S,
        channels = 1,
        fmt = (int)'i',
        type = CV_MAKETYPE(depth, channels)
    };
};

} // namespace cv
