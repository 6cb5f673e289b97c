#pragma once

// The row loop of SrIntRegistration's pixel steps, shared by its two source
// files: static chunks of rows through the parallel layer, on as many
// threads as the work is worth, the count remembered for
// getLastThreadCount.

#include <algorithm>

#include "SrIntRegistration.h"
#include "detail/Parallel.h"

namespace velmor {
namespace kro {

template <class F>
void SrIntRegistration::forRows(int rows, std::size_t opsPerRow, F&& body)
{
    const int threads = threadsFor(static_cast<std::size_t>(rows) * opsPerRow);
    const int ran = parallel::parallelFor(threads, 0, rows, body);
    lastThreads = std::max(lastThreads, ran);
}

} // namespace kro
} // namespace velmor
