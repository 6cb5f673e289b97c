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

struct Recorded {
    std::string channel;
    std::string message;
    int level;
};

class RecordingDevice : public DebugDeviceBase {
public:
    void write(const std::string& channel, const std::string& message, int level) override
    {
        messages.push_back({channel, message, level});
    }
    std::vector<Recorded> messages;
};

TEST(DebugChannel, NewChannelIsSilent)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel channel("SrFloat");
    channel.setDebugDevice(device);
    channel.send("start computeSr", kDebugLevelTrace);
    channel.trace("start computeSr");
    EXPECT_FALSE(channel.isDebugActive(1));
    EXPECT_TRUE(device->messages.empty());
}

TEST(DebugChannel, OutputLevelGatesWhatReachesTheDevice)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel channel("SrFloat");
    channel.setDebugDevice(device);
    channel.setOutputLevel(10);
    EXPECT_TRUE(channel.isDebugActive(10));
    EXPECT_FALSE(channel.isDebugActive(kDebugLevelTrace));
    EXPECT_FALSE(channel.isDebugActive(0));
    channel.trace("start computeSr");  // level 11: above the output level
    channel.send("summary", 3);
    channel.send("level zero", 0);
    ASSERT_EQ(1u, device->messages.size());
    EXPECT_EQ("SrFloat", device->messages[0].channel);
    EXPECT_EQ("summary", device->messages[0].message);
    EXPECT_EQ(3, device->messages[0].level);

    channel.setOutputLevel(kDebugLevelTrace);
    channel.trace("start computeSr");
    ASSERT_EQ(2u, device->messages.size());
    EXPECT_EQ("start computeSr", device->messages[1].message);
    EXPECT_EQ(kDebugLevelTrace, device->messages[1].level);
}

TEST(DebugChannel, WithoutADeviceOnlyTheLogLevelMakesItActive)
{
    DebugChannel channel("SrInt");
    channel.setOutputLevel(20);
    EXPECT_FALSE(channel.isDebugActive(kDebugLevelTrace));
    channel.send("nowhere to go", 5);  // must not crash

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
    ASSERT_EQ(1u, device->messages.size());

    DebugChannel assigned("other");
    assigned = original;
    EXPECT_EQ("SrFloat", assigned.getDebugChannelName());
    EXPECT_TRUE(DebugSingleton::getInstance().isRegistered(&assigned));
}

TEST(DebugChannel, ConsoleDeviceWritesOneLinePerMessage)
{
    DebugChannel channel("SrFloat");
    channel.setDebugDevice(std::make_shared<DebugDeviceConsole>());
    channel.setOutputLevel(kDebugLevelTrace);
    testing::internal::CaptureStderr();
    channel.trace("start prepareFrame");
    EXPECT_EQ("[SrFloat] start prepareFrame\n", testing::internal::GetCapturedStderr());
}

TEST(DebugSingleton, ConfiguresRegisteredChannelsByName)
{
    auto device = std::make_shared<RecordingDevice>();
    DebugChannel a("SrFloat"), b("SrFloat"), c("SrInt");
    DebugSingleton& registry = DebugSingleton::getInstance();
    registry.setDebugDevice(device, "SrFloat");
    registry.setOutputLevel(kDebugLevelTrace, "SrFloat");
    a.trace("a");
    b.trace("b");
    c.trace("c");
    ASSERT_EQ(2u, device->messages.size());
    EXPECT_EQ("a", device->messages[0].message);
    EXPECT_EQ("b", device->messages[1].message);
    EXPECT_EQ(nullptr, c.getDebugDevice());
}

TEST(DebugSingleton, DestroyedChannelIsNoLongerReached)
{
    DebugSingleton& registry = DebugSingleton::getInstance();
    const std::size_t before = registry.getChannelCount();
    const DebugChannel* address = nullptr;
    {
        auto channel = std::make_unique<DebugChannel>("short-lived");
        address = channel.get();
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
