#pragma once

#include <opencv2/core.hpp>

#include "FilterOptions.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// A per-pixel multiplicative damping map for float frames that flattens
// clusters of pixels deviating from their surroundings.
//
// The map starts as all ones. At every update, a pixel that is calm (its
// temporal standard deviation below the std-dev limit, its difference to each
// of its eight neighbours at most the mean limit, and non-zero) blends the
// ratio smoothed / value into its entry by an exponential moving average:
//     damping = (smoothed / value) * alpha + (1 - alpha) * damping,
// where smoothed is a 3x3 median or Gaussian of the frame. Multiplying a frame
// by the map pulls such pixels toward their neighbourhood.
//
// updateDamping() runs one update, applyDamping() multiplies a frame by the
// map, getDamping() reads it back. The cluster size is stored only; changing
// it with setClusterSize() restarts the map. Copies share the map (cv::Mat
// semantics); one object serves one call at a time.
class KROLIB_EXPORT ClusterPatternRemover {
public:
    enum FILTERMODE { MEDIAN = 0, GAUSSIAN = 1 };

    // The third argument sets both the std-dev limit and the blend factor and
    // the fourth is ignored, as the interface has always done; set the blend
    // factor with setAlphaDamping().
    ClusterPatternRemover(unsigned width, unsigned height, float stdDevLimit, float alphaDamping,
                          float meanLimit);
    // A remover with every field of `options` applied as given (the blend
    // factor included); throws velmor::kro::Exception with the validation's
    // text for a refused value.
    explicit ClusterPatternRemover(const ClusterPatternRemoverOptions& options);
    ClusterPatternRemoverOptions getOptions() const;
    ClusterPatternRemover(const ClusterPatternRemover&) = default;
    ClusterPatternRemover& operator=(const ClusterPatternRemover&) = default;
    ~ClusterPatternRemover() = default;

    // Accepts 0 <= alpha <= 1 (NaN refused); false leaves the value.
    bool setAlphaDamping(float alpha);
    void setMeanLimit(float meanLimit);
    void setStdDevLimit(float stdDevLimit);
    void setClusterWidth(unsigned width);
    void setClusterHeight(unsigned height);
    // Empties the map (it restarts from ones) when either value changes.
    void setClusterSize(unsigned width, unsigned height);

    float getAlphaDamping() const { return mAlphaDamping; }
    unsigned getClusterWidth() const { return mClusterWidth; }
    unsigned getClusterHeight() const { return mClusterHeight; }
    float getMeanLimit() const { return mMeanLimit; }
    float getStdDevLimit() const { return mStdDevLimit; }

    // `out` becomes a deep copy of the map, or a shared reference to it.
    void getDamping(cv::Mat& out, bool copy) const;

    // One update of the map from `frame` and the per-pixel temporal standard
    // deviation `stdDev` (CV_32FC1, same size). A map of another size is
    // replaced by ones first. Throws Exception for empty or mismatched images
    // and for an unsupported mode.
    void updateDamping(const cv::Mat_<float>& frame, const cv::Mat_<float>& stdDev,
                       FILTERMODE mode = MEDIAN);

    // dst = src * map, element by element (a copy of src while no map has been
    // learnt). `dst` may be `src`. Throws Exception for an empty frame or a
    // frame whose size differs from the map's.
    void applyDamping(const cv::Mat_<float>& src, cv::Mat_<float>& dst) const;

private:
    bool checkMeanLimit(const cv::Mat_<float>& frame, int r, int c);
    void calculateDamping(const cv::Mat_<float>& frame, const cv::Mat_<float>& stdDev,
                          FILTERMODE mode);

    cv::Mat_<float> mDamping;
    unsigned mClusterWidth;
    unsigned mClusterHeight;
    float mStdDevLimit;
    float mAlphaDamping;
    float mMeanLimit;
};

} // namespace kro
} // namespace velmor
