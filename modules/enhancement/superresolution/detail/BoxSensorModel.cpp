#include "detail/BoxSensorModel.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "detail/Parallel.h"

namespace velmor {
namespace kro {
namespace detail {

void binFine(const cv::Mat_<float>& fine, cv::Mat_<float>& coarse, int threads)
{
    coarse.create(fine.rows / 2, fine.cols / 2);
    const int cols = coarse.cols;
    parallel::parallelFor(threads, 0, coarse.rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* a = fine[2 * r];
            const float* b = fine[2 * r + 1];
            float* out = coarse[r];
            for (int c = 0; c < cols; ++c)
                out[c] = 0.25f * ((a[2 * c] + a[2 * c + 1]) + (b[2 * c] + b[2 * c + 1]));
        }
    });
}

void boxImage(const cv::Mat_<float>& fine, cv::Mat_<float>& box, int threads)
{
    box.create(fine.rows, fine.cols);
    const int rows = fine.rows;
    const int cols = fine.cols;
    parallel::parallelFor(threads, 0, rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* a = fine[r];
            const float* b = fine[std::min(r + 1, rows - 1)];
            float* out = box[r];
            for (int c = 0; c + 1 < cols; ++c)
                out[c] = 0.25f * ((a[c] + a[c + 1]) + (b[c] + b[c + 1]));
            out[cols - 1] = 0.5f * (a[cols - 1] + b[cols - 1]);
        }
    });
}

void boxImageAdjoint(const cv::Mat_<float>& box, cv::Mat_<float>& fine, int threads)
{
    fine.create(box.rows, box.cols);
    const int cols = box.cols;
    // fine(r, c) gathers the box values that average it: (r-1..r) x (c-1..c).
    parallel::parallelFor(threads, 0, box.rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* a = box[r];
            const float* b = r > 0 ? box[r - 1] : nullptr;
            float* out = fine[r];
            out[0] = 0.25f * (a[0] + (b ? b[0] : 0.0f));
            for (int c = 1; c < cols; ++c) {
                const float up = b ? b[c] + b[c - 1] : 0.0f;
                out[c] = 0.25f * ((a[c] + a[c - 1]) + up);
            }
        }
    });
}

namespace {

struct Bilinear {
    int x0, y0, x1, y1;
    float fx, fy;
};

inline Bilinear bilinearAt(float x, float y, int cols, int rows)
{
    x = std::min(std::max(x, 0.0f), static_cast<float>(cols - 1));
    y = std::min(std::max(y, 0.0f), static_cast<float>(rows - 1));
    const int x0 = static_cast<int>(x);
    const int y0 = static_cast<int>(y);
    return {x0, y0, std::min(x0 + 1, cols - 1), std::min(y0 + 1, rows - 1), x - static_cast<float>(x0),
            y - static_cast<float>(y0)};
}

} // namespace

void sampleBox(const cv::Mat_<float>& box, const cv::Mat_<float>& sx, const cv::Mat_<float>& sy,
               cv::Mat_<float>& out, int threads)
{
    out.create(sx.rows, sx.cols);
    const int cols = sx.cols;
    parallel::parallelFor(threads, 0, sx.rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* px = sx[r];
            const float* py = sy[r];
            float* o = out[r];
            for (int c = 0; c < cols; ++c) {
                const Bilinear b = bilinearAt(2.0f * px[c], 2.0f * py[c], box.cols, box.rows);
                const float top = box(b.y0, b.x0) + b.fx * (box(b.y0, b.x1) - box(b.y0, b.x0));
                const float bottom = box(b.y1, b.x0) + b.fx * (box(b.y1, b.x1) - box(b.y1, b.x0));
                o[c] = top + b.fy * (bottom - top);
            }
        }
    });
}

void scatterToBox(const cv::Mat_<float>& value, const cv::Mat_<float>& sx, const cv::Mat_<float>& sy,
                  cv::Mat_<float>& acc)
{
    for (int r = 0; r < value.rows; ++r) {
        const float* v = value[r];
        const float* px = sx[r];
        const float* py = sy[r];
        for (int c = 0; c < value.cols; ++c) {
            if (v[c] == 0.0f)
                continue;
            const Bilinear b = bilinearAt(2.0f * px[c], 2.0f * py[c], acc.cols, acc.rows);
            const float top = v[c] * (1.0f - b.fy);
            const float bottom = v[c] * b.fy;
            acc(b.y0, b.x0) += top * (1.0f - b.fx);
            acc(b.y0, b.x1) += top * b.fx;
            acc(b.y1, b.x0) += bottom * (1.0f - b.fx);
            acc(b.y1, b.x1) += bottom * b.fx;
        }
    }
}

void sampleOnGrid(const cv::Mat_<float>& box, cv::Mat_<float>& out, int threads)
{
    out.create(box.rows / 2, box.cols / 2);
    const int cols = out.cols;
    parallel::parallelFor(threads, 0, out.rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* in = box[2 * r];
            float* o = out[r];
            for (int c = 0; c < cols; ++c)
                o[c] = in[2 * c];
        }
    });
}

void scatterOnGrid(const cv::Mat_<float>& value, cv::Mat_<float>& acc, int threads)
{
    const int cols = value.cols;
    parallel::parallelFor(threads, 0, value.rows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const float* v = value[r];
            float* a = acc[2 * r];
            for (int c = 0; c < cols; ++c)
                a[2 * c] += v[c];
        }
    });
}

void blurFine(const cv::Mat_<float>& fine, cv::Mat_<float>& out, float sigma)
{
    if (sigma > 0.0f)
        cv::GaussianBlur(fine, out, cv::Size(), sigma, sigma, cv::BORDER_REFLECT);
    else if (out.data != fine.data)
        fine.copyTo(out);
}

void backProjectReference(const cv::Mat_<float>& coarse, float sigma, cv::Mat_<float>& fine,
                          cv::Mat_<float>& coarseScratch, cv::Mat_<float>& fineScratch, int threads)
{
    blurFine(fine, fineScratch, sigma);
    binFine(fineScratch, coarseScratch, threads);
    cv::subtract(coarse, coarseScratch, coarseScratch);
    cv::resize(coarseScratch, fineScratch, fine.size(), 0, 0, cv::INTER_LANCZOS4);
    fine += fineScratch;
}

void referenceOnly(const cv::Mat_<float>& coarse, int iterations, float sigma, cv::Mat_<float>& fine,
                   cv::Mat_<float>& coarseScratch, cv::Mat_<float>& fineScratch, int threads)
{
    // Lanczos rather than bicubic: measured on 2x2-binned real thermal
    // footage, back-projection from a Lanczos start gains about 1.1 dB over
    // bicubic enlargement where a bicubic start gains 0.75 dB.
    cv::resize(coarse, fine, cv::Size(coarse.cols * 2, coarse.rows * 2), 0, 0, cv::INTER_LANCZOS4);
    for (int i = 0; i < iterations; ++i)
        backProjectReference(coarse, sigma, fine, coarseScratch, fineScratch, threads);
}

} // namespace detail
} // namespace kro
} // namespace velmor
