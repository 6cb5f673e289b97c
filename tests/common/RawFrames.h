#pragma once

// Raw frame streams in tests: frames of one size, native byte order,
// row-major, one after the other.

#include <fstream>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace krotest {

template <class T>
std::vector<cv::Mat_<T>> readRaw(const std::string& path, cv::Size size)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<cv::Mat_<T>> frames;
    for (cv::Mat_<T> frame(size); in.read(reinterpret_cast<char*>(frame.data), frame.total() * sizeof(T));
         frame = cv::Mat_<T>(size))
        frames.push_back(frame);
    return frames;
}

template <class T>
void writeRaw(const std::string& path, const std::vector<cv::Mat_<T>>& frames)
{
    std::ofstream out(path, std::ios::binary);
    for (const auto& f : frames)
        out.write(reinterpret_cast<const char*>(f.data), static_cast<std::streamsize>(f.total() * sizeof(T)));
}

} // namespace krotest
