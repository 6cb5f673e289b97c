#include <atomic>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "detail/Parallel.h"

namespace parallel = velmor::kro::parallel;

// Static chunking: every row of the range is visited exactly once, by the
// thread chunkOf assigns it to, whatever the thread count (more threads than
// rows included), and the loop reports how many threads really worked.
TEST(ParallelLayer, RowsAreSplitExactlyOnceAndTheSplitIsReported)
{
    for (int threads : {1, 2, 3, 7}) {
        for (int rows : {0, 1, 5, 64}) {
            std::vector<std::atomic<int>> visits(static_cast<std::size_t>(rows) + 3);
            for (auto& v : visits)
                v = 0;
            const int ran = parallel::parallelFor(threads, 3, 3 + rows, [&](int b, int e) {
                for (int r = b; r < e; ++r)
                    ++visits[static_cast<std::size_t>(r)];
            });
            for (int r = 0; r < rows + 3; ++r) {
                EXPECT_EQ(visits[static_cast<std::size_t>(r)], r < 3 ? 0 : 1) << threads << " threads, row " << r;
            }
            if (rows > 0) {
                EXPECT_EQ(ran, std::min(threads, rows)) << threads << " threads, " << rows << " rows";
            }
        }
    }
    const parallel::RowRange last = parallel::chunkOf(0, 10, 2, 3);
    EXPECT_EQ(last.begin, 6);
    EXPECT_EQ(last.end, 10);
}

// Ordered reductions give the same bits for any thread count, though the
// terms are chosen so that a different summation order would change them.
TEST(ParallelLayer, OrderedSumsDoNotDependOnTheThreadCount)
{
    const int rows = 1001;
    auto value = [](int r) { return (r % 2 ? 1e16 : -1e16) + r * 0.37; };
    std::vector<double> scratch(rows);
    int ran = 0;
    const double one = parallel::parallelSum(1, 0, rows, scratch.data(), value, &ran);
    EXPECT_EQ(ran, 1);
    for (int threads : {2, 7}) {
        EXPECT_EQ(parallel::parallelSum(threads, 0, rows, scratch.data(), value, &ran), one);
        EXPECT_EQ(ran, threads);
    }
    std::vector<std::int64_t> ints(rows);
    const auto big = [](int r) { return static_cast<std::int64_t>(r) << 40; };
    EXPECT_EQ(parallel::parallelSum(7, 0, rows, ints.data(), big), (static_cast<std::int64_t>(rows) * (rows - 1) / 2) << 40);
}

// A region shares several loops among one team: each loop sees the previous
// loop's results (barriers), single() runs once, and every thread gets the
// same ordered sum.
TEST(ParallelLayer, TeamLoopsSeeEachOthersResultsAndAgreeOnSums)
{
    const int rows = 50;
    std::vector<double> a(rows), b(rows), sums(rows);
    std::atomic<int> singles{0};
    std::vector<double> perThread(7, -1.0);
    const int ran = parallel::parallelRegion(7, [&](const parallel::Team& team) {
        team.forRows(0, rows, [&](int s, int e) {
            for (int r = s; r < e; ++r)
                a[r] = r;
        });
        team.forRows(0, rows, [&](int s, int e) {
            for (int r = s; r < e; ++r)
                b[r] = a[rows - 1 - r] * 2.0;  // rows another thread wrote
        });
        team.single([&] { ++singles; });
        perThread[team.index()] = team.sumRows(0, rows, sums.data(), [&](int r) { return b[r]; });
    });
    EXPECT_EQ(ran, 7);
    EXPECT_EQ(singles, 1);
    for (int t = 0; t < ran; ++t) {
        EXPECT_EQ(perThread[t], 2.0 * rows * (rows - 1) / 2) << "thread " << t;
    }
}

TEST(ParallelLayer, ExceptionsReachTheCallerAndSmallWorkStaysOnOneThread)
{
    EXPECT_THROW(parallel::parallelFor(2, 0, 10, [](int b, int) {
                     if (b > 0)
                         throw std::runtime_error("second chunk");
                 }),
                 std::runtime_error);
    EXPECT_EQ(parallel::threadsForWork(7, 1000), 1);
    EXPECT_EQ(parallel::threadsForWork(7, 1000, 0), 7);
    EXPECT_EQ(parallel::threadsForWork(2, std::size_t(1) << 30), 2);
    EXPECT_GE(parallel::resolveThreads(0), 1);
    EXPECT_EQ(parallel::resolveThreads(3), 3);
}
