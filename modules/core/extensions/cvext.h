#pragma once

// Matrix conversion helpers of the fixed-point engine: float images to
// 16-bit integer images and back, with a range check on every input value.

#include <opencv2/core.hpp>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// A new short matrix of src's size. Row by row, for each value v:
// v < minValue throws "convertMatFloatToMatInt: value clamped to min",
// v > maxValue throws "convertMatFloatToMatInt: value clamped to max" (the
// first offending value in row-major order decides; nothing is clamped
// despite the wording); otherwise t = (v + offset) * scale when offsetFirst,
// else v * scale + offset (single precision), rounded half away from zero
// to a 32-bit integer whose low 16 bits are stored. The range test is on
// the input only: a scaled result beyond 16 bits wraps, deliberately (a
// PSF tap of exactly 0.5 at scale 65536 is stored as -32768 and read back
// as the unsigned 32768). A NaN passes both tests.
KROLIB_EXPORT cv::Mat_<short> convertMatFloatToMatInt(const cv::Mat_<float>& src, float minValue,
                                                      float maxValue, float scale, float offset,
                                                      bool offsetFirst);

// A new float matrix of src's size: v * scale + offset for each value v,
// after the range test ("convertMatIntToMatFloat: value clamped to min" /
// "... to max").
KROLIB_EXPORT cv::Mat_<float> convertMatIntToMatFloat(const cv::Mat_<short>& src, short minValue,
                                                      short maxValue, float scale, float offset);

} // namespace kro
} // namespace velmor
