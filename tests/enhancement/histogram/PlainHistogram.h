#pragma once

// Plain scalar models of the histogram block for the bit-exact tests: 64-bit
// integers, divisions instead of shifts, one pixel and one bin at a time.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "IntegerModel.h"

namespace krotest {

using i64 = std::int64_t;

inline i64 pow2(int n) { return i64(1) << n; }
inline i64 clampTo(i64 v, i64 lo, i64 hi) { return std::min(std::max(v, lo), hi); }

// Uniform samples in [lo, hi]; the first pixel saturates high, the middle one low.
inline std::vector<int> plainFrame(int cols, int rows, int lo, int hi, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> dist(lo, hi);
    std::vector<int> f(static_cast<std::size_t>(cols) * rows);
    for (int& v : f)
        v = dist(rng);
    if (f.size() > 2)
        f[0] = 32767, f[f.size() / 2] = -32768;
    return f;
}

// The hardware measurement block.
struct PlainHstCmod {
    int cols, rows, shiftFast, shiftSlow, hold, minSpan, poffdis, rangedis;
    std::vector<i64> bins = std::vector<i64>(256, 0);
    i64 curMin = 65535, curMax = 0, low = 0, high = 0, scale = 0, pedestal = 0, holdLow = 0, holdHigh = 0;
    bool first = true, firstRead = true;

    void track(i64& x, i64& holdCount, i64 target, bool out)
    {
        if (holdCount == 0 || out) {
            const int s = out ? shiftFast : shiftSlow;
            x = floorShift(x * pow2(s) - x + target, s);
        }
        holdCount = out ? hold : std::max<i64>(holdCount - 1, 0);
    }
    void measure(const std::vector<int>& frame)
    {
        std::fill(bins.begin(), bins.end(), 0);
        curMin = 65535, curMax = 0;
        bool seen = false;
        for (int sample : frame) {
            const i64 u = (wrap16(sample) + 32768) % 65536;
            if (u == 0 || u == 65535)
                continue;
            curMin = seen ? std::min(curMin, u) : u;
            curMax = seen ? std::max(curMax, u) : u;
            seen = true;
            const i64 t = std::min<i64>(floorShift(scale * std::max<i64>(u - low, 0), 8) + pedestal, 65535);
            const i64 bin = t / 256, frac = (t / 16) % 16;
            bins[bin] += bin < 255 ? 16 - frac : 16;
            if (bin < 255)
                bins[bin + 1] += frac;
        }
        if (first) {
            low = curMin, high = curMax;
        } else {
            track(low, holdLow, curMin, low > curMin);
            track(high, holdHigh, curMax, high <= curMax);
        }
        first = false;
        const i64 span = high - low + 1;
        scale = rangedis ? 256 : std::min<i64>(16711424 / std::max<i64>(span, minSpan), 65535);
        pedestal = rangedis || poffdis ? 0 : floorShift(65279 - floorShift(scale * span, 8), 1);
    }
    std::vector<int> binData()
    {
        std::vector<int> out((518 + cols - 1) / cols * cols, 0);
        for (int i = 0; i < 256; ++i) {
            out[2 * i] = firstRead ? 1 : static_cast<int>(bins[i] % 65536);
            out[2 * i + 1] = firstRead ? 0 : static_cast<int>(wrap16(bins[i] / 65536));
        }
        const i64 tail[6] = {curMin, curMax, low, high, scale, pedestal};
        std::copy(tail, tail + 6, out.begin() + 512);
        firstRead = false;
        return out;
    }
};

// The software module: measurement, mapping, curve. The scale starts at its
// value for width 8 (a width change keeps it).
struct PlainHistogram {
    int cols, rows;
    int mode = 3, width = 8, range = 8, offset = 0, speed = 1, gamma = 0, tridis = 0, rangedis = 0, poffdis = 0;
    int limit = 8, gain = 4, gainLow, gainHigh, hw = 0;
    bool bypass = false;
    i64 scale = 32768, pedestal = 0, curMin = 32767, curMax = -32768, low = -32768, high = 32767;
    i64 lastFrame = 0, holdLow = 0, holdHigh = 0;
    std::vector<i64> bins, lut;
    std::vector<int> curve;
    std::vector<double> localGain;
    PlainHstCmod hst{};

    PlainHistogram(int c, int r)
        : cols(c), rows(r), gainLow(int(std::floor(c * r / 1000.0 + 0.5))), gainHigh(int(std::floor(c * r * 0.999 + 0.5)))
    {
    }
    int n() const { return 1 << width; }
    // After the parameters are set: the tables and the hardware model.
    void start()
    {
        bins.assign(n() + 1, 0);
        lut.resize(n() + 1);
        for (int i = 0; i <= n(); ++i)
            lut[i] = i * pow2(15 - width);
        curve.assign(n(), 0);
        localGain.assign(std::max(n(), 256), 1.0);
        hst = PlainHstCmod{cols, rows, 1, 1, 1, static_cast<int>(pow2(range)), poffdis, rangedis};
    }

    void measure(int frameCount, const std::vector<int>& frame)
    {
        if (hw) {
            hst.measure(frame);
            std::vector<int> data = hst.binData();
            data.resize(std::max<std::size_t>(data.size(), 2 * n() + 6), 0);
            for (int i = 0; i < n(); ++i)
                bins[i] = wrap32(data[2 * i] + i64(data[2 * i + 1]) * 65536);
            const int* t = &data[2 * n()];
            curMin = clampTo(t[0] - 32768, -32768, 32767), curMax = clampTo(t[1] - 32768, -32768, 32767);
            low = clampTo(t[2] - 32768, -32768, 32767), high = clampTo(t[3] - 32768, -32768, 32767);
            scale = floorShift(t[4], 1), pedestal = floorShift(t[5], 1);
            return;
        }
        std::fill(bins.begin(), bins.end(), 0);
        curMin = 32767, curMax = -32768;
        const i64 sub = pow2(15 - width);
        for (int sample : frame) {
            const i64 v = clampTo(sample, -32768, 32767);
            if (v != 32767 && v != -32768)
                curMin = std::min(curMin, v), curMax = std::max(curMax, v);
            const i64 t = clampTo(floorShift((v - low) * scale + 128, 8) + pedestal + offset, 0, 32767);
            const i64 bin = std::min<i64>(t / sub, n() - 1);
            const i64 frac = tridis ? 0 : (t % sub) / pow2(std::max(11 - width, 0));
            bins[bin] += 16 - frac;
            bins[bin + 1] += frac;
        }
        if (frameCount == lastFrame) {
            low = curMin, high = curMax;
        } else {
            lastFrame = frameCount;
            track(low, holdLow, curMin, curMin < low);
            track(high, holdHigh, curMax, curMax > high);
        }
        const i64 span = std::max(pow2(range), high - low + 1);
        scale = rangedis ? pow2(23 - width) : clampTo((pow2(24) + span) / (2 * span), 256, 65536);
        const i64 mappedHigh = floorShift((high - low) * scale + 128, 8);
        pedestal = poffdis ? 0 : clampTo(floorShift(32768 - mappedHigh, 1), 0, 16383);
    }
    void track(i64& x, i64& holdCount, i64 target, bool out)
    {
        const int s = out ? std::max(speed - 4, 0) : speed;
        if (out || holdCount == 0)
            x = s == 0 ? target : floorShift(x * pow2(s) - x + target + pow2(s - 1), s);
        holdCount = out ? 16 : std::max<i64>(holdCount - 1, 0);
    }

    struct Mapped {
        i64 out, index;
        double gain;
    };
    Mapped mapOf(i64 v) const
    {
        if (mode == 0 || bypass)
            return {v, clampTo(floorShift(v, 7), 0, i64(localGain.size()) - 1), 1.0};
        const i64 t = clampTo(floorShift((v - low) * scale + 128, 8) + pedestal + offset, 0, 32767);
        const int s = 15 - width;
        const i64 bin = std::min<i64>(t / pow2(s), n() - 1), f = t % pow2(s);
        i64 out = (pow2(s) - f) * lut[bin] + f * lut[bin + 1];
        if (s > 0)
            out = floorShift(out + pow2(s - 1), s);
        out = clampTo(out, 0, 32766);
        const i64 slope = std::max<i64>(lut[std::min<i64>(bin + 4, n())] - lut[std::max<i64>(bin - 4, 0)], 8);
        return {out, out / 128, double(slope) * double(scale) / 8.0 / double(pow2(23 - width))};
    }
    i64 process(i64 v)
    {
        const Mapped m = mapOf(v);
        localGain[m.index] = m.gain;
        return m.out;
    }

    void update(int frameCount) { update(frameCount, curMin, curMax); }
    void update(int frameCount, i64 from, i64 to)
    {
        std::vector<double> cum(n());
        i64 total = 0;
        double c = 0;
        for (int i = 0; i < n(); ++i) {
            total += bins[i];
            if (mode == 2)
                c += (i64(gainLow) * 16 <= total && total <= i64(gainHigh) * 16) ? gain : 1;
            else if (mode == 3)
                c += std::max<i64>(std::min<i64>(bins[i], limit), 1);
            else
                c = mode == 4 ? double(total) : i + 1;
            cum[i] = c;
        }
        const double g = gamma >= 0 ? (gamma + 10) / 10.0 : 10.0 / (10 - gamma);
        for (int i = 0; i < n(); ++i) {
            const double share = c > 0 ? std::min(std::max(cum[i] / c, 0.0), 1.0) : (i + 1) / double(n());
            const i64 val = static_cast<i64>(std::floor(std::pow(share, g) * 32768 + 0.5));
            const i64 old = lut[i + 1];
            const bool direct = frameCount == lastFrame || speed == 0;
            lut[i + 1] = direct ? val : floorShift(val + pow2(speed - 1) + old * pow2(speed) - old, speed);
        }
        const float step = float(std::abs(to - from)) / float(n());
        for (int i = 0; i < n(); ++i)
            curve[i] = static_cast<int>(process(static_cast<int>(float(i) * step + float(from))));
    }
};

} // namespace krotest
