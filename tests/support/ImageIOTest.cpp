#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>

#include <opencv2/imgcodecs.hpp>

#include "Exception.h"
#include "ImageIO.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

TEST(ImageIO, SavedImagesReadBackBitExactHereAndInOpenCV)
{
    krotest::TempDir dir;
    cv::Mat image = krotest::randomImage(7, 13, CV_32F, -1e6, 1e6, 1);
    image.at<float>(0, 0) = std::numeric_limits<float>::denorm_min();
    image.at<float>(6, 12) = -0.0f;
    ASSERT_TRUE(ImageIO::save(dir.file("a.pfm"), image, ImageIO::kSaveAtomic));
    const std::vector<cv::Mat> back = ImageIO::load(dir.file("a.pfm"));
    ASSERT_EQ(1u, back.size());
    ASSERT_EQ(CV_32FC1, back[0].type());
    EXPECT_EQ(0, std::memcmp(image.data, back[0].data, image.total() * sizeof(float)));
    EXPECT_IMAGES_EQUAL(image, cv::imread(dir.file("a.pfm"), cv::IMREAD_UNCHANGED));

    // Colour: OpenCV and ImageIO agree on the channel order.
    const cv::Mat colour = krotest::randomImage(5, 4, CV_32FC3, 0.0, 1.0, 3);
    ASSERT_TRUE(ImageIO::save(dir.file("colour.pfm"), colour));
    EXPECT_IMAGES_EQUAL(colour, cv::imread(dir.file("colour.pfm"), cv::IMREAD_UNCHANGED));
    EXPECT_IMAGES_EQUAL(colour, ImageIO::load(dir.file("colour.pfm"))[0]);
}

TEST(ImageIO, FileHasTheStandardHeaderAndBottomUpRows)
{
    krotest::TempDir dir;
    cv::Mat_<float> image(2, 3);
    image << 1, 2, 3, 4, 5, 6;
    ASSERT_TRUE(ImageIO::save(dir.file("h.pfm"), image));
    std::ifstream in(dir.file("h.pfm"), std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string header = "Pf\n3 2\n-1.0\n";
    ASSERT_EQ(header.size() + 6 * sizeof(float), bytes.size());
    EXPECT_EQ(header, bytes.substr(0, header.size()));
    float first;
    std::memcpy(&first, bytes.data() + header.size(), sizeof(float));
    EXPECT_EQ(4.0f, first);  // the bottom row comes first

    // A big-endian file (positive scale) is read too.
    {
        std::ofstream out(dir.file("be.pfm"), std::ios::binary);
        out << "Pf\n1 1\n1.0\n";
        const unsigned char oneAndHalf[4] = {0x3f, 0xc0, 0x00, 0x00};
        out.write(reinterpret_cast<const char*>(oneAndHalf), 4);
    }
    EXPECT_EQ(1.5f, ImageIO::load(dir.file("be.pfm"))[0].at<float>(0, 0));
}

TEST(ImageIO, StreamAppendsImagesOfAnySizeAndDepth)
{
    krotest::TempDir dir;
    const cv::Mat a = krotest::randomImage(4, 6, CV_32F, -5, 5, 4);
    const cv::Mat b = krotest::randomImage(3, 2, CV_16S, -1000, 1000, 5);
    ImageIO stream;
    ASSERT_TRUE(stream.open(dir.file("s.pfm")));
    stream << a << b;
    stream.close();
    const std::vector<cv::Mat> back = ImageIO::load(dir.file("s.pfm"));
    ASSERT_EQ(2u, back.size());
    EXPECT_IMAGES_EQUAL(a, back[0]);
    EXPECT_IMAGES_EQUAL(b, back[1]);  // 16-bit values are exact in float
    ASSERT_TRUE(ImageIO::save(dir.file("s.pfm"), a, ImageIO::kSaveAppend));
    EXPECT_EQ(3u, ImageIO::load(dir.file("s.pfm")).size());
}

TEST(ImageIO, MisuseIsReportedAndFailedSavesLeaveNoFile)
{
    krotest::TempDir dir;
    ImageIO stream;
    EXPECT_THROW(stream << cv::Mat::zeros(2, 2, CV_32F), Exception);  // not open
    ASSERT_TRUE(stream.open(dir.file("x.pfm")));
    EXPECT_THROW(stream << cv::Mat(), Exception);
    EXPECT_THROW(stream << cv::Mat::zeros(2, 2, CV_32FC2), Exception);
    EXPECT_FALSE(stream.open(dir.file("missing/folder/x.pfm")));
    EXPECT_FALSE(ImageIO::save(dir.file("empty.pfm"), cv::Mat()));
    EXPECT_FALSE(ImageIO::save(dir.file("missing/z.pfm"), cv::Mat::ones(2, 2, CV_32F), ImageIO::kSaveAtomic));
    ASSERT_TRUE(ImageIO::save(dir.file("z.pfm"), cv::Mat::ones(2, 2, CV_32F), ImageIO::kSaveAtomic));
    EXPECT_FALSE(std::ifstream(dir.file("z.pfm.part")).is_open());
    // The file is written but cannot replace a folder: the temporary goes too.
    std::filesystem::create_directory(dir.file("folder.pfm"));
    EXPECT_FALSE(ImageIO::save(dir.file("folder.pfm"), cv::Mat::ones(2, 2, CV_32F), ImageIO::kSaveAtomic));
    EXPECT_FALSE(std::ifstream(dir.file("folder.pfm.part")).is_open());
}

TEST(ImageIO, LoadRejectsBrokenFilesWithTheirName)
{
    krotest::TempDir dir;
    EXPECT_THROW(ImageIO::load(dir.file("none.pfm")), Exception);
    { std::ofstream(dir.file("bad.pfm")) << "P5\n2 2\n255\n...."; }
    { std::ofstream(dir.file("short.pfm"), std::ios::binary) << "Pf\n2 2\n-1.0\n1234"; }
    { std::ofstream(dir.file("huge.pfm"), std::ios::binary) << "Pf\n-2 2\n-1.0\n"; }
    { std::ofstream(dir.file("nothing.pfm")) << "\n"; }
    for (const char* name : {"bad.pfm", "short.pfm", "huge.pfm", "nothing.pfm"}) {
        try {
            ImageIO::load(dir.file(name));
            ADD_FAILURE() << name << " was accepted";
        } catch (const Exception& e) {
            EXPECT_NE(std::string::npos, std::string(e.what()).find(name)) << e.what();
        }
    }
}

} // namespace
} // namespace kro
} // namespace velmor
