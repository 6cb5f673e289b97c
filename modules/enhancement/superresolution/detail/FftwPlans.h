#pragma once

// Private FFTW support of the float engine: the process-wide planner lock,
// SIMD-aligned buffers and the set of single-precision plans that carries out
// one 2-D real transform of a fixed size as independent blocks of rows and
// columns.
//
// Blocking: rows are transformed in blocks of kRowBlock rows and the
// complex columns of the spectrum in blocks of kColumnBlock adjacent columns.
// The blocks are fixed by the image size alone, so every value is computed by
// the same plan on the same data whichever thread runs its block: results do
// not depend on the number of threads. The block sizes are multiples of 64
// bytes of offset into an aligned array, so a block of an aligned array has
// the alignment the plans were made for.
//
// Thread-safety: making and destroying plans takes fftwPlannerMutex(); the
// execute calls use FFTW's new-array functions, which may run on one plan
// from several threads at once. A FftwPlans2d is immutable after
// construction and may be shared (std::shared_ptr<const FftwPlans2d>).

#include <cstddef>
#include <memory>
#include <mutex>

#include <fftw3.h>

namespace velmor {
namespace kro {
namespace detail {

// FFTW's planner and fftwf_destroy_plan are not thread-safe; every piece of
// the library that makes or destroys an FFTW plan holds this one lock.
std::mutex& fftwPlannerMutex();

struct FftwFree {
    void operator()(void* p) const noexcept { fftwf_free(p); }
};

template <typename T>
using FftwBuffer = std::unique_ptr<T[], FftwFree>;

// `count` elements from fftwf_malloc (SIMD-aligned); throws std::bad_alloc.
FftwBuffer<float> allocateFloats(std::size_t count);
FftwBuffer<fftwf_complex> allocateComplex(std::size_t count);

// True if `p` has the alignment of fftwf_malloc'd memory, which is what the
// plans below were made for.
bool hasFftwAlignment(const void* p);

class FftwPlans2d {
public:
    static constexpr int kRowBlock = 16;     // rows: 16 * width floats = 64 * width bytes
    static constexpr int kColumnBlock = 16;  // spectrum columns: 16 complex = 128 bytes

    // Plans for a width x height image (both >= 1, checked by the caller).
    // Throws velmor::kro::Exception if FFTW cannot make a plan.
    FftwPlans2d(int width, int height);
    ~FftwPlans2d();
    FftwPlans2d(const FftwPlans2d&) = delete;
    FftwPlans2d& operator=(const FftwPlans2d&) = delete;

    int rowBlocks() const { return rowBlockCount; }
    int columnBlocks() const { return columnBlockCount; }
    // Rows [firstRow(b), firstRow(b) + rowsIn(b)) make row block b, spectrum
    // columns [firstColumn(b), firstColumn(b) + columnsIn(b)) column block b.
    int firstRow(int block) const { return block * kRowBlock; }
    int rowsIn(int block) const;
    int firstColumn(int block) const { return block * kColumnBlock; }
    int columnsIn(int block) const;

    // All functions take the base pointers of whole arrays (height x width
    // floats, height x (width / 2 + 1) complex values), aligned as by
    // fftwf_malloc, and work on one block of them. None normalises.

    // Unnormalised r2c (sign -1) of each row of the block: image -> spectrum.
    // The image is only read.
    void forwardRows(int block, const float* image, fftwf_complex* spectrum) const;
    // In-place complex transform (sign -1) along each column of the block.
    void forwardColumns(int block, fftwf_complex* spectrum) const;
    // In-place complex transform (sign +1) along each column of the block.
    void backwardColumns(int block, fftwf_complex* spectrum) const;
    // c2r (sign +1) of each row of the block: spectrum -> image. Destroys the
    // block's rows of `spectrum`.
    void backwardRows(int block, fftwf_complex* spectrum, float* image) const;

private:
    // The plan for a full block and the one for a shorter last block (null
    // when the size is a multiple of the block).
    struct PlanPair {
        fftwf_plan full = nullptr;
        fftwf_plan last = nullptr;
    };

    void destroyAll() noexcept;

    int width;
    int height;
    int spectrumWidth;
    int rowBlockCount;
    int columnBlockCount;
    PlanPair rowForward;
    PlanPair columnForward;
    PlanPair columnBackward;
    PlanPair rowBackward;
};

} // namespace detail
} // namespace kro
} // namespace velmor
