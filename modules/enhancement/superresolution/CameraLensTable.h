#pragma once

// The camera and lens table: the sensor blur of a camera described in
// free text. Public because front ends other than the C interface (the
// command-line tool, callers of the C++ engines) accept the same
// descriptions and should turn them into the same blur.

#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Sensor blur used when the camera is unknown, in pixels of the output grid.
constexpr float kDefaultPsfSigma = 0.683f;

// Reads a camera model and a lens field of view from a free-form
// description such as "camera k57 FOV 25". The first model key found in the
// fixed table order k41, k43, k44, k52, k53, k54, k57, k61 decides the model
// code ("mk57"); the integer after "FOV" is the field of view in degrees.
// Returns true when both were found (a field of view of -1, or no number
// after "FOV", counts as not found). `modelCode` is set whenever a key is
// found, `fieldOfView` whenever "FOV" is.
KROLIB_EXPORT bool decodeCameraType(const std::string& description, std::string& modelCode, int& fieldOfView);

// The Gaussian sigma of the sensor's point-spread function for a decoded
// camera; kDefaultPsfSigma for an unknown model code.
KROLIB_EXPORT float psfSigmaFor(const std::string& modelCode, int fieldOfView);

} // namespace kro
} // namespace velmor
