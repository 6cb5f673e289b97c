#pragma once

// The one parallel layer of the library: every parallel loop of the engines
// and filters goes through it, and no other file uses OpenMP directly.
//
// Rules that keep results deterministic and the library a good guest:
//  - The thread count is an explicit setting of each engine or filter
//    (`threads` in its options: 0 means OpenMP's default for a new region,
//    n > 0 means at most n). Nothing here touches process-global OpenMP state;
//    the library starts no threads of its own (OpenMP's team is the caller's).
//  - Work is split into contiguous row ranges by static chunking: thread t of
//    T gets rows [begin + n*t/T, begin + n*(t+1)/T). The split is a pure
//    function of (n, T), so a test can predict it.
//  - Reductions go through one slot per row (double for float code, 64-bit
//    integers for integer code) that are summed afterwards in row order, so
//    a result does not depend on how many threads ran.
//  - Opening a region wakes the team (tens of microseconds up to a
//    millisecond on a loaded machine): small problems run on the calling
//    thread (threadsForWork), and multi-step work opens one region
//    (parallelRegion) and shares its loops inside it (Team::forRows).
//
// Every function returns, or lets the caller ask, how many threads really
// worked, so that tests can assert that a loop was split.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <vector>

#ifdef _OPENMP
#include <omp.h>
#endif

// Marks a loop whose iterations are independent for vectorisation (OpenMP's
// simd directive, the one OpenMP construct allowed outside this file's
// functions, always through this macro). Nothing when built without OpenMP.
#ifdef _OPENMP
#define KROLIB_SIMD_LOOP _Pragma("omp simd")
#else
#define KROLIB_SIMD_LOOP
#endif

namespace velmor {
namespace kro {
namespace parallel {

// Below this many elementary operations per thread a second thread does not
// pay for its wake-up (measured on the float engine's loops, two cores).
constexpr std::size_t kMinWorkPerThread = std::size_t(1) << 20;

// Threads a region opened with the setting `threads` would get: the setting
// itself when positive, OpenMP's default for a new region when 0 (or
// negative). Always at least 1; 1 when built without OpenMP.
inline int resolveThreads(int threads)
{
#ifdef _OPENMP
    return threads > 0 ? threads : std::max(1, omp_get_max_threads());
#else
    (void)threads;
    return 1;
#endif
}

// Threads worth using for `work` elementary operations under the setting
// `threads`: 1 for small problems, never more than resolveThreads(threads).
// A `minWorkPerThread` of 0 disables the size rule (tests use it to force a
// split of small inputs).
inline int threadsForWork(int threads, std::size_t work,
                          std::size_t minWorkPerThread = kMinWorkPerThread)
{
    const int limit = resolveThreads(threads);
    if (minWorkPerThread == 0)
        return limit;
    const std::size_t byWork = std::max<std::size_t>(1, work / minWorkPerThread);
    return static_cast<int>(std::min<std::size_t>(byWork, static_cast<std::size_t>(limit)));
}

// The rows of [begin, end) that thread `t` of `teamSize` owns.
struct RowRange {
    int begin;
    int end;
};

inline RowRange chunkOf(int begin, int end, int t, int teamSize)
{
    const long long n = std::max(0, end - begin);
    return {begin + static_cast<int>(n * t / teamSize), begin + static_cast<int>(n * (t + 1) / teamSize)};
}

// Sum of per-row partial sums in row order: the fixed combination that makes
// a reduction independent of how rows were shared among threads.
inline double sumInOrder(const double* parts, int count)
{
    double sum = 0.0;
    for (int i = 0; i < count; ++i)
        sum += parts[i];
    return sum;
}

inline std::int64_t sumInOrder(const std::int64_t* parts, int count)
{
    std::int64_t sum = 0;
    for (int i = 0; i < count; ++i)
        sum += parts[i];
    return sum;
}

// Keeps the first exception thrown by any thread of a region, to rethrow it
// on the calling thread once the region has closed (an exception must never
// leave an OpenMP region).
class FirstError {
public:
    template <class F>
    void run(F&& body) noexcept
    {
        try {
            body();
        } catch (...) {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!error_)
                error_ = std::current_exception();
        }
    }
    bool failed() const { return static_cast<bool>(error_); }
    void rethrowIfAny() const
    {
        if (error_)
            std::rethrow_exception(error_);
    }

private:
    std::mutex mutex_;
    std::exception_ptr error_;
};

// The team of an open region, handed to the body of parallelRegion. Its
// loops are work-sharing: every thread of the team must call them in the
// same order (as with OpenMP's orphaned `for`).
class Team {
public:
    Team(int index, int size) : index_(index), size_(size) {}

    int index() const { return index_; }
    int size() const { return size_; }
    bool isMaster() const { return index_ == 0; }

    // Waits until every thread of the team has arrived.
    void barrier() const
    {
#ifdef _OPENMP
        if (size_ > 1) {
#pragma omp barrier
        }
#endif
    }

    // body(rowBegin, rowEnd) on this thread's chunk of [begin, end), then a
    // barrier (unless `wait` is false): afterwards every row is done.
    template <class F>
    void forRows(int begin, int end, F&& body, bool wait = true) const
    {
        const RowRange r = chunkOf(begin, end, index_, size_);
        if (r.begin < r.end)
            body(r.begin, r.end);
        if (wait)
            barrier();
    }

    // body() on the master thread only, then a barrier: the usual way to
    // write a shared scalar or emit a trace inside a region.
    template <class F>
    void single(F&& body) const
    {
        if (isMaster())
            body();
        barrier();
    }

    // Fills rowSums[r - begin] with rowValue(r) for every row of [begin, end)
    // (shared among the team), then every thread returns the same ordered
    // sum. `rowSums` must hold end - begin values and be shared by the team.
    template <class T, class F>
    T sumRows(int begin, int end, T* rowSums, F&& rowValue) const
    {
        forRows(begin, end, [&](int b, int e) {
            for (int r = b; r < e; ++r)
                rowSums[r - begin] = rowValue(r);
        });
        return sumInOrder(rowSums, end - begin);
    }

private:
    int index_;
    int size_;
};

// Opens one region of at most `threads` threads (a resolved count, as from
// threadsForWork) and runs body(const Team&) on each. Returns the number of
// threads that really ran. An exception thrown by any thread is rethrown
// here after the region; the body must then not rely on barriers after the
// throwing point being reached by all threads, so bodies that can throw
// should throw only before their first barrier or after their last.
template <class F>
int parallelRegion(int threads, F&& body)
{
    threads = std::max(1, threads);
    FirstError error;
    int ran = 1;
#ifdef _OPENMP
    if (threads > 1) {
#pragma omp parallel num_threads(threads)
        {
            const Team team(omp_get_thread_num(), omp_get_num_threads());
            if (team.isMaster())
                ran = team.size();
            error.run([&] { body(team); });
        }
        error.rethrowIfAny();
        return ran;
    }
#endif
    error.run([&] { body(Team(0, 1)); });
    error.rethrowIfAny();
    return ran;
}

// body(rowBegin, rowEnd) over [begin, end) with static chunking on at most
// `threads` threads (a resolved count). Returns the threads that ran.
template <class F>
int parallelFor(int threads, int begin, int end, F&& body)
{
    if (end <= begin)
        return 1;
    threads = std::min(std::max(1, threads), end - begin);
    return parallelRegion(threads, [&](const Team& team) { team.forRows(begin, end, body, false); });
}

// Ordered reduction: rowValue(r) (double, or std::int64_t for integer code)
// for every row of [begin, end), summed in row order. `rowSums` is the
// caller's scratch of at least end - begin values (allocated once, not per
// call); `threadsRan`, when given, receives the threads that worked.
template <class T, class F>
T parallelSum(int threads, int begin, int end, T* rowSums, F&& rowValue, int* threadsRan = nullptr)
{
    const int ran = parallelFor(threads, begin, end, [&](int b, int e) {
        for (int r = b; r < e; ++r)
            rowSums[r - begin] = rowValue(r);
    });
    if (threadsRan)
        *threadsRan = ran;
    return sumInOrder(rowSums, std::max(0, end - begin));
}

// Index of the calling thread in its team and the team's size (0 and 1
// outside a region): for per-thread scratch buffers.
inline int threadIndex()
{
#ifdef _OPENMP
    return omp_get_thread_num();
#else
    return 0;
#endif
}

// Per-thread scratch an object allocates once (in its constructor or when
// the thread count changes): enough slots for `threads` (a setting, resolved
// here). Regions are then capped to capacity().
inline int threadCapacity(int threads) { return resolveThreads(threads); }

} // namespace parallel
} // namespace kro
} // namespace velmor
