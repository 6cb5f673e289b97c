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
        LogFacility::getInstance().setSourcePosition(false);
    }
    krotest::TempDir dir_;
};

TEST_F(LogFacilityTest, EnvironmentVariableSetSwitchesToLevelFourAndFile)
{
    const std::string path = dir_.file("krolib.log");
    setenv("KROLIB_LOG_FILE", path.c_str(), 1);
    LogFacility& log = LogFacility::getInstance();
    log.configureFromEnvironment();
    EXPECT_EQ(LOG_DEBUG, log.getLogLevel());
    log.logMessage(LOG_DEBUG, "SuperResolution_init( 160 , 120 )");
    log.logMessage(LOG_DEBUG, "  got context number:0");
    EXPECT_EQ("SuperResolution_init( 160 , 120 )\n  got context number:0\n", readFile(path));
}

TEST_F(LogFacilityTest, EmptyAndUnsetVariableSwitchLoggingOff)
{
    const std::string path = dir_.file("krolib.log");
    LogFacility& log = LogFacility::getInstance();
    for (const bool empty : {true, false}) {
        setenv("KROLIB_LOG_FILE", path.c_str(), 1);
        log.configureFromEnvironment();
        ASSERT_EQ(LOG_DEBUG, log.getLogLevel());
        if (empty)
            setenv("KROLIB_LOG_FILE", "", 1);
        else
            unsetenv("KROLIB_LOG_FILE");
        log.configureFromEnvironment();
        EXPECT_EQ(LOG_OFF, log.getLogLevel()) << (empty ? "empty" : "unset");
        // Off, and the file is no longer the sink: nothing more lands there.
        log.logMessage(LOG_DEBUG, "must not appear");
        log.setLogLevel(LOG_DEBUG);
        testing::internal::CaptureStderr();
        log.logMessage(LOG_DEBUG, "to the default sink");
        EXPECT_EQ("to the default sink\n", testing::internal::GetCapturedStderr());
        log.setLogLevel(LOG_OFF);
        EXPECT_EQ("", readFile(path)) << (empty ? "empty" : "unset");
    }
}

TEST_F(LogFacilityTest, LevelGatesMessages)
{
    const std::string path = dir_.file("levels.log");
    LogFacility& log = LogFacility::getInstance();
    ASSERT_TRUE(log.openLogFile(path, false));
    log.setLogLevel(LOG_WARNING);
    log.logMessage(LOG_ERROR, "error");
    log.logMessage(LOG_WARNING, "warning");
    log.logMessage(LOG_DEBUG, "debug");
    log.logMessage(LOG_OFF, "level zero is never written");
    EXPECT_EQ("error\nwarning\n", readFile(path));
}

TEST_F(LogFacilityTest, ReconfiguringWithTheSameFileKeepsEarlierLines)
{
    const std::string path = dir_.file("same.log");
    setenv("KROLIB_LOG_FILE", path.c_str(), 1);
    LogFacility& log = LogFacility::getInstance();
    log.configureFromEnvironment();
    log.logMessage(LOG_DEBUG, "first context");
    log.configureFromEnvironment();
    log.logMessage(LOG_DEBUG, "second context");
    EXPECT_EQ("first context\nsecond context\n", readFile(path));
}

TEST_F(LogFacilityTest, AppendFlagKeepsExistingContent)
{
    const std::string path = dir_.file("append.log");
    { std::ofstream(path) << "old\n"; }
    LogFacility& log = LogFacility::getInstance();
    log.setLogLevel(LOG_DEBUG);
    ASSERT_TRUE(log.openLogFile(path, true));
    log.logMessage(LOG_DEBUG, "new");
    log.resetStream();
    ASSERT_TRUE(log.openLogFile(path, false));
    log.logMessage(LOG_DEBUG, "truncated");
    EXPECT_EQ("truncated\n", readFile(path));
}

TEST_F(LogFacilityTest, UnopenableFileKeepsTheDefaultSink)
{
    LogFacility& log = LogFacility::getInstance();
    testing::internal::CaptureStderr();
    EXPECT_FALSE(log.openLogFile(dir_.file("no/such/folder/x.log"), false));
    log.setLogLevel(LOG_DEBUG);
    log.logMessage(LOG_DEBUG, "still visible");
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, err.find("cannot open log file")) << err;
    EXPECT_NE(std::string::npos, err.find("still visible\n")) << err;
}

TEST_F(LogFacilityTest, SourcePositionSwitchIsOffByDefault)
{
    EXPECT_FALSE(LogFacility::getInstance().getSourcePosition());
    LogFacility::getInstance().setSourcePosition(true);
    EXPECT_TRUE(LogFacility::getInstance().getSourcePosition());
}

} // namespace
} // namespace kro
} // namespace velmor
