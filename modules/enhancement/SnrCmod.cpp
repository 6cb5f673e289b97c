#include "SnrCmod.h"

#include <algorithm>
#include <cstring>

#include "detail/ModelFrames.h"
#include "detail/SpatialNoiseStep.h"
#include "detail/Throw.h"

namespace kd = velmor::kro::detail;

SnrCmod::SnrCmod(int cols, int rows, int& gain, int mode) : mGain(&gain), mCols(cols), mRows(rows), mMode(mode)
{
    if (!kd::validModelFrameSize(cols, rows))
        KRO_THROW("invalid frame size " << cols << "x" << rows);
}

int SnrCmod::Div9(int x) const { return kd::div9(x); }

void SnrCmod::GetInput3x3(int x, int y, int* nine) const
{
    for (int dy = -1; dy <= 1; ++dy) {
        const int r = std::min(std::max(y + dy, 0), mRows - 1);
        for (int dx = -1; dx <= 1; ++dx) {
            const int c = std::min(std::max(x + dx, 0), mCols - 1);
            nine[(dy + 1) * 3 + dx + 1] = (mIn[static_cast<std::size_t>(r) * mCols + c] & 0xFFFF) ^ 0x8000;
        }
    }
}

int SnrCmod::Mean(int* nine) const { return kd::blockMean(nine); }

// The sum of the absolute deviations (the hardware's name for it).
int SnrCmod::Variance(int* nine, int mean) const { return kd::blockAbsoluteDeviation(nine, mean); }

int SnrCmod::K(int sad) const { return kd::smoothingK(sad, std::min(std::max(*mGain, kMinGain), kMaxGain)); }

void SnrCmod::step(int x, int y)
{
    const std::size_t i = static_cast<std::size_t>(y) * mCols + x;
    const int value = mIn[i];
    if (mMode != kModeSigned && value < 0) {  // marker
        mOut[i] = value;
        return;
    }
    int nine[9];
    GetInput3x3(x, y, nine);
    const int mean = Mean(nine);
    const int r = kd::smoothedSample(mean, nine[4], K(Variance(nine, mean)));
    mOut[i] = mMode == kModeSigned ? r - 32768 : (r & 0xFFFF) ^ 0x8000;
}

void SnrCmod::ProcessPel(int x, int y)
{
    if (!mIn || !mOut)
        KRO_THROW("no frame in progress");
    if (x < 0 || x >= mCols || y < 0 || y >= mRows)
        KRO_THROW("pixel (" << x << ", " << y << ") outside the " << mCols << "x" << mRows << " frame");
    step(x, y);
}

void SnrCmod::ProcessFrame(const int* in, int* out)
{
    const std::size_t count = static_cast<std::size_t>(mCols) * mRows;
    if (!in || !out)
        KRO_THROW("null frame");
    if (mMode == kModeBypass) {
        if (in != out)
            std::memmove(out, in, count * sizeof(int));
        return;
    }
    if (kd::framesOverlap(in, out, count))
        KRO_THROW("input and output frames share memory");
    mIn = in;
    mOut = out;
    for (int y = 0; y < mRows; ++y)
        for (int x = 0; x < mCols; ++x)
            step(x, y);
}
