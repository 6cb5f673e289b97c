#pragma once

namespace velmor {
namespace kro {

// A frame's displacement against the reference frame, in low-resolution
// pixels: x to the right, y downwards.
struct PointF {
    float x = 0.0f;
    float y = 0.0f;
    PointF() = default;
    PointF(float x_, float y_) : x(x_), y(y_) {}
};

// Integer pixel offsets.
struct PointI {
    int x = 0;
    int y = 0;
    PointI() = default;
    PointI(int x_, int y_) : x(x_), y(y_) {}
};

} // namespace kro
} // namespace velmor
