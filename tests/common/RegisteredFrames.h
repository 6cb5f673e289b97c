#pragma once

// One doRegistration of a float registration over caller-owned buffers: the
// pointer lists the call takes, and what it hands back. Work frames start at
// -1, masks at 7 and shifts at -99, so that an untouched buffer shows.

#include <vector>

#include <opencv2/core.hpp>

#include "PointF.h"

namespace krotest {

struct RegisteredFrames {
    explicit RegisteredFrames(std::vector<cv::Mat_<float>>& frames)
        : shifts(frames.size(), velmor::kro::PointF(-99.0f, -99.0f)),
          masks(frames.size(), std::vector<char>(frames[0].total(), 7))
    {
        for (size_t i = 0; i < frames.size(); ++i) {
            work.emplace_back(frames[i].size(), -1.0f);
            framePtrs.push_back(frames[i].ptr<float>());
            workPtrs.push_back(work.back().ptr<float>());
            maskPtrs.push_back(masks[i].data());
        }
    }

    // Registers all frames against frame `refPos`; keeps and returns the code.
    template <class Registration>
    int run(Registration& reg, int refPos)
    {
        rc = reg.doRegistration(static_cast<int>(framePtrs.size()), refPos, framePtrs.data(), shifts.data(),
                                maskPtrs.data(), workPtrs.data());
        reg.getCompleteShifts(complete);
        return rc;
    }

    int rc = 0;
    std::vector<velmor::kro::PointF> shifts;    // the caller's array afterwards: sub-pixel remainders
    std::vector<velmor::kro::PointF> complete;  // getCompleteShifts
    std::vector<std::vector<char>> masks;
    std::vector<cv::Mat_<float>> work;
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
};

// Prepares the frames (unless `prepare` is false) and registers them.
template <class Registration>
RegisteredFrames registerAll(Registration& reg, std::vector<cv::Mat_<float>>& frames, int refPos,
                             bool prepare = true)
{
    if (prepare)
        for (cv::Mat_<float>& f : frames)
            reg.prepareFrame(f.ptr<float>());
    RegisteredFrames r(frames);
    r.run(reg, refPos);
    return r;
}

} // namespace krotest
