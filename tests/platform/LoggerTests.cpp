#include "NimbOrraPlatform/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace nimborra::platform {
namespace {

using ::testing::ElementsAre;

// Nothing else in the test program changes the sink or the level, so each test starts from the
// default sink at level info, and leaves them that way.
class LoggerTest : public ::testing::Test {
  protected:
    void TearDown() override {
        setLogSink({});
        setLogLevel(LogLevel::info);
    }
    const Logger logger{"com.example.sub", "cat"};
};

// A message below the minimum level is neither written nor even built; "off" is a threshold,
// never a level a message is written at.
TEST_F(LoggerTest, MinimumLevelGatesMessagesWhichAreOnlyBuiltWhenWritten) {
    const LogLevel levels[] = {LogLevel::debug, LogLevel::info, LogLevel::error, LogLevel::off};
    for (std::size_t minimum = 0; minimum < std::size(levels); ++minimum) {
        SCOPED_TRACE(logLevelName(levels[minimum]));
        LogCapture capture;
        setLogLevel(levels[minimum]);
        std::vector<LogLevel> built;
        for (std::size_t level = 0; level < std::size(levels); ++level) {
            const bool written = level >= minimum && levels[level] != LogLevel::off;
            EXPECT_EQ(logger.isEnabled(levels[level]), written);
            logger.log(levels[level], [&] {
                built.push_back(levels[level]);
                return std::string("text");
            });
            EXPECT_EQ(built.size(), capture.records().size());
            EXPECT_EQ(!built.empty() && built.back() == levels[level], written);
        }
    }
}

// The default sink writes one line per record to standard error; braces, percent signs and
// control characters in a message must come out unchanged, never be taken for a format.
TEST_F(LoggerTest, MessagesAreWrittenVerbatim) {
    const std::string texts[] = {"{} {0} {:>10} {{ %s %d %{public}s 100%", "unbalanced } and {", "",
                                 std::string("embedded\0nul", 12), "two\nlines"};
    std::string expected;
    ::testing::internal::CaptureStderr();
    for (const std::string& text : texts) {
        logger.info(std::string_view(text));
        expected += "info [com.example.sub:cat] " + text + "\n";
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
}

// A capture records every level and, when it ends, gives back the host's sink and level; a host
// sink that throws does not reach the code that logged.
TEST_F(LoggerTest, CaptureRestoresTheHostSinkAndLevel) {
    std::vector<LogRecord> hostRecords;
    setLogSink([&](const LogRecord& record) {
        hostRecords.push_back(record);
        throw std::runtime_error("sink failed");
    });
    setLogLevel(LogLevel::error);
    {
        LogCapture capture;
        logger.debug("captured");
        EXPECT_THAT(capture.records(),
                    ElementsAre(LogRecord{LogLevel::debug, "com.example.sub", "cat", "captured"}));
    }
    EXPECT_EQ(logLevel(), LogLevel::error);
    logger.info("below the restored level");
    EXPECT_NO_THROW(logger.error("to the host"));
    EXPECT_THAT(hostRecords,
                ElementsAre(LogRecord{LogLevel::error, "com.example.sub", "cat", "to the host"}));
}

}  // namespace
}  // namespace nimborra::platform
