#include "detail/FftwPlans.h"

#include <algorithm>
#include <new>

#include "detail/Throw.h"

namespace velmor {
namespace kro {
namespace detail {

namespace {

// FFTW_MEASURE times candidate algorithms the first time a size is planned
// in the process (up to about a second for sensor sizes; later objects of the
// same size get the same plans from FFTW's wisdom at once). FFTW_ESTIMATE's
// guesses for these strided block transforms made the transform pair up to
// 1.5x slower than a plain 2-D plan. Within a process the plans, and so the
// results, are fixed; another process or machine may time its way to other
// algorithms that differ in the last bits.
constexpr unsigned kPlannerFlags = FFTW_MEASURE;
// The short last blocks carry a small share of the work; guessing their
// plans halves the planning time of sizes that are not multiples of a block.
constexpr unsigned kLastBlockFlags = FFTW_ESTIMATE;

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

    const int lastRows = height % kRowBlock;
    const int lastColumns = spectrumWidth % kColumnBlock;
    const int fullRows = std::min(height, kRowBlock);
    const int fullColumns = std::min(spectrumWidth, kColumnBlock);

    std::lock_guard<std::mutex> lock(fftwPlannerMutex());
    auto rowsR2c = [&](int rows, unsigned flags) {
        int n = width;
        return fftwf_plan_many_dft_r2c(1, &n, rows, image.get(), nullptr, 1, width,
                                       spectrum.get(), nullptr, 1, spectrumWidth,
                                       flags | FFTW_PRESERVE_INPUT);
    };
    auto rowsC2r = [&](int rows, unsigned flags) {
        int n = width;
        return fftwf_plan_many_dft_c2r(1, &n, rows, spectrum.get(), nullptr, 1, spectrumWidth,
                                       image.get(), nullptr, 1, width,
                                       flags | FFTW_DESTROY_INPUT);
    };
    // The column transforms run in place: out of place, FFTW's strided
    // column plans are markedly slower on some sizes (320x240 by a third).
    auto columns = [&](int count, int sign, unsigned flags) {
        int n = height;
        return fftwf_plan_many_dft(1, &n, count, spectrum.get(), nullptr, spectrumWidth, 1,
                                   spectrum.get(), nullptr, spectrumWidth, 1, sign, flags);
    };

    rowForward.full = rowsR2c(fullRows, kPlannerFlags);
    rowBackward.full = rowsC2r(fullRows, kPlannerFlags);
    columnForward.full = columns(fullColumns, FFTW_FORWARD, kPlannerFlags);
    columnBackward.full = columns(fullColumns, FFTW_BACKWARD, kPlannerFlags);
    bool ok = rowForward.full && rowBackward.full && columnForward.full && columnBackward.full;
    if (ok && lastRows != 0 && height > kRowBlock) {
        rowForward.last = rowsR2c(lastRows, kLastBlockFlags);
        rowBackward.last = rowsC2r(lastRows, kLastBlockFlags);
        ok = rowForward.last && rowBackward.last;
    }
    if (ok && lastColumns != 0 && spectrumWidth > kColumnBlock) {
        columnForward.last = columns(lastColumns, FFTW_FORWARD, kLastBlockFlags);
        columnBackward.last = columns(lastColumns, FFTW_BACKWARD, kLastBlockFlags);
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

int FftwPlans2d::columnsIn(int block) const
{
    return std::min(kColumnBlock, spectrumWidth - block * kColumnBlock);
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
    const bool full = columnsIn(block) == kColumnBlock || !columnForward.last;
    fftwf_complex* data = spectrum + firstColumn(block);
    fftwf_execute_dft(full ? columnForward.full : columnForward.last, data, data);
}

void FftwPlans2d::backwardColumns(int block, fftwf_complex* spectrum) const
{
    const bool full = columnsIn(block) == kColumnBlock || !columnBackward.last;
    fftwf_complex* data = spectrum + firstColumn(block);
    fftwf_execute_dft(full ? columnBackward.full : columnBackward.last, data, data);
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
