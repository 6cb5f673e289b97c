#pragma once

#include <algorithm>
#include <cstddef>
#include <new>

namespace velmor {
namespace kro {

// The frame buffer of the enhancer pipeline: rows x cols elements, row-major,
// element (r, c) at r * cols + c (cols is also the row stride).
//
// Layout, in order: data pointer, element count, two integers kept at 0,
// rows, cols, the owns-data flag, one more integer kept at 0. A matrix made
// with a size owns its elements (flag 1): copies are deep, the destructor
// frees them. `data` may be pointed at memory of the caller's (the pipeline
// does so for int frames, to avoid a copy); such a matrix must have its flag
// cleared with borrow(), and then neither frees nor copies what it points at
// beyond the elements a copy takes.
template <typename T>
class Matrix {
public:
    T* data = nullptr;
    int count = 0;
    int reserved0 = 0;
    int reserved1 = 0;
    int rows = 0;
    int cols = 0;
    int ownsData = 1;
    int reserved2 = 0;

    Matrix() = default;
    // Zero-filled. Throws std::bad_alloc for a negative size or when the
    // memory cannot be had.
    Matrix(int rows_, int cols_) : rows(rows_), cols(cols_)
    {
        if (rows_ < 0 || cols_ < 0 || (cols_ > 0 && rows_ > static_cast<int>(2147483647 / cols_)))
            throw std::bad_alloc();
        count = rows_ * cols_;
        data = new T[static_cast<std::size_t>(count)]();
    }
    Matrix(const Matrix& other) : reserved0(other.reserved0), reserved1(other.reserved1), rows(other.rows),
                                  cols(other.cols), reserved2(other.reserved2)
    {
        count = other.count;
        data = new T[static_cast<std::size_t>(count)];
        if (other.data)
            std::copy(other.data, other.data + count, data);
    }
    Matrix& operator=(const Matrix& other)
    {
        if (this != &other) {
            Matrix copy(other);
            swap(copy);
        }
        return *this;
    }
    ~Matrix()
    {
        if (ownsData)
            delete[] data;
    }

    // Points the matrix at `external` (rows x cols elements that the caller
    // keeps alive); the matrix's own elements are freed.
    void borrow(T* external)
    {
        if (ownsData)
            delete[] data;
        data = external;
        ownsData = 0;
    }

    T& operator()(int r, int c) { return data[static_cast<std::size_t>(r) * cols + c]; }
    const T& operator()(int r, int c) const { return data[static_cast<std::size_t>(r) * cols + c]; }
    T* row(int r) { return data + static_cast<std::size_t>(r) * cols; }
    const T* row(int r) const { return data + static_cast<std::size_t>(r) * cols; }

private:
    void swap(Matrix& other)
    {
        std::swap(data, other.data);
        std::swap(count, other.count);
        std::swap(reserved0, other.reserved0);
        std::swap(reserved1, other.reserved1);
        std::swap(rows, other.rows);
        std::swap(cols, other.cols);
        std::swap(ownsData, other.ownsData);
        std::swap(reserved2, other.reserved2);
    }
};

} // namespace kro
} // namespace velmor
