#include "SprCmod.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "detail/ModelFrames.h"
#include "detail/StaticPatternStep.h"
#include "detail/Throw.h"

namespace kd = velmor::kro::detail;

namespace {

int clampTo(int value, int low, int high) { return std::min(std::max(value, low), high); }

// The offset-binary sample of a value: its low 16 bits, top bit flipped.
inline int offsetBinary(int value) { return (value & 0xFFFF) ^ 0x8000; }

constexpr int kMaxStart = -65535;  // running extremes of the hardware
constexpr int kMinStart = 65535;

} // namespace

SprCmod::SprCmod(int cols, int rows, int& threshold, int& lineLimit, int& frameLimit, int delay, int mode)
    : mThreshold(&threshold),
      mLineLimit(&lineLimit),
      mFrameLimit(&frameLimit),
      mCols(cols),
      mRows(rows),
      mDelay(delay),
      mMode(mode)
{
    // Negative delays are refused as well: the register chain has 0..2 stages.
    if (delay < 0 || delay > kMaxDelay) {
        std::printf("ERROR: illegal delay value\n");
        std::fflush(stdout);
        std::abort();
    }
    if (!kd::validModelFrameSize(cols, rows))
        KRO_THROW("invalid frame size " << cols << "x" << rows);
    mLinePattern.assign(static_cast<std::size_t>(cols), 0);
    mFramePattern.assign(static_cast<std::size_t>(cols) * rows, 0);
}

int SprCmod::Div9LessAccurate(int x) const { return kd::div9LessAccurate(x); }

void SprCmod::GetInput3x3(int x, int y, int* nine) const
{
    for (int dy = -1; dy <= 1; ++dy) {
        const int r = clampTo(y + dy, 0, mRows - 1);
        for (int dx = -1; dx <= 1; ++dx)
            nine[(dy + 1) * 3 + dx + 1] = offsetBinary(mIn[static_cast<std::size_t>(r) * mCols + clampTo(x + dx, 0, mCols - 1)]);
    }
}

void SprCmod::GetInput1x9(int x, int y, int* nine) const
{
    const int* row = mIn + static_cast<std::size_t>(y) * mCols;
    for (int k = 0; k < 9; ++k)
        nine[k] = offsetBinary(row[clampTo(x + k - 4, 0, mCols - 1)]);
}

void SprCmod::GetLine1x9s10(int x, int* nine) const
{
    for (int k = 0; k < 9; ++k)
        nine[k] = mFirstFrame ? 0 : kd::correction(mLinePattern[clampTo(x + k - 4, 0, mCols - 1)], kd::kLineShift);
}

int SprCmod::Max(int a, int b) const { return a > b ? a : b; }

int SprCmod::Max(int* nine) const
{
    int m = kMaxStart;
    for (int k = 0; k < 9; ++k)
        m = Max(m, nine[k]);
    return m;
}

int SprCmod::Min(int* nine) const
{
    int m = kMinStart;
    for (int k = 0; k < 9; ++k)
        m = nine[k] < m ? nine[k] : m;
    return m;
}

int SprCmod::Sum8(int* nine) const
{
    int sum = 0;
    for (int k = 0; k < 9; ++k)
        sum += k == 4 ? 0 : nine[k];
    return sum;
}

// 0.7 of the threshold in double precision, truncated.
int SprCmod::Th07() const { return static_cast<int>(clampTo(*mThreshold, kMinThreshold, kMaxThreshold) * 0.7); }

void SprCmod::step(int x, int y)
{
    const int threshold = clampTo(*mThreshold, kMinThreshold, kMaxThreshold);
    const int lineLimit = clampTo(*mLineLimit, kMinLimit, kMaxLimit);
    const int frameLimit = clampTo(*mFrameLimit, kMinLimit, kMaxLimit);
    int block[9], run[9], lines[9];
    GetInput3x3(x, y, block);
    GetInput1x9(x, y, run);
    GetLine1x9s10(x, lines);

    const std::size_t i = static_cast<std::size_t>(y) * mCols + x;
    const int value = mIn[i];
    const std::int32_t frame = mFramePattern[i];
    const std::int32_t fc = kd::correction(frame, kd::kFrameShift);
    const int corrections = Div9LessAccurate(fc) + Div9LessAccurate(lines[4]);
    if (mMode == kModeSigned)
        mOut[i] = block[4] - corrections - 32768;
    else if (value < 0)
        mOut[i] = value;  // marker
    else
        mOut[i] = static_cast<int>(((static_cast<std::uint32_t>(value) ^ 0xFFFF8000u) - static_cast<std::uint32_t>(corrections)) & 0xFFFFu) ^ 0x8000;

    const int s3 = Sum8(block), s9 = Sum8(run);
    const int m3 = s3 >> 3, m9 = s9 >> 3;
    const int r3 = Max(std::abs(Min(block) - m3), std::abs(Max(block) - m3));
    const int r9 = Max(std::abs(Min(run) - m9), std::abs(Max(run) - m9));
    const bool learn = r3 < threshold || r9 < threshold;
    int error = 0;
    if (learn) {
        const int e3 = s3 - Div9LessAccurate(3 * (lines[5] - 2 * lines[4] + lines[3]));
        const int e9 = s9 - Div9LessAccurate(Sum8(lines) - 8 * lines[4]);
        error = kd::frameError(e3, e9, r3, r9, threshold);
    }
    mFramePattern[i] = kd::nextFramePattern(frame, fc, block[4], learn, error, frameLimit);

    const std::int32_t line =
        kd::nextLinePattern(mLinePattern[x], lines[4], block[4], s3, r3, s9, r9, threshold, mTh07, lineLimit);
    // The new line value enters the register chain; the value that leaves
    // it belongs to the column one (delay 1) or two (delay 0, 2) to the left.
    if (mDelay == 1) {
        if (x > 0)
            mLinePattern[x - 1] = mDelay1;
        mDelay1 = line;
    } else {
        if (x > 1)
            mLinePattern[x - 2] = mDelay1;
        mDelay1 = mDelay2;
        mDelay2 = line;
    }
}

// End of a row: the registers still hold the last one or two columns.
void SprCmod::flushDelay()
{
    const int last = mCols - 1;
    if (mDelay == 1) {
        mLinePattern[last] = mDelay1;
    } else {
        mLinePattern[last] = mDelay2;
        // A one-column frame has no column before the last; register 1 then
        // holds a stale value of the previous row.
        if (last > 0)
            mLinePattern[last - 1] = mDelay1;
    }
}

void SprCmod::ProcessPel(int x, int y)
{
    if (!mIn || !mOut)
        KRO_THROW("no frame in progress");
    if (x < 0 || x >= mCols || y < 0 || y >= mRows)
        KRO_THROW("pixel (" << x << ", " << y << ") outside the " << mCols << "x" << mRows << " frame");
    step(x, y);
}

void SprCmod::ProcessFrame(const int* in, int* out)
{
    if (!in || !out)
        KRO_THROW("null frame");
    const std::size_t count = mFramePattern.size();
    mTh07 = Th07();
    if (mFirstFrame) {
        std::fill(mLinePattern.begin(), mLinePattern.end(), 0);
        std::fill(mFramePattern.begin(), mFramePattern.end(), 0);
    }
    if (mMode == kModeBypass) {
        mFirstFrame = false;
        if (in != out)
            std::memmove(out, in, count * sizeof(int));
        return;
    }
    if (kd::framesOverlap(in, out, count))
        KRO_THROW("input and output frames share memory");
    mIn = in;
    mOut = out;
    for (int y = 0; y < mRows; ++y) {
        for (int x = 0; x < mCols; ++x)
            step(x, y);
        flushDelay();
        mFirstFrame = false;
    }
}
