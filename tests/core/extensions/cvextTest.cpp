#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

#include "Exception.h"
#include "cvext.h"

namespace velmor {
namespace kro {
namespace {

// The PSF taps' conversion: fractions of 2^16 in [0, 0.5].
cv::Mat_<short> tapsToInt(const cv::Mat_<float>& taps)
{
    return convertMatFloatToMatInt(taps, 0.0f, 0.5f, 65536.0f, 0.0f, false);
}

// The message and the "where" of the exception `call` throws.
template <typename Call>
std::pair<std::string, std::string> thrown(Call call)
{
    try {
        call();
    } catch (const Exception& e) {
        return {e.what(), e.where()};
    }
    return {"nothing thrown", ""};
}

TEST(convertMatFloatToMatInt, PsfTapsBecomeFractionsOf65536AndHalfWrapsToMinus32768)
{
    cv::Mat_<float> taps(2, 3);
    taps << 0.25f, 0.5f, 0.0f,  //
        0.1f, 0.4999f, 1.0f / 65536.0f;
    const cv::Mat_<short> out = tapsToInt(taps);
    ASSERT_EQ(taps.size(), out.size());
    EXPECT_EQ(16384, out(0, 0));
    EXPECT_EQ(-32768, out(0, 1));  // 32768 wrapped; read back as unsigned by the engine
    EXPECT_EQ(0, out(0, 2));
    EXPECT_EQ(6554, out(1, 0));   // 6553.6
    EXPECT_EQ(32761, out(1, 1));  // 32761.4464
    EXPECT_EQ(1, out(1, 2));
}

TEST(convertMatFloatToMatInt, RoundsHalfAwayFromZeroAndWrapsBeyond16Bits)
{
    cv::Mat_<float> v(1, 9);
    v << 1.5f, -1.5f, 2.4999f, -2.4999f, 0.49999997f, -0.5f, 32767.5f, 65537.0f, -98304.0f;
    const cv::Mat_<short> out = convertMatFloatToMatInt(v, -1e6f, 1e6f, 1.0f, 0.0f, false);
    const short expected[] = {2, -2, 2, -2, 0, -1, -32768, 1, -32768};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(expected[i], out(0, i)) << "input " << v(0, i);

    // Beyond 32 bits the wrap continues on the exact integer (both values
    // are exact floats): 3 * 2^32 + 7 * 2^15 keeps 32768, the negative one
    // keeps -20480.
    cv::Mat_<float> big(1, 1, 3.0f * 4294967296.0f + 7.0f * 32768.0f);
    EXPECT_EQ(-32768, convertMatFloatToMatInt(big, -1e12f, 1e12f, 1.0f, 0.0f, false)(0, 0));
    big(0, 0) = -3.0f * 4294967296.0f - 5.0f * 4096.0f;  // -20480 mod 2^16
    EXPECT_EQ(-20480, convertMatFloatToMatInt(big, -1e12f, 1e12f, 1.0f, 0.0f, false)(0, 0));
}

TEST(convertMatFloatToMatInt, OffsetFirstChoosesTheOrderOfOffsetAndScale)
{
    const cv::Mat_<float> three(1, 1, 3.0f);
    EXPECT_EQ(8, convertMatFloatToMatInt(three, 0.0f, 10.0f, 2.0f, 1.0f, true)(0, 0));
    EXPECT_EQ(7, convertMatFloatToMatInt(three, 0.0f, 10.0f, 2.0f, 1.0f, false)(0, 0));
    // The range test is on the input, not on the scaled result.
    EXPECT_EQ(1000, convertMatFloatToMatInt(three, 0.0f, 3.0f, 333.0f, 1.0f, false)(0, 0));
}

TEST(convertMatFloatToMatInt, FirstOffendingValueInRowMajorOrderDecidesTheMessage)
{
    cv::Mat_<float> taps(2, 2, 0.1f);
    taps(0, 1) = -0.0001f;
    EXPECT_EQ(
        "convertMatFloatToMatInt: value clamped to min", thrown([&] { tapsToInt(taps); }).first);
    taps(0, 1) = 0.1f;
    taps(1, 0) = -0.0001f;  // row 1, column 0
    taps(0, 1) = 0.5001f;   // row 0, column 1 comes first
    const auto [message, where] = thrown([&] { tapsToInt(taps); });
    EXPECT_EQ("convertMatFloatToMatInt: value clamped to max", message);
    EXPECT_NE(std::string::npos, where.find("modules/core/extensions/cvext:")) << where;
    EXPECT_NE(std::string::npos, where.find(" : velmor::kro::convertMatFloatToMatInt(..)"))
        << where;

    // A row-of-a-larger-image view is scanned by its own rows.
    cv::Mat_<float> image(4, 4, 0.1f);
    image(3, 0) = -1.0f;
    image(0, 3) = 2.0f;
    EXPECT_NO_THROW(tapsToInt(image(cv::Rect(0, 0, 3, 3))));
    EXPECT_EQ("convertMatFloatToMatInt: value clamped to min",
              thrown([&] { tapsToInt(image(cv::Rect(0, 1, 3, 3))); }).first);
}

TEST(convertMatFloatToMatInt, NanPassesTheRangeTestAndIsStoredAsZero)
{
    cv::Mat_<float> v(1, 3, std::numeric_limits<float>::quiet_NaN());
    v(0, 2) = 0.25f;
    const cv::Mat_<short> out = tapsToInt(v);
    EXPECT_EQ(0, out(0, 0));
    EXPECT_EQ(16384, out(0, 2));
    // An infinite result (finite input, huge scale) is stored as 0 too.
    EXPECT_EQ(0, convertMatFloatToMatInt(cv::Mat_<float>(1, 1, 1e30f), 0.0f, 1e31f, 1e30f, 0.0f,
                                         false)(0, 0));
}

TEST(convertMatIntToMatFloat, ScalesWithOffsetAndChecksTheRangeInRowMajorOrder)
{
    cv::Mat_<short> v(2, 2);
    v << -32768, 32767, 3, -4;
    const cv::Mat_<float> out = convertMatIntToMatFloat(v, -32768, 32767, 0.5f, 1.0f);
    EXPECT_EQ(-16383.0f, out(0, 0));
    EXPECT_EQ(16384.5f, out(0, 1));
    EXPECT_EQ(2.5f, out(1, 0));
    EXPECT_EQ(-1.0f, out(1, 1));

    const auto [message, where] = thrown([&] { convertMatIntToMatFloat(v, -4, 3, 1.0f, 0.0f); });
    EXPECT_EQ("convertMatIntToMatFloat: value clamped to min", message);
    EXPECT_NE(std::string::npos, where.find(" : velmor::kro::convertMatIntToMatFloat(..)"))
        << where;
    EXPECT_EQ("convertMatIntToMatFloat: value clamped to max",
              thrown([&] { convertMatIntToMatFloat(v, -32768, 3, 1.0f, 0.0f); }).first);
    EXPECT_NO_THROW(convertMatIntToMatFloat(v, -32768, 32767, 1.0f, 0.0f));
}

TEST(convertMatIntToMatFloat, RoundTripRecoversTheShortImage)
{
    cv::Mat_<short> v(3, 5);
    cv::randu(v, -32768, 32767);
    const cv::Mat_<float> f = convertMatIntToMatFloat(v, -32768, 32767, 1.0f / 64.0f, 0.0f);
    const cv::Mat_<short> back = convertMatFloatToMatInt(f, -1024.0f, 1024.0f, 64.0f, 0.0f, false);
    EXPECT_EQ(0, cv::norm(v, back, cv::NORM_INF));
}

} // namespace
} // namespace kro
} // namespace velmor
