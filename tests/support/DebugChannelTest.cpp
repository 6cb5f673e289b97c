#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "DebugChannel.h"
#include "DebugDeviceConsole.h"
#include "DebugSingleton.h"
#include "LogFacility.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

// Keeps "channel|message|level" per message.
class RecordingDevice : public DebugDeviceBase {
public:
    void write(const std::string& channel, const std::string& message, int level) override
    {
        lines.push_back(channel + "|" + message + "|" + std::to_string(level));
    }
    std::vector<std::string> lines;
};
using Lines = std::vector<std::string>;

TEST(DebugChannel, OutputLevelGatesWhatReachesTheDeviceAndANewChannelIsSilent)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel channel("SrFloat");
    channel.setDebugDevice(device);
    channel.trace("start computeSr");  // levels start at 0
    EXPECT_FALSE(channel.isDebugActive(1));
    EXPECT_TRUE(device->lines.empty());

    channel.setOutputLevel(10);
    EXPECT_TRUE(channel.isDebugActive(10));
    EXPECT_FALSE(channel.isDebugActive(kDebugLevelTrace));
    EXPECT_FALSE(channel.isDebugActive(0));
    channel.trace("start computeSr");  // level 11: above the output level
    channel.send("summary", 3);
    channel.send("level zero", 0);
    EXPECT_EQ(Lines{"SrFloat|summary|3"}, device->lines);

    channel.setOutputLevel(kDebugLevelTrace);
    channel.trace("start computeSr");
    EXPECT_EQ((Lines{"SrFloat|summary|3", "SrFloat|start computeSr|11"}), device->lines);
}

TEST(DebugChannel, LogLevelSendsToTheLogAndConsoleDeviceWritesOneLine)
{
    DebugChannel channel("SrInt");
    channel.setOutputLevel(20);  // no device: the output level alone activates nothing
    EXPECT_FALSE(channel.isDebugActive(kDebugLevelTrace));
    channel.send("nowhere to go", 5);

    krotest::TempDir dir;
    LogFacility& log = LogFacility::getInstance();
    ASSERT_TRUE(log.openLogFile(dir.file("channel.log"), false));
    log.setLogLevel(LOG_DEBUG);
    channel.setLogLevel(kDebugLevelTrace);
    EXPECT_TRUE(channel.isDebugActive(kDebugLevelTrace));
    channel.trace("end computeSr");
    log.setLogLevel(LOG_OFF);
    log.resetStream();
    std::ifstream in(dir.file("channel.log"));
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ("[SrInt] end computeSr\n", text.str());

    channel.setDebugDevice(std::make_shared<DebugDeviceConsole>());
    channel.setLogLevel(0);
    testing::internal::CaptureStderr();
    channel.trace("start prepareFrame");
    EXPECT_EQ("[SrInt] start prepareFrame\n", testing::internal::GetCapturedStderr());
}

TEST(DebugChannel, CopiesKeepSettingsAndRegisterThemselves)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel original("SrFloat");
    original.setDebugDevice(device);
    original.setOutputLevel(kDebugLevelTrace);
    DebugChannel copy(original);
    EXPECT_TRUE(DebugSingleton::getInstance().isRegistered(&copy));
    copy.trace("from the copy");
    EXPECT_EQ(Lines{"SrFloat|from the copy|11"}, device->lines);

    DebugChannel assigned("other");
    assigned = original;
    EXPECT_EQ("SrFloat", assigned.getDebugChannelName());
    EXPECT_TRUE(DebugSingleton::getInstance().isRegistered(&assigned));
}

TEST(DebugSingleton, ConfiguresRegisteredChannelsByNameAndForgetsDestroyedOnes)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel a("SrFloat"), b("SrFloat"), c("SrInt");
    DebugSingleton& registry = DebugSingleton::getInstance();
    registry.setDebugDevice(device, "SrFloat");
    registry.setOutputLevel(kDebugLevelTrace, "SrFloat");
    a.trace("a");
    b.trace("b");
    c.trace("c");
    EXPECT_EQ((Lines{"SrFloat|a|11", "SrFloat|b|11"}), device->lines);
    EXPECT_EQ(nullptr, c.getDebugDevice());

    const std::size_t before = registry.getChannelCount();
    const DebugChannel* address = nullptr;
    {
        auto shortLived = std::make_unique<DebugChannel>("short-lived");
        address = shortLived.get();
        EXPECT_TRUE(registry.isRegistered(address));
        EXPECT_EQ(before + 1, registry.getChannelCount());
    }
    EXPECT_FALSE(registry.isRegistered(address));
    EXPECT_EQ(before, registry.getChannelCount());
    // Configuring everything now must not touch the freed object (the
    // sanitizer build turns such a touch into a failure).
    registry.setOutputLevel(0);
    registry.setLogLevel(0);
    registry.setDebugDevice(nullptr);
}

} // namespace
} // namespace kro
} // namespace velmor
