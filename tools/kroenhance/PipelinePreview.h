#pragma once

// 8-bit views of the stages of the enhancement pipeline, for
// kroenhance pipeline --preview and the demo.

#include <string>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>

namespace velmor {
namespace kro {
class OmbrixImageEnhancer;
}
} // namespace velmor

namespace kroenhance {

struct StageView {
    std::string name;  // "input", "tnr", "spr", "snr", "histogram", "peaking"
    cv::Mat_<unsigned char> image;
};

// The stages of the enhancer's last frame, in pipeline order. The input and
// the noise and pattern stages are shown through one 0.5-99.5 % stretch of
// the input (so that what the filters removed shows), the histogram and
// peaking outputs through one stretch of the histogram output.
std::vector<StageView> stageViews(velmor::kro::OmbrixImageEnhancer& enhancer);

// Keeps the stage views of the first `frames` frames and writes them as
// DIR/frameNNNN_S_stage.png in commit(), each file atomically; an empty
// folder name keeps nothing.
class PipelinePreview {
public:
    // RunError when `folder` exists and is not a folder.
    PipelinePreview(const std::string& folder, int frames);
    void add(velmor::kro::OmbrixImageEnhancer& enhancer);
    // Creates the folder when needed and writes the files; RunError on failure.
    void commit();

private:
    std::string folder_;
    int frames_;
    int added_ = 0;
    std::vector<std::pair<std::string, std::vector<unsigned char>>> files_;  // name, PNG bytes
};

} // namespace kroenhance
