// kroenhance pipeline on the real recording gives the samples of the library
// called directly: parameter files first, then the --set settings in their
// order, one enhancer for the whole recording.
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OmbrixImageEnhancer.h"
#include "RawFrames.h"
#include "TestImages.h"

namespace {

const cv::Size kSize(160, 128);
const std::string kData = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw";

int kroenhance(const std::string& args)
{
    const int status = std::system((std::string(KROENHANCE_PATH) + " " + args + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(PipelineCommand, FilesThenSettingsInOrderGiveTheLibrarysSamples)
{
    krotest::TempDir dir;
    const std::string ini = dir.file("enhancer.ini");
    std::ofstream(ini) << "[Histogram_Parameter]\nmode=2\ngain=9\n[Peaking_Parameter]\ngain=50\ncoring=4\n";
    const std::string settings = " --histogram-params " + ini + " --peaking-params " + ini +
                                 " --set tnr.control_gain=4 --set peak.gain=70 --set hist.gainlow=300"
                                 " --set spr.enable=0 --set spr.enable=1 ";
    ASSERT_EQ(kroenhance("pipeline --size 160x128 --format u16" + settings + kData + " -o " + dir.file("u16.raw")), 0);

    // The same recording as s32 takes the pipeline's route without copies.
    const auto frames = krotest::readRaw<unsigned short>(kData, kSize);
    std::vector<cv::Mat_<int>> wide(frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i)
        frames[i].convertTo(wide[i], CV_32S);
    krotest::writeRaw(dir.file("in_s32.raw"), wide);
    ASSERT_EQ(kroenhance("pipeline --size 160x128 --format s32" + settings + dir.file("in_s32.raw") + " -o " +
                         dir.file("s32.raw")), 0);

    velmor::kro::OmbrixImageEnhancer enhancer(kSize.width, kSize.height, ini.c_str(), ini.c_str());
    enhancer.tnrSetCGain(4);
    enhancer.peakSetGain(70);
    enhancer.histSetGainLow(300);
    enhancer.sprSetBypass(0);
    enhancer.sprSetBypass(1);
    const auto u16 = krotest::readRaw<unsigned short>(dir.file("u16.raw"), kSize);
    const auto s32 = krotest::readRaw<int>(dir.file("s32.raw"), kSize);
    ASSERT_EQ(u16.size(), frames.size());
    ASSERT_EQ(s32.size(), frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        cv::Mat_<unsigned short> in = frames[i].clone(), out;
        enhancer.processFrame(in, out);
        EXPECT_IMAGES_EQUAL(out, u16[i]) << "u16 frame " << i;
        cv::Mat_<int> asInt;
        out.convertTo(asInt, CV_32S);
        EXPECT_IMAGES_EQUAL(asInt, s32[i]) << "s32 frame " << i;
    }
}

} // namespace
