#include "detail/FftwPlans.h"

#include <algorithm>
#include <new>

#include "detail/Throw.h"

namespace velmor {
namespace kro {
namespace detail {

namespace {

// FFTW_ESTIMATE picks plans by a fixed heuristic, so the same size gets the
// same plan in every process and results are reproducible bit for bit from
// run to run; timing-based planning (FFTW_MEASURE) gains little on these
// sizes and would make the last bits depend on machine load at start-up.
constexpr unsigned kPlannerFlags = FFTW_ESTIMATE;

template <typename T>
FftwBuffer<T> allocate(std::size_t count)
{
    void* p = fftwf_malloc(sizeof(T) * std::max<std::size_t>(count, 1));
    if (!p)
        throw std::bad_alloc();
    return FftwBuffer<T>(static_cast<T*>(p));
}

} // namespace

std::mutex& fftwPlannerMutex()
{
    static std::mutex mutex;
    return mutex;
}

FftwBuffer<float> allocateFloats(std::size_t count) { return allocate<float>(count); }

FftwBuffer<fftwf_complex> allocateComplex(std::size_t count)
{
    return allocate<fftwf_complex>(count);
}

bool hasFftwAlignment(const void* p)
{
    return fftwf_alignment_of(static_cast<float*>(const_cast<void*>(p))) == 0;
}

FftwPlans2d::FftwPlans2d(int width_, int height_)
    : width(width_),
      height(height_),
      spectrumWidth(width_ / 2 + 1),
      rowBlockCount((height_ + kRowBlock - 1) / kRowBlock),
      columnBlockCount((width_ / 2 + 1 + kColumnBlock - 1) / kColumnBlock)
{
    const std::size_t pixels = static_cast<std::size_t>(width) * height;
    const std::size_t bins = static_cast<std::size_t>(spectrumWidth) * height;
    // Arrays to plan on: FFTW looks at their alignment and at whether input
    // and output coincide; the execute calls later pass arrays of the same kind.
    FftwBuffer<float> image = allocateFloats(pixels);
    FftwBuffer<fftwf_complex> spectrum = allocateComplex(bins);
    FftwBuffer<fftwf_complex> other = allocateComplex(bins);

    const int lastRows = height % kRowBlock;
    const int lastColumns = spectrumWidth % kColumnBlock;
    const int fullRows = std::min(height, kRowBlock);
    const int fullColumns = std::min(spectrumWidth, kColumnBlock);

    std::lock_guard<std::mutex> lock(fftwPlannerMutex());
    auto rowsR2c = [&](int rows) {
        int n = width;
        return fftwf_plan_many_dft_r2c(1, &n, rows, image.get(), nullptr, 1, width,
                                       spectrum.get(), nullptr, 1, spectrumWidth,
                                       kPlannerFlags | FFTW_PRESERVE_INPUT);
    };
    auto rowsC2r = [&](int rows) {
        int n = width;
        return fftwf_plan_many_dft_c2r(1, &n, rows, spectrum.get(), nullptr, 1, spectrumWidth,
                                       image.get(), nullptr, 1, width,
                                       kPlannerFlags | FFTW_DESTROY_INPUT);
    };
    auto columnsForward = [&](int columns) {
        int n = height;
        return fftwf_plan_many_dft(1, &n, columns, spectrum.get(), nullptr, spectrumWidth, 1,
                                   spectrum.get(), nullptr, spectrumWidth, 1, FFTW_FORWARD,
                                   kPlannerFlags);
    };
    auto columnsBackward = [&](int columns) {
        int n = height;
        return fftwf_plan_many_dft(1, &n, columns, other.get(), nullptr, spectrumWidth, 1,
                                   spectrum.get(), nullptr, spectrumWidth, 1, FFTW_BACKWARD,
                                   kPlannerFlags | FFTW_PRESERVE_INPUT);
    };

    rowForward.full = rowsR2c(fullRows);
    rowBackward.full = rowsC2r(fullRows);
    columnForward.full = columnsForward(fullColumns);
    columnBackward.full = columnsBackward(fullColumns);
    bool ok = rowForward.full && rowBackward.full && columnForward.full && columnBackward.full;
    if (ok && lastRows != 0 && height > kRowBlock) {
        rowForward.last = rowsR2c(lastRows);
        rowBackward.last = rowsC2r(lastRows);
        ok = rowForward.last && rowBackward.last;
    }
    if (ok && lastColumns != 0 && spectrumWidth > kColumnBlock) {
        columnForward.last = columnsForward(lastColumns);
        columnBackward.last = columnsBackward(lastColumns);
        ok = columnForward.last && columnBackward.last;
    }
    if (!ok) {
        destroyAll();
        KRO_THROW("FFTW cannot plan a transform of size " << width << "x" << height);
    }
}

FftwPlans2d::~FftwPlans2d()
{
    std::lock_guard<std::mutex> lock(fftwPlannerMutex());
    destroyAll();
}

// Caller holds fftwPlannerMutex().
void FftwPlans2d::destroyAll() noexcept
{
    for (PlanPair* pair : {&rowForward, &rowBackward, &columnForward, &columnBackward}) {
        for (fftwf_plan* plan : {&pair->full, &pair->last}) {
            if (*plan)
                fftwf_destroy_plan(*plan);
            *plan = nullptr;
        }
    }
}

int FftwPlans2d::rowsIn(int block) const
{
    return std::min(kRowBlock, height - block * kRowBlock);
}

void FftwPlans2d::forwardRows(int block, const float* image, fftwf_complex* spectrum) const
{
    const int row = firstRow(block);
    const fftwf_plan plan = rowsIn(block) == kRowBlock || !rowForward.last ? rowForward.full
                                                                           : rowForward.last;
    // The plan was made with FFTW_PRESERVE_INPUT: the image is not written.
    fftwf_execute_dft_r2c(plan, const_cast<float*>(image) + static_cast<std::size_t>(row) * width,
                          spectrum + static_cast<std::size_t>(row) * spectrumWidth);
}

void FftwPlans2d::forwardColumns(int block, fftwf_complex* spectrum) const
{
    const int column = block * kColumnBlock;
    const bool full = spectrumWidth - column >= kColumnBlock || !columnForward.last;
    fftwf_complex* data = spectrum + column;
    fftwf_execute_dft(full ? columnForward.full : columnForward.last, data, data);
}

void FftwPlans2d::backwardColumns(int block, const fftwf_complex* from, fftwf_complex* to) const
{
    const int column = block * kColumnBlock;
    const bool full = spectrumWidth - column >= kColumnBlock || !columnBackward.last;
    // Made with FFTW_PRESERVE_INPUT: `from` is not written.
    fftwf_execute_dft(full ? columnBackward.full : columnBackward.last,
                      const_cast<fftwf_complex*>(from) + column, to + column);
}

void FftwPlans2d::backwardRows(int block, fftwf_complex* spectrum, float* image) const
{
    const int row = firstRow(block);
    const fftwf_plan plan = rowsIn(block) == kRowBlock || !rowBackward.last ? rowBackward.full
                                                                            : rowBackward.last;
    fftwf_execute_dft_c2r(plan, spectrum + static_cast<std::size_t>(row) * spectrumWidth,
                          image + static_cast<std::size_t>(row) * width);
}

} // namespace detail
} // namespace kro
} // namespace velmor
