#include "PipelinePreview.h"

#include <cstdio>
#include <filesystem>
#include <system_error>

#include <opencv2/imgcodecs.hpp>

#include "Cli.h"
#include "DemoImages.h"
#include "FrameIO.h"
#include "OmbrixImageEnhancer.h"

namespace kroenhance {

namespace {

namespace fs = std::filesystem;

constexpr double kLowPercent = 0.5;
constexpr double kHighPercent = 99.5;

cv::Mat_<float> asFloat(const velmor::kro::Matrix<int>& stage)
{
    cv::Mat_<float> image;
    cv::Mat(stage.rows, stage.cols, CV_32S, stage.data).convertTo(image, CV_32F);
    return image;
}

} // namespace

std::vector<StageView> stageViews(velmor::kro::OmbrixImageEnhancer& enhancer)
{
    const std::pair<const char*, velmor::kro::Matrix<int>*> stages[] = {
        {"input", enhancer.getInputArray()}, {"tnr", enhancer.getTNRArray()},
        {"spr", enhancer.getSPRArray()},     {"snr", enhancer.getSNRArray()},
        {"histogram", enhancer.getHistoArray()}, {"peaking", enhancer.getPeakArray()}};
    const cv::Mat_<float> input = asFloat(*stages[0].second);
    const cv::Mat_<float> equalised = asFloat(*stages[4].second);
    const DisplayRange rawRange = percentileRange(input, kLowPercent, kHighPercent);
    const DisplayRange equalisedRange = percentileRange(equalised, kLowPercent, kHighPercent);
    std::vector<StageView> views;
    for (int i = 0; i < 6; ++i)
        views.push_back({stages[i].first, toDisplay(asFloat(*stages[i].second), i < 4 ? rawRange : equalisedRange)});
    return views;
}

PipelinePreview::PipelinePreview(const std::string& folder, int frames) : folder_(folder), frames_(frames)
{
    std::error_code error;
    if (!folder_.empty() && fs::exists(folder_, error) && !fs::is_directory(folder_, error))
        throw RunError("the preview folder \"" + folder_ + "\" exists and is not a folder");
}

void PipelinePreview::add(velmor::kro::OmbrixImageEnhancer& enhancer)
{
    if (folder_.empty() || added_ >= frames_)
        return;
    const std::vector<StageView> views = stageViews(enhancer);
    for (std::size_t s = 0; s < views.size(); ++s) {
        char name[64];
        std::snprintf(name, sizeof name, "frame%04d_%zu_%s.png", added_, s, views[s].name.c_str());
        std::vector<unsigned char> bytes;
        if (!cv::imencode(".png", views[s].image, bytes))
            throw RunError(std::string("cannot encode the preview ") + name);
        files_.emplace_back(name, std::move(bytes));
    }
    ++added_;
}

void PipelinePreview::commit()
{
    if (folder_.empty())
        return;
    std::error_code error;
    fs::create_directories(folder_, error);
    if (error)
        throw RunError("cannot create the preview folder \"" + folder_ + "\": " + error.message());
    for (const auto& file : files_) {
        AtomicFile out((fs::path(folder_) / file.first).string());
        out.stream().write(reinterpret_cast<const char*>(file.second.data()),
                           static_cast<std::streamsize>(file.second.size()));
        out.commit();
    }
}

} // namespace kroenhance
