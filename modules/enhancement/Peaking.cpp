#include "Peaking.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "detail/ModelFrames.h"
#include "detail/ParameterFile.h"
#include "detail/Throw.h"

namespace kd = velmor::kro::detail;

namespace {

constexpr int kDefaultCols = 160;
constexpr int kDefaultRows = 120;
constexpr std::size_t kMaxLineLength = 254;

// Laplacian weights in 1/256, indexed by |dx| + 4 |dy|.
constexpr std::int64_t kWeights[6] = {-256, 48, 0, 0, 48, 16};

constexpr std::int64_t kHighest = 32766;  // one below the 16-bit maximum, as the hardware clamps
constexpr std::int64_t kLowestSigned = -32767;
constexpr std::int64_t kBlockMaxStart = -32767;  // running extremes of the hardware
constexpr std::int64_t kBlockMinStart = 32767;
constexpr std::int64_t kFullReduction = 256;

int clampTo(int value, int low, int high) { return std::min(std::max(value, low), high); }

// (int)(coring * gain), truncated toward zero. Within [0, 65536], which
// holds every coring of 16-bit differences; a negative or NaN product
// cores nothing.
std::int64_t coringOf(int coring, double gain)
{
    const double c = coring * gain;
    if (!(c > 0.0))
        return 0;
    return c >= 65536.0 ? 65536 : static_cast<std::int64_t>(c);
}

// d shrunk toward zero by c (dead zone).
std::int64_t cored(std::int64_t d, std::int64_t c)
{
    return d > 0 ? std::max<std::int64_t>(d - c, 0) : (d < 0 ? std::min<std::int64_t>(d + c, 0) : 0);
}

} // namespace

Peaking::Peaking() : Peaking(kDefaultCols, kDefaultRows) {}

Peaking::Peaking(int cols, int rows) : frameCols(cols), frameRows(rows)
{
    if (!kd::validModelFrameSize(cols, rows))
        KRO_THROW("invalid frame size " << cols << "x" << rows);
}

void Peaking::SetGain(int value) { gain = clampTo(value, kMinGain, kMaxGain); }
void Peaking::SetCoring(int value) { coring = clampTo(value, kMinCoring, kMaxCoring); }
void Peaking::SetLimit(int value) { limit = clampTo(value, kMinLimit, kMaxLimit); }
void Peaking::SetReductThres(int value) { reduct_thres = clampTo(value, kMinReductThres, kMaxReductThres); }
void Peaking::SetReductGain(int value) { reduct_gain = clampTo(value, kMinReductGain, kMaxReductGain); }

void Peaking::SetParam(const char* path)
{
    int readEnable = enable, readGain = gain, readCoring = coring, readLimit = limit;
    int readReductThres = reduct_thres, readReductGain = reduct_gain;
    const std::vector<kd::ParameterKey> keys = {
        {"enable=%i", &readEnable}, {"gain=%i", &readGain},
        {"coring=%i", &readCoring}, {"limit=%i", &readLimit},
        {"reduct_thres=%i", &readReductThres}, {"reduct_gain=%i", &readReductGain}};
    if (!kd::readParameterSection(path, "Peaking_Parameter]", keys, kMaxLineLength)) {
        std::printf("peak: Cannot read %s\n", path ? path : "(null)");
        return;
    }
    SetEnable(readEnable);
    SetGain(readGain);
    SetCoring(readCoring);
    SetLimit(readLimit);
    SetReductThres(readReductThres);
    SetReductGain(readReductGain);
}

int Peaking::enhancedPixel(const int* in, int x, int y, const double* localGain) const
{
    const std::int64_t p = in[static_cast<std::size_t>(y) * frameCols + x];
    const double g = localGain ? localGain[std::min<std::int64_t>(std::max<std::int64_t>(p >> 7, 0), kLocalGainEntries - 1)]
                               : 1.0;
    const std::int64_t c = coringOf(coring, g);
    std::int64_t acc = 0, high = kBlockMaxStart, low = kBlockMinStart;
    for (int dy = -1; dy <= 1; ++dy) {
        const int* row = in + static_cast<std::size_t>(clampTo(y + dy, 0, frameRows - 1)) * frameCols;
        for (int dx = -1; dx <= 1; ++dx) {
            const std::int64_t n = row[clampTo(x + dx, 0, frameCols - 1)];
            acc -= (p + cored(n - p, c)) * kWeights[std::abs(dx) + 4 * std::abs(dy)];
            high = std::max(high, n);
            low = std::min(low, n);
        }
    }
    const std::int64_t excess = std::max<std::int64_t>(high - low - 512 * std::int64_t(reduct_thres), 0);
    const std::int64_t r = std::min((reduct_gain * excess) >> 12, kFullReduction);
    const std::int64_t m = std::min(acc < 0 ? -acc : acc, std::int64_t(limit) << 12);
    const std::int64_t e = ((((gain * m) >> 12) * (kFullReduction - r)) + 128) >> 8;
    const std::int64_t lowest = localGain ? 0 : kLowestSigned;
    return static_cast<int>(std::min(std::max(p + (acc < 0 ? -e : e), lowest), kHighest));
}

void Peaking::ProcessFrame(const int* in, int* out, const double* localGain)
{
    if (!in || !out)
        KRO_THROW("null frame");
    const std::size_t count = static_cast<std::size_t>(frameCols) * frameRows;
    if (enable == 0) {
        if (in != out)
            std::memmove(out, in, count * sizeof(int));
        return;
    }
    if (kd::framesOverlap(in, out, count))
        KRO_THROW("input and output frames share memory");
    for (int y = 0; y < frameRows; ++y)
        for (int x = 0; x < frameCols; ++x)
            out[static_cast<std::size_t>(y) * frameCols + x] = enhancedPixel(in, x, y, localGain);
}

void Peaking::ProcessFrame(velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& out, const double* localGain)
{
    if (in.rows != frameRows || in.cols != frameCols || out.rows != frameRows || out.cols != frameCols)
        KRO_THROW("frames of " << in.cols << "x" << in.rows << " and " << out.cols << "x" << out.rows
                                << " given to a peaking model of " << frameCols << "x" << frameRows);
    ProcessFrame(in.data, out.data, localGain);
}
