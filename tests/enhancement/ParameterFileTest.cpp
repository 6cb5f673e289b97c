#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "TestImages.h"
#include "detail/ParameterFile.h"

namespace velmor {
namespace kro {
namespace {

struct Values {
    int mode = -1;
    int width = -1;
    int gain = -1;
    std::vector<detail::ParameterKey> keys() { return {{"mode=%i", &mode}, {"width=%i", &width}, {"gain=%i", &gain}}; }
};

std::string writeFile(const krotest::TempDir& dir, const std::string& text)
{
    const std::string path = dir.file("params.txt");
    std::ofstream(path) << text;
    return path;
}

TEST(ParameterFile, OnlyTheModelsSectionCountsWithEveryIntegerNotation)
{
    krotest::TempDir dir;
    Values v;
    const std::string path = writeFile(dir,
                                       "mode=7\n"                  // before any header: ignored
                                       "[Histogram_Parameter]\n"
                                       "mode=0x1f\n"               // hex
                                       "width=010\n"               // octal
                                       "colour=3\n"                // unknown key
                                       " gain=5\n"                 // not at the start of the line
                                       "[Peaking_Parameter]\n"
                                       "gain=9\n"                  // another model's section
                                       "[Histogram_Parameter]\n"
                                       "gain=-4\n");
    ASSERT_TRUE(detail::readParameterSection(path.c_str(), "Histogram_Parameter]", v.keys(), 255));
    EXPECT_EQ(v.mode, 31);
    EXPECT_EQ(v.width, 8);
    EXPECT_EQ(v.gain, -4);
}

TEST(ParameterFile, MissingFileOrHeaderChangesNothing)
{
    krotest::TempDir dir;
    Values v;
    EXPECT_FALSE(detail::readParameterSection(dir.file("absent.txt").c_str(), "Peaking_Parameter]", v.keys(), 254));
    const std::string path = writeFile(dir, "[Peaking_Parameter ]\nmode=3\n[Peaking]\nmode=4\n");
    EXPECT_TRUE(detail::readParameterSection(path.c_str(), "Peaking_Parameter]", v.keys(), 254));
    EXPECT_EQ(v.mode, -1);
}

TEST(ParameterFile, OverlongLinesAreReadInPieces)
{
    krotest::TempDir dir;
    Values v;
    // The key sits past the line limit: it starts a piece of its own.
    const std::string path = writeFile(dir, "[Histogram_Parameter]\n" + std::string(30, 'x') + "mode=6\n");
    ASSERT_TRUE(detail::readParameterSection(path.c_str(), "Histogram_Parameter]", v.keys(), 30));
    EXPECT_EQ(v.mode, 6);
}

} // namespace
} // namespace kro
} // namespace velmor
