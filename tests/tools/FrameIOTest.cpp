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

std::vector<cv::Mat> readAll(FrameReader& reader)
{
    std::vector<cv::Mat> frames;
    cv::Mat frame;
    while (reader.read(frame))
        frames.push_back(frame);
    return frames;
}

InputSpec rawInput(const std::string& path, cv::Size size, SampleFormat format)
{
    InputSpec request;
    request.paths = {path};
    request.raw = true;
    request.size = size;
    request.format = format;
    return request;
}

InputSpec imageInput(std::vector<std::string> paths)
{
    InputSpec request;
    request.paths = std::move(paths);
    return request;
}

void writeBytes(const std::string& path, std::size_t count)
{
    std::ofstream out(path, std::ios::binary);
    out << std::string(count, '\x01');
}

TEST(FrameIO, RawStreamsRoundTripInEveryFormat)
{
    krotest::TempDir dir;
    const SampleFormat formats[] = {SampleFormat::S16, SampleFormat::U16, SampleFormat::S32, SampleFormat::F32};
    for (SampleFormat format : formats) {
        const int type = sampleFormatDepth(format);
        std::vector<cv::Mat> frames;
        for (int i = 0; i < 3; ++i)
            frames.push_back(krotest::randomImage(5, 7, type, -1000, 1000 + 60000 * (format == SampleFormat::U16), i));
        const std::string path = dir.file(std::string("stream_") + sampleFormatName(format) + ".raw");
        FrameWriter writer(path, format);
        for (const auto& f : frames)
            writer.write(f);
        writer.commit();
        EXPECT_EQ(fs::file_size(path), 3 * 5 * 7 * sampleFormatBytes(format));

        FrameReader reader(rawInput(path, {7, 5}, format));
        EXPECT_EQ(reader.frameCount(), 3);
        EXPECT_EQ(reader.frameType(), type);
        const auto back = readAll(reader);
        ASSERT_EQ(back.size(), 3u);
        for (int i = 0; i < 3; ++i)
            EXPECT_IMAGES_EQUAL(frames[i], back[i]) << sampleFormatName(format) << " frame " << i;
        reader.rewind();
        EXPECT_EQ(readAll(reader).size(), 3u) << "rewind starts again";
    }
}

TEST(FrameIO, RawStreamIsLittleEndianRowMajor)
{
    krotest::TempDir dir;
    const std::string path = dir.file("two.raw");
    {
        std::ofstream out(path, std::ios::binary);
        const unsigned char bytes[] = {0x01, 0x02, 0xff, 0xff, 0x00, 0x80, 0x34, 0x12};
        out.write(reinterpret_cast<const char*>(bytes), sizeof bytes);
    }
    FrameReader reader(rawInput(path, {2, 2}, SampleFormat::S16));
    cv::Mat frame;
    ASSERT_TRUE(reader.read(frame));
    EXPECT_EQ(frame.at<short>(0, 0), 0x0201);
    EXPECT_EQ(frame.at<short>(0, 1), -1);
    EXPECT_EQ(frame.at<short>(1, 0), -32768);
    EXPECT_EQ(frame.at<short>(1, 1), 0x1234);
    EXPECT_FALSE(reader.read(frame));
}

TEST(FrameIO, SeveralRawFilesFormOneRecording)
{
    krotest::TempDir dir;
    const cv::Mat a(2, 3, CV_16U, cv::Scalar(1)), b(2, 3, CV_16U, cv::Scalar(2));
    for (const auto& [name, frame] : {std::pair<std::string, cv::Mat>{"a.raw", a}, {"b.raw", b}}) {
        FrameWriter writer(dir.file(name), SampleFormat::U16);
        writer.write(frame);
        writer.write(frame);
        writer.commit();
    }
    InputSpec request = rawInput(dir.file("a.raw"), {3, 2}, SampleFormat::U16);
    request.paths.push_back(dir.file("b.raw"));
    FrameReader reader(request);
    EXPECT_EQ(reader.frameCount(), 4);
    const auto frames = readAll(reader);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_IMAGES_EQUAL(a, frames[1]);
    EXPECT_IMAGES_EQUAL(b, frames[2]);
}

TEST(FrameIO, BadRawInputsAreRefusedWithTheirReason)
{
    krotest::TempDir dir;
    writeBytes(dir.file("odd.raw"), 2 * 6 * 2 + 1);
    writeBytes(dir.file("empty.raw"), 0);
    const auto message = [&](const InputSpec& request) -> std::string {
        try {
            FrameReader reader(request);
        } catch (const RunError& e) {
            return e.what();
        }
        return "no error";
    };
    EXPECT_NE(message(rawInput(dir.file("odd.raw"), {3, 2}, SampleFormat::S16)).find("not a whole number"),
              std::string::npos);
    EXPECT_NE(message(rawInput(dir.file("missing.raw"), {3, 2}, SampleFormat::S16)).find("no such file"),
              std::string::npos);
    EXPECT_NE(message(rawInput(dir.file("empty.raw"), {3, 2}, SampleFormat::S16)).find("no frames"),
              std::string::npos);
    EXPECT_NE(message(rawInput(dir.path(), {3, 2}, SampleFormat::S16)).find("directory"), std::string::npos);
    EXPECT_THROW(parseSampleFormat("--format", "u12"), UsageError);
}

TEST(FrameIO, NarrowingSaturatesAndRounds)
{
    krotest::TempDir dir;
    const cv::Mat_<float> frame = (cv::Mat_<float>(1, 6) << 1.4f, 1.6f, -1.6f, 70000.0f, -70000.0f, 32767.4f);
    const std::string path = dir.file("narrow.raw");
    FrameWriter writer(path, SampleFormat::S16);
    writer.write(frame);
    writer.commit();
    FrameReader reader(rawInput(path, {6, 1}, SampleFormat::S16));
    cv::Mat back;
    ASSERT_TRUE(reader.read(back));
    const cv::Mat_<short> expected = (cv::Mat_<short>(1, 6) << 1, 2, -2, 32767, -32768, 32767);
    EXPECT_IMAGES_EQUAL(expected, back);

    // A 16-bit PNG keeps only unsigned samples: negative values become 0.
    const cv::Mat_<short> signedFrame = (cv::Mat_<short>(1, 3) << -5, 0, 300);
    FrameWriter png(dir.file("signed.png"), SampleFormat::S16);
    png.write(signedFrame);
    png.commit();
    const cv::Mat read = cv::imread(dir.file("signed.png"), cv::IMREAD_UNCHANGED);
    ASSERT_EQ(read.type(), CV_16UC1);
    EXPECT_IMAGES_EQUAL((cv::Mat_<unsigned short>(1, 3) << 0, 0, 300), read);
}

TEST(FrameIO, ImageFilesOfEveryKindAreReadInOrder)
{
    krotest::TempDir dir;
    std::vector<cv::Mat> frames;
    for (int i = 0; i < 6; ++i)
        frames.push_back(krotest::randomImage(9, 11, CV_16U, 0, 65536, 30 + i));
    ASSERT_TRUE(cv::imwrite(dir.file("f0.png"), frames[0]));
    ASSERT_TRUE(cv::imwrite(dir.file("f1.pgm"), frames[1]));
    ASSERT_TRUE(cv::imwritemulti(dir.file("f23.tif"), std::vector<cv::Mat>{frames[2], frames[3]}));
    // PNG content under a .tiff name is recognised by its content.
    ASSERT_TRUE(cv::imwrite(dir.file("f4.png"), frames[4]));
    fs::rename(dir.file("f4.png"), dir.file("f4.tiff"));
    ASSERT_TRUE(cv::imwrite(dir.file("f5.png"), frames[5]));

    FrameReader reader(imageInput({dir.file("f0.png"), dir.file("f1.pgm"), dir.file("f23.tif"),
                                   dir.file("f4.tiff"), dir.file("f5.png")}));
    EXPECT_EQ(reader.frameType(), CV_16UC1);
    EXPECT_EQ(reader.frameSize(), cv::Size(11, 9));
    auto back = readAll(reader);
    ASSERT_EQ(back.size(), 6u);
    for (int i = 0; i < 6; ++i)
        EXPECT_IMAGES_EQUAL(frames[i], back[i]) << "frame " << i;
    reader.rewind();
    back = readAll(reader);
    ASSERT_EQ(back.size(), 6u);
    EXPECT_IMAGES_EQUAL(frames[0], back[0]);
}

TEST(FrameIO, PfmStreamsGiveEveryRecord)
{
    krotest::TempDir dir;
    const cv::Mat a = krotest::randomImage(4, 5, CV_32F, -1, 1, 1), b = krotest::randomImage(4, 5, CV_32F, -1, 1, 2);
    {
        velmor::kro::ImageIO stream;
        ASSERT_TRUE(stream.open(dir.file("s.pfm")));
        stream << a << b;
    }
    FrameReader reader(imageInput({dir.file("s.pfm")}));
    const auto back = readAll(reader);
    ASSERT_EQ(back.size(), 2u);
    EXPECT_IMAGES_EQUAL(a, back[0]);
    EXPECT_IMAGES_EQUAL(b, back[1]);
}

TEST(FrameIO, ImagesOfAnotherSizeOrBrokenFilesAreRefused)
{
    krotest::TempDir dir;
    ASSERT_TRUE(cv::imwrite(dir.file("a.png"), cv::Mat(4, 4, CV_16U, cv::Scalar(1))));
    ASSERT_TRUE(cv::imwrite(dir.file("b.png"), cv::Mat(5, 4, CV_16U, cv::Scalar(1))));
    writeBytes(dir.file("broken.png"), 100);
    FrameReader reader(imageInput({dir.file("a.png"), dir.file("b.png")}));
    cv::Mat frame;
    ASSERT_TRUE(reader.read(frame));
    EXPECT_THROW(reader.read(frame), RunError);
    EXPECT_THROW(FrameReader(imageInput({dir.file("broken.png")})), RunError);
    EXPECT_THROW(FrameReader(imageInput({dir.file("none.png")})), RunError);
}

TEST(FrameIO, PatternSingleImageTiffAndPfmOutputs)
{
    krotest::TempDir dir;
    std::vector<cv::Mat> frames;
    for (int i = 0; i < 3; ++i)
        frames.push_back(krotest::randomImage(6, 8, CV_16U, 0, 65536, 50 + i));

    FrameWriter pattern(dir.file("out_%03d.png"), SampleFormat::U16);
    for (const auto& f : frames)
        pattern.write(f);
    pattern.commit();
    for (int i = 0; i < 3; ++i)
        EXPECT_IMAGES_EQUAL(frames[i], cv::imread(dir.file("out_00" + std::to_string(i) + ".png"), cv::IMREAD_UNCHANGED));

    FrameWriter tiff(dir.file("all.tif"), SampleFormat::U16);
    for (const auto& f : frames)
        tiff.write(f);
    tiff.commit();
    std::vector<cv::Mat> pages;
    ASSERT_TRUE(cv::imreadmulti(dir.file("all.tif"), pages, cv::IMREAD_UNCHANGED));
    ASSERT_EQ(pages.size(), 3u);
    EXPECT_IMAGES_EQUAL(frames[2], pages[2]);

    FrameWriter pfm(dir.file("all.pfm"), SampleFormat::F32);
    for (const auto& f : frames)
        pfm.write(f);
    pfm.commit();
    const auto records = velmor::kro::ImageIO::load(dir.file("all.pfm"));
    ASSERT_EQ(records.size(), 3u);
    cv::Mat asFloat;
    frames[1].convertTo(asFloat, CV_32F);
    EXPECT_IMAGES_EQUAL(asFloat, records[1]);

    EXPECT_EQ(filesIn(dir.path()),
              (std::vector<std::string>{"all.pfm", "all.tif", "out_000.png", "out_001.png", "out_002.png"}));
}

TEST(FrameIO, FailedOrUnfinishedOutputLeavesNothingBehind)
{
    krotest::TempDir dir;
    const cv::Mat frame(4, 4, CV_16U, cv::Scalar(7));
    {
        FrameWriter single(dir.file("one.png"), SampleFormat::U16);
        single.write(frame);
        EXPECT_THROW(single.write(frame), RunError) << "a single PNG takes one frame";
    }
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
    writeBytes(dir.file("keep.raw"), 10);
    {
        FrameWriter raw(dir.file("keep.raw"), SampleFormat::U16);
        raw.write(frame);
        EXPECT_EQ(fs::file_size(dir.file("keep.raw")), 10u);
    }
    EXPECT_EQ(fs::file_size(dir.file("keep.raw")), 10u);
    EXPECT_EQ(filesIn(dir.path()), std::vector<std::string>{"keep.raw"});

    EXPECT_THROW(FrameWriter(dir.file("x_%d_%d.png"), SampleFormat::U16), UsageError);
    EXPECT_THROW(FrameWriter(dir.file("x_%s.png"), SampleFormat::U16), UsageError);
    FrameWriter missingFolder(dir.file("no/such/folder/out.raw"), SampleFormat::U16);
    EXPECT_THROW(missingFolder.write(frame), RunError);
}

TEST(FrameIO, CommandLineSelectsRawOrImageInput)
{
    const auto parse = [](std::vector<std::string> args) {
        args.insert(args.begin(), "cmd");
        Cli cli(args);
        return inputFromCommandLine(cli);
    };
    const InputSpec raw = parse({"--size", "640x512", "--format", "u16", "a.raw", "b.raw"});
    EXPECT_TRUE(raw.raw);
    EXPECT_EQ(raw.size, cv::Size(640, 512));
    EXPECT_EQ(raw.format, SampleFormat::U16);
    EXPECT_EQ(raw.paths.size(), 2u);
    EXPECT_FALSE(parse({"x.png", "y.TIF"}).raw);
    EXPECT_THROW(parse({"--size", "640x512", "a.raw"}), UsageError) << "format missing";
    EXPECT_THROW(parse({"a.raw"}), UsageError) << "raw stream without size";
    EXPECT_THROW(parse({"--size", "640x512", "--format", "s16", "x.png"}), UsageError);
    EXPECT_THROW(parse({"--size", "0x512", "--format", "s16", "a.raw"}), UsageError);
    EXPECT_THROW(parse({"--size", "640x512", "--format", "s16"}), UsageError) << "no input";

    const auto output = [](std::vector<std::string> args) {
        args.insert(args.begin(), "cmd");
        Cli cli(args);
        return outputFromCommandLine(cli);
    };
    EXPECT_EQ(output({"-o", "f_%04d.png"}).path, "f_%04d.png");
    EXPECT_THROW(output({"-o", "f_%04d.raw"}), UsageError);
    EXPECT_THROW(output({"-o", "f_%q.png"}), UsageError);
    EXPECT_THROW(output({"-o", "f.png", "--output-format", "s16"}), UsageError);
    EXPECT_THROW(output({}), UsageError);
    EXPECT_TRUE(output({"-o", "f.raw", "--output-format", "f32"}).formatGiven);
}

} // namespace
