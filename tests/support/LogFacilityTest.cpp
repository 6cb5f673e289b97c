#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "LogFacility.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Each test leaves the process-wide log as it found it: off, default sink.
class LogFacilityTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        unsetenv("KROLIB_LOG_FILE");
        LogFacility::getInstance().setLogLevel(LOG_OFF);
        LogFacility::getInstance().resetStream();
    }
    LogFacility& log = LogFacility::getInstance();
    krotest::TempDir dir_;
};

TEST_F(LogFacilityTest, EnvironmentVariableSwitchesToLevelFourAndFileAndReconfiguringKeepsIt)
{
    const std::string path = dir_.file("krolib.log");
    setenv("KROLIB_LOG_FILE", path.c_str(), 1);
    log.configureFromEnvironment();
    EXPECT_EQ(LOG_DEBUG, log.getLogLevel());
    log.logMessage(LOG_DEBUG, "SuperResolution_init( 160 , 120 )");
    log.configureFromEnvironment();  // a second context: the same file, not truncated
    log.logMessage(LOG_DEBUG, "  got context number:1");
    EXPECT_EQ("SuperResolution_init( 160 , 120 )\n  got context number:1\n", readFile(path));
}

TEST_F(LogFacilityTest, EmptyAndUnsetVariableSwitchLoggingOffAndBackToStandardError)
{
    const std::string path = dir_.file("krolib.log");
    for (const bool empty : {true, false}) {
        SCOPED_TRACE(empty ? "empty" : "unset");
        setenv("KROLIB_LOG_FILE", path.c_str(), 1);
        log.configureFromEnvironment();
        if (empty)
            setenv("KROLIB_LOG_FILE", "", 1);
        else
            unsetenv("KROLIB_LOG_FILE");
        log.configureFromEnvironment();
        EXPECT_EQ(LOG_OFF, log.getLogLevel());
        log.logMessage(LOG_DEBUG, "must not appear");
        log.setLogLevel(LOG_DEBUG);
        testing::internal::CaptureStderr();
        log.logMessage(LOG_DEBUG, "to the default sink");
        EXPECT_EQ("to the default sink\n", testing::internal::GetCapturedStderr());
        log.setLogLevel(LOG_OFF);
        EXPECT_EQ("", readFile(path));
    }
}

TEST_F(LogFacilityTest, LevelGatesMessagesAndTheAppendFlagKeepsContent)
{
    const std::string path = dir_.file("levels.log");
    { std::ofstream(path) << "old\n"; }
    ASSERT_TRUE(log.openLogFile(path, true));
    log.setLogLevel(LOG_WARNING);
    log.logMessage(LOG_ERROR, "error");
    log.logMessage(LOG_WARNING, "warning");
    log.logMessage(LOG_DEBUG, "debug");
    log.logMessage(LOG_OFF, "level zero is never written");
    EXPECT_EQ("old\nerror\nwarning\n", readFile(path));
    log.resetStream();
    ASSERT_TRUE(log.openLogFile(path, false));
    log.logMessage(LOG_ERROR, "truncated");
    EXPECT_EQ("truncated\n", readFile(path));
}

TEST_F(LogFacilityTest, UnopenableFileKeepsTheDefaultSink)
{
    testing::internal::CaptureStderr();
    EXPECT_FALSE(log.openLogFile(dir_.file("no/such/folder/x.log"), false));
    log.setLogLevel(LOG_DEBUG);
    log.logMessage(LOG_DEBUG, "still visible");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("cannot open log file")) << err;
    EXPECT_NE(std::string::npos, err.find("still visible\n")) << err;
}

} // namespace
} // namespace kro
} // namespace velmor
