#include "NimbOrraPlatform/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
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
};

TEST_F(LoggerTest, MinimumLevelGatesMessagesWhichAreOnlyBuiltWhenWritten) {
    constexpr LogLevel levels[] = {LogLevel::debug, LogLevel::info, LogLevel::error, LogLevel::off};
    const struct {
        LogLevel minimum;
        std::vector<LogLevel> written;
    } cases[] = {
        {LogLevel::debug, {LogLevel::debug, LogLevel::info, LogLevel::error}},
        {LogLevel::info, {LogLevel::info, LogLevel::error}},
        {LogLevel::error, {LogLevel::error}},
        {LogLevel::off, {}},  // "off" is a threshold, never a level a message is written at
    };
    const Logger logger("com.example.sub", "cat");
    for (const auto& c : cases) {
        SCOPED_TRACE(logLevelName(c.minimum));
        LogCapture capture;
        setLogLevel(c.minimum);
        std::vector<LogLevel> built;
        for (const LogLevel level : levels) {
            EXPECT_EQ(logger.isEnabled(level), std::ranges::count(c.written, level) == 1);
            logger.log(level, [&] {
                built.push_back(level);
                return std::string("text");
            });
        }
        EXPECT_EQ(built, c.written);
        EXPECT_EQ(capture.records().size(), c.written.size());
    }
}

// The default sink writes one line per record to standard error; braces, percent signs and
// control characters in a message must come out unchanged, never be taken for a format.
TEST_F(LoggerTest, MessagesAreWrittenVerbatim) {
    const std::string texts[] = {"{} {0} {:>10} {{ %s %d %{public}s 100%", "unbalanced } and {", "",
                                 std::string("embedded\0nul", 12), "two\nlines"};
    const Logger logger("com.example.sub", "cat");
    std::string expected;
    ::testing::internal::CaptureStderr();
    for (const std::string& text : texts) {
        logger.info(std::string_view(text));
        expected += "info [com.example.sub:cat] " + text + "\n";
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), expected);
}

// A capture records every level and, when it ends, gives back the host's sink and level.
TEST_F(LoggerTest, CaptureRestoresTheHostSinkAndLevel) {
    std::vector<LogRecord> hostRecords;  // everything here logs on this thread
    setLogSink([&](const LogRecord& record) { hostRecords.push_back(record); });
    setLogLevel(LogLevel::error);
    const Logger logger("com.example.sub", "cat");
    {
        LogCapture capture;
        logger.debug("captured");
        EXPECT_THAT(capture.records(),
                    ElementsAre(LogRecord{LogLevel::debug, "com.example.sub", "cat", "captured"}));
    }
    EXPECT_EQ(logLevel(), LogLevel::error);
    logger.info("below the restored level");
    logger.error("to the host");
    EXPECT_THAT(hostRecords,
                ElementsAre(LogRecord{LogLevel::error, "com.example.sub", "cat", "to the host"}));
}

TEST_F(LoggerTest, ThrowingHostSinkDoesNotEscape) {
    setLogSink([](const LogRecord&) { throw std::runtime_error("sink failed"); });
    EXPECT_NO_THROW(Logger("s", "c").error("lost"));
}

TEST_F(LoggerTest, ConcurrentLoggingDeliversEveryRecordWholeWhileTheSinkIsReplaced) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 200;
    // No lock of our own: sink calls are serialised by the logger (the thread sanitizer checks).
    std::vector<LogRecord> records;
    const LogSink recording = [&](const LogRecord& record) { records.push_back(record); };
    setLogSink(recording);
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &finished] {
            const Logger logger("thread", std::to_string(t));
            for (int i = 0; i < kPerThread; ++i) {
                logger.info([&] { return std::to_string(t) + ":" + std::to_string(i); });
            }
            ++finished;
        });
    }
    // Replacing the sink must not race a record on its way; each replacement records alike.
    while (finished.load() < kThreads) {
        setLogSink(recording);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(records.size(), static_cast<std::size_t>(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const LogRecord& record : records) {
        const int t = std::stoi(record.category);
        EXPECT_EQ(record.message, record.category + ":" + std::to_string(next[t]++));
    }
}

}  // namespace
}  // namespace nimborra::platform
