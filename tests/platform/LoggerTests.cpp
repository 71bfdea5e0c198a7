#include "NimbOrraPlatform/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace nimborra::platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Installs a host sink for the length of a test and restores the default afterwards.
class HostSinkGuard {
  public:
    explicit HostSinkGuard(LogSink sink) { setLogSink(std::move(sink)); }
    ~HostSinkGuard() { setLogSink({}); }
};

// Restores the process's level after a test that changes it outside a capture.
class LevelGuard {
  public:
    LevelGuard() : saved_(logLevel()) {}
    ~LevelGuard() { setLogLevel(saved_); }

  private:
    LogLevel saved_;
};

TEST(LoggerTest, MinimumLevelDecidesWhatIsEnabled) {
    struct Case {
        LogLevel minimum;
        bool debug, info, error;
    };
    const Case cases[] = {
        {LogLevel::debug, true, true, true},
        {LogLevel::info, false, true, true},
        {LogLevel::error, false, false, true},
        {LogLevel::off, false, false, false},
    };
    LevelGuard guard;
    const Logger logger("com.example.sub", "cat");
    for (const Case& c : cases) {
        SCOPED_TRACE(logLevelName(c.minimum));
        setLogLevel(c.minimum);
        EXPECT_EQ(logLevel(), c.minimum);
        EXPECT_EQ(logger.isEnabled(LogLevel::debug), c.debug);
        EXPECT_EQ(logger.isEnabled(LogLevel::info), c.info);
        EXPECT_EQ(logger.isEnabled(LogLevel::error), c.error);
        // "off" is a threshold, never a level a message can be written at.
        EXPECT_FALSE(logger.isEnabled(LogLevel::off));
    }
}

TEST(LoggerTest, DisabledLevelNeverBuildsTheMessage) {
    LogCapture capture;
    setLogLevel(LogLevel::error);
    const Logger logger("com.example.sub", "cat");

    int built = 0;
    logger.debug([&] {
        ++built;
        return std::string("debug text");
    });
    logger.info([&] {
        ++built;
        return std::string("info text");
    });
    logger.log(LogLevel::off, [&] {
        ++built;
        return std::string("off text");
    });
    EXPECT_EQ(built, 0);
    EXPECT_THAT(capture.records(), IsEmpty());

    logger.error([&] {
        ++built;
        return std::string("error text");
    });
    EXPECT_EQ(built, 1);
    EXPECT_THAT(capture.records(),
                ElementsAre(LogRecord{LogLevel::error, "com.example.sub", "cat", "error text"}));
}

TEST(LoggerTest, MessagesArePassedThroughVerbatim) {
    const std::string texts[] = {
        "{}",
        "{0} and {:>10} and {{",
        "%s %d %{public}s 100%",
        "unbalanced } and {",
        "",
        std::string("embedded\0nul", 12),
        "two\nlines",
    };
    LogCapture capture;
    const Logger logger("s", "c");
    for (const std::string& text : texts) {
        logger.info(std::string_view(text));
    }
    const auto records = capture.records();
    ASSERT_EQ(records.size(), std::size(texts));
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].message, texts[i]) << "message " << i;
    }
}

TEST(LoggerTest, CaptureRecordsEveryLevelAndOrigin) {
    LevelGuard guard;
    setLogLevel(LogLevel::error);
    LogCapture capture;
    EXPECT_EQ(logLevel(), LogLevel::debug);

    const Logger first("com.example.first", "alpha");
    const Logger second("com.example.second", "beta");
    first.debug("one");
    second.info("two");
    first.error("three");
    EXPECT_THAT(capture.records(),
                ElementsAre(LogRecord{LogLevel::debug, "com.example.first", "alpha", "one"},
                            LogRecord{LogLevel::info, "com.example.second", "beta", "two"},
                            LogRecord{LogLevel::error, "com.example.first", "alpha", "three"}));

    capture.clear();
    EXPECT_THAT(capture.records(), IsEmpty());
    second.debug("four");
    EXPECT_THAT(capture.records(),
                ElementsAre(LogRecord{LogLevel::debug, "com.example.second", "beta", "four"}));
}

TEST(LoggerTest, CaptureRestoresPreviousSinkAndLevel) {
    LevelGuard levelGuard;
    std::mutex mutex;
    std::vector<LogRecord> hostRecords;
    HostSinkGuard sinkGuard([&](const LogRecord& record) {
        std::lock_guard<std::mutex> lock(mutex);
        hostRecords.push_back(record);
    });
    setLogLevel(LogLevel::info);
    const Logger logger("s", "c");
    {
        LogCapture capture;
        logger.info("to the capture");
        EXPECT_EQ(capture.records().size(), 1u);
    }
    EXPECT_EQ(logLevel(), LogLevel::info);
    logger.debug("below the restored level");
    logger.info("to the host");

    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(hostRecords, ElementsAre(LogRecord{LogLevel::info, "s", "c", "to the host"}));
}

TEST(LoggerTest, DefaultSinkWritesOneLinePerRecordToStandardError) {
    LevelGuard guard;
    setLogLevel(LogLevel::debug);
    const Logger logger("com.example.sub", "cat");
    ::testing::internal::CaptureStderr();
    logger.debug("first {} %s");
    logger.error("second");
    const std::string written = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(written,
              "debug [com.example.sub:cat] first {} %s\n"
              "error [com.example.sub:cat] second\n");
}

TEST(LoggerTest, ThrowingHostSinkDoesNotEscape) {
    HostSinkGuard sinkGuard([](const LogRecord&) { throw std::runtime_error("sink failed"); });
    const Logger logger("s", "c");
    EXPECT_NO_THROW(logger.error("lost"));
}

TEST(LoggerTest, ConcurrentLoggingDeliversEveryRecordWhole) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 200;
    LogCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            const Logger logger("thread", std::to_string(t));
            for (int i = 0; i < kPerThread; ++i) {
                logger.info([&] { return std::to_string(t) + ":" + std::to_string(i); });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto records = capture.records();
    ASSERT_EQ(records.size(), static_cast<std::size_t>(kThreads * kPerThread));
    std::vector<int> next(kThreads, 0);
    for (const LogRecord& record : records) {
        const int t = std::stoi(record.category);
        // Each thread's records arrive in its own order and carry its own origin.
        EXPECT_EQ(record.message, record.category + ":" + std::to_string(next[t]++));
    }
}

TEST(LoggerTest, SinkCanBeReplacedWhileOtherThreadsLog) {
    std::atomic<int> delivered{0};
    const auto counting = [&](const LogRecord&) { delivered.fetch_add(1); };
    HostSinkGuard sinkGuard(counting);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        const Logger logger("s", "c");
        while (!stop.load()) {
            logger.error("busy");
        }
    });
    for (int i = 0; i < 100; ++i) {
        setLogSink(counting);
        LogCapture capture;
        capture.clear();
    }
    while (delivered.load() == 0) {
        std::this_thread::yield();
    }
    stop.store(true);
    writer.join();
}

}  // namespace
}  // namespace nimborra::platform
