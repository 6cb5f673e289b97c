#include "FrameIO.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "ImageIO.h"
#include "TestImages.h"

namespace {

using namespace kroenhance;
namespace fs = std::filesystem;

std::vector<std::string> filesIn(const std::string& dir)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<cv::Mat> readAll(const InputSpec& request)
{
    FrameReader reader(request);
    std::vector<cv::Mat> frames;
    for (cv::Mat frame; reader.read(frame);)
        frames.push_back(frame);
    return frames;
}

InputSpec rawInput(std::vector<std::string> paths, cv::Size size, SampleFormat format)
{
    return InputSpec{std::move(paths), true, size, format};
}

InputSpec imageInput(std::vector<std::string> paths)
{
    return InputSpec{std::move(paths), false, {}, SampleFormat::S16};
}

void writeFrames(const std::string& path, SampleFormat format, const std::vector<cv::Mat>& frames)
{
    FrameWriter writer(path, format);
    for (const cv::Mat& frame : frames)
        writer.write(frame);
    writer.commit();
}

void writeBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// Two raw files read as one recording give back what was written, in every
// sample format; rewind starts again.
TEST(FrameIO, RawStreamsRoundTripInEveryFormatAcrossFiles)
{
    krotest::TempDir dir;
    for (SampleFormat format : {SampleFormat::S16, SampleFormat::U16, SampleFormat::S32, SampleFormat::F32}) {
        const std::string name = sampleFormatName(format);
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 3; ++i)
            frames.push_back(krotest::randomImage(5, 7, sampleFormatDepth(format), -1000,
                                                  1000 + 60000 * (format == SampleFormat::U16), i));
        writeFrames(dir.file("a_" + name + ".raw"), format, {frames[0], frames[1]});
        writeFrames(dir.file("b_" + name + ".raw"), format, {frames[2]});
        EXPECT_EQ(fs::file_size(dir.file("a_" + name + ".raw")), 2 * 5 * 7 * sampleFormatBytes(format));

        FrameReader reader(rawInput({dir.file("a_" + name + ".raw"), dir.file("b_" + name + ".raw")}, {7, 5}, format));
        EXPECT_EQ(reader.frameCount(), 3);
        EXPECT_EQ(reader.frameType(), sampleFormatDepth(format));
        for (int pass = 0; pass < 2; ++pass, reader.rewind()) {
            cv::Mat frame;
            for (int i = 0; i < 3; ++i) {
                ASSERT_TRUE(reader.read(frame)) << name << " pass " << pass;
                EXPECT_IMAGES_EQUAL(frames[i], frame) << name << " frame " << i;
            }
            EXPECT_FALSE(reader.read(frame));
        }
    }
}

TEST(FrameIO, RawStreamIsLittleEndianRowMajorAndNarrowingRoundsAndSaturates)
{
    krotest::TempDir dir;
    writeBytes(dir.file("two.raw"), std::string("\x01\x02\xff\xff\x00\x80\x34\x12", 8));
    EXPECT_IMAGES_EQUAL((cv::Mat_<short>(2, 2) << 0x0201, -1, -32768, 0x1234),
                        readAll(rawInput({dir.file("two.raw")}, {2, 2}, SampleFormat::S16)).at(0));

    const cv::Mat_<float> frame = (cv::Mat_<float>(1, 6) << 1.4f, 1.6f, -1.6f, 70000.0f, -70000.0f, 32767.4f);
    writeFrames(dir.file("narrow.raw"), SampleFormat::S16, {frame});
    EXPECT_IMAGES_EQUAL((cv::Mat_<short>(1, 6) << 1, 2, -2, 32767, -32768, 32767),
                        readAll(rawInput({dir.file("narrow.raw")}, {6, 1}, SampleFormat::S16)).at(0));

    // A 16-bit PNG keeps only unsigned samples: negative values become 0.
    writeFrames(dir.file("signed.png"), SampleFormat::S16, {cv::Mat((cv::Mat_<short>(1, 3) << -5, 0, 300))});
    const cv::Mat read = cv::imread(dir.file("signed.png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(read.type(), CV_16UC1);
    EXPECT_IMAGES_EQUAL((cv::Mat_<unsigned short>(1, 3) << 0, 0, 300), read);
}

// PNG, PGM, every page of a TIFF, PNG content under a .tiff name, in the
// order given.
TEST(FrameIO, ImageFilesOfEveryKindAreReadInOrder)
{
    krotest::TempDir dir;
    std::vector<cv::Mat> frames;
    for (int i = 0; i < 6; ++i)
        frames.push_back(krotest::randomImage(9, 11, CV_16U, 0, 65536, 30 + i));
    ASSERT_TRUE(cv::imwrite(dir.file("f0.png"), frames[0]));
    ASSERT_TRUE(cv::imwrite(dir.file("f1.pgm"), frames[1]));
    ASSERT_TRUE(cv::imwritemulti(dir.file("f23.tif"), std::vector<cv::Mat>{frames[2], frames[3]}));
    ASSERT_TRUE(cv::imwrite(dir.file("f4.png"), frames[4]));
    fs::rename(dir.file("f4.png"), dir.file("f4.tiff"));
    ASSERT_TRUE(cv::imwrite(dir.file("f5.png"), frames[5]));

    const auto back = readAll(imageInput({dir.file("f0.png"), dir.file("f1.pgm"), dir.file("f23.tif"),
                                          dir.file("f4.tiff"), dir.file("f5.png")}));
    ASSERT_EQ(back.size(), 6u);
    for (int i = 0; i < 6; ++i)
        EXPECT_IMAGES_EQUAL(frames[i], back[i]) << "frame " << i;
}

TEST(FrameIO, BadInputsAreRefusedWithTheirReason)
{
    krotest::TempDir dir;
    writeBytes(dir.file("empty.raw"), "");
    const auto message = [&](const InputSpec& request) -> std::string {
        try {
            readAll(request);
        } catch (const RunError& e) {
            return e.what();
        }
        return "no error";
    };
    EXPECT_NE(message(rawInput({dir.file("empty.raw")}, {3, 2}, SampleFormat::S16)).find("no frames"), std::string::npos);
    EXPECT_NE(message(rawInput({dir.path()}, {3, 2}, SampleFormat::S16)).find("directory"), std::string::npos);

    // Images must all have the first one's size.
    ASSERT_TRUE(cv::imwrite(dir.file("a.png"), cv::Mat(4, 4, CV_16U, cv::Scalar(1))));
    ASSERT_TRUE(cv::imwrite(dir.file("b.png"), cv::Mat(5, 4, CV_16U, cv::Scalar(1))));
    EXPECT_NE(message(imageInput({dir.file("a.png"), dir.file("b.png")})).find("holds a 4x5"), std::string::npos);
}

// A TIFF takes every frame as a page and a PFM stream every frame as a float
// record; nothing else is left.
TEST(FrameIO, TiffAndPfmOutputsHoldEveryFrame)
{
    krotest::TempDir dir;
    std::vector<cv::Mat> frames;
    for (int i = 0; i < 3; ++i)
        frames.push_back(krotest::randomImage(6, 8, CV_16U, 0, 65536, 50 + i));
    writeFrames(dir.file("all.tif"), SampleFormat::U16, frames);
    writeFrames(dir.file("all.pfm"), SampleFormat::F32, frames);

    std::vector<cv::Mat> pages;
    ASSERT_TRUE(cv::imreadmulti(dir.file("all.tif"), pages, cv::IMREAD_UNCHANGED));
    ASSERT_EQ(pages.size(), 3u);
    const auto records = velmor::kro::ImageIO::load(dir.file("all.pfm"));
    const auto read = readAll(imageInput({dir.file("all.pfm")}));
    ASSERT_EQ(records.size(), 3u);
    ASSERT_EQ(read.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_IMAGES_EQUAL(frames[i], pages[i]);
        cv::Mat asFloat;
        frames[i].convertTo(asFloat, CV_32F);
        EXPECT_IMAGES_EQUAL(asFloat, records[i]);
        EXPECT_IMAGES_EQUAL(asFloat, read[i]);
    }
    EXPECT_EQ(filesIn(dir.path()), (std::vector<std::string>{"all.pfm", "all.tif"}));
}

TEST(FrameIO, FailedOrUnfinishedOutputLeavesNothingBehind)
{
    krotest::TempDir dir;
    const cv::Mat frame(4, 4, CV_16U, cv::Scalar(7));
    {
        FrameWriter pattern(dir.file("p_%02d.png"), SampleFormat::U16);
        pattern.write(frame);
        pattern.write(frame);
        EXPECT_THROW(pattern.write(cv::Mat(3, 3, CV_16U, cv::Scalar(1))), RunError) << "size change";
    }
    {
        FrameWriter raw(dir.file("r.raw"), SampleFormat::U16);
        raw.write(frame);
    }
    EXPECT_TRUE(filesIn(dir.path()).empty()) << "left: " << filesIn(dir.path()).size() << " files";

    // An existing output is replaced only when the new one is complete.
    writeBytes(dir.file("keep.raw"), std::string(10, '\x01'));
    {
        FrameWriter raw(dir.file("keep.raw"), SampleFormat::U16);
        raw.write(frame);
        EXPECT_EQ(fs::file_size(dir.file("keep.raw")), 10u);
    }
    EXPECT_EQ(fs::file_size(dir.file("keep.raw")), 10u);
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"keep.raw"});

    EXPECT_THROW(FrameWriter(dir.file("x_%d_%d.png"), SampleFormat::U16), UsageError);
    EXPECT_THROW(FrameWriter(dir.file("x_%s.png"), SampleFormat::U16), UsageError);
}

template <class Parse>
auto parsed(Parse parse, std::vector<std::string> args)
{
    args.insert(args.begin(), "cmd");
    Cli cli(args);
    return parse(cli);
}

TEST(FrameIO, CommandLineSelectsRawOrImageInputAndChecksTheOutput)
{
    const auto parse = [](std::vector<std::string> args) { return parsed(inputFromCommandLine, args); };
    const InputSpec raw = parse({"--size", "640x512", "--format", "u16", "a.raw", "b.raw"});
    EXPECT_TRUE(raw.raw);
    EXPECT_EQ(raw.size, cv::Size(640, 512));
    EXPECT_EQ(raw.format, SampleFormat::U16);
    EXPECT_EQ(raw.paths.size(), 2u);
    EXPECT_FALSE(parse({"x.png", "y.TIF"}).raw);
    EXPECT_THROW(parse({"--format", "s16", "a.raw"}), UsageError) << "size missing";
    EXPECT_THROW(parse({"a.raw"}), UsageError) << "raw stream without size and format";
    EXPECT_THROW(parse({"--size", "640x512", "--format", "s16", "x.png"}), UsageError);

    const auto output = [](std::vector<std::string> args) { return parsed(outputFromCommandLine, args); };
    EXPECT_EQ(output({"-o", "f_%04d.png"}).path, "f_%04d.png");
    EXPECT_THROW(output({"-o", "f_%04d.raw"}), UsageError);
    EXPECT_THROW(output({"-o", "f_%q.png"}), UsageError);
    EXPECT_THROW(output({"-o", "f.png", "--output-format", "s16"}), UsageError);
    EXPECT_TRUE(output({"-o", "f.raw", "--output-format", "f32"}).formatGiven);
}

} // namespace
