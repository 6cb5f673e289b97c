#pragma once

// File helpers shared by the frame readers and writers of kroenhance: file
// name patterns and extensions, byte order, image files through OpenCV and
// the library's PFM support, and the wording of file errors.

#include <string>
#include <vector>

#include <opencv2/core.hpp>

namespace kroenhance {
namespace frameio {

// The extension of `path` in lower case, with its dot ("" when none).
std::string lowerExtension(const std::string& path);
bool hostIsLittleEndian();
// Reverses the bytes of every sample (raw streams are little-endian).
void swapSampleBytes(cv::Mat& frame);
const char* depthName(int depth);
std::string inQuotes(const std::string& path);
// strerror of the current errno.
std::string systemError();
// Throws RunError when `path` is missing, a folder or unreadable.
void requireInputFile(const std::string& path);
bool looksLikePfm(const std::string& path);
// Every image of an image file (pages of a TIFF, records of a PFM stream).
std::vector<cv::Mat> loadImageFile(const std::string& path);
// A pattern with exactly one printf-style integer field ("out_%04d.png").
bool validPattern(const std::string& pattern);
std::string formatPattern(const std::string& pattern, long long index);
// The frame as the image format behind `ext` can hold it (rounded and
// saturated for 8/16-bit formats).
cv::Mat convertForImage(const cv::Mat& frame, const std::string& ext);
void writeImageFile(const std::string& path, const cv::Mat& frame, const std::string& ext);

} // namespace frameio
} // namespace kroenhance
