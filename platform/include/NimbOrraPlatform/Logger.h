// The platform's logging service, over spdlog. A Logger names a subsystem and a category; every
// message is one public text. Where the lines go is the host's choice (standard error by default)
// and is set once for the whole process; tests can capture what was logged.
//
// Everything here is safe to use from any thread. Logging never throws.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

enum class LogLevel { debug = 0, info = 1, error = 2, off = 3 };

// "debug", "info", "error" or "off".
NIMBORRA_PLATFORM_EXPORT std::string_view logLevelName(LogLevel level);

struct LogRecord {
    LogLevel level = LogLevel::info;
    std::string subsystem;
    std::string category;
    std::string message;
    friend bool operator==(const LogRecord&, const LogRecord&) = default;
};

// The default sink's line for a record, without the line break:
// "<level> [<subsystem>:<category>] <message>", the message unchanged.
NIMBORRA_PLATFORM_EXPORT std::string formatLogLine(const LogRecord& record);

// Receives every record at or above the process's log level. It is called on the logging
// thread, one record at a time (calls are serialised), and must not log itself.
using LogSink = std::function<void(const LogRecord&)>;

// Replaces the process's sink; an empty function restores the default, which writes
// "<level> [<subsystem>:<category>] <message>" lines to standard error.
NIMBORRA_PLATFORM_EXPORT void setLogSink(LogSink sink);
// Sets the lowest level that is written (default: info).
NIMBORRA_PLATFORM_EXPORT void setLogLevel(LogLevel minimum);
NIMBORRA_PLATFORM_EXPORT LogLevel logLevel();

class NIMBORRA_PLATFORM_EXPORT Logger {
  public:
    Logger(std::string subsystem, std::string category);

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

    bool isEnabled(LogLevel level) const;

    // Writes one message when `level` is enabled.
    void log(LogLevel level, std::string_view message) const;

    // Builds the message only when `level` is enabled: `makeMessage` is any callable returning
    // something convertible to std::string_view (a std::string, say).
    template <class MakeMessage>
    requires std::is_invocable_v<MakeMessage>
    void log(LogLevel level, MakeMessage&& makeMessage) const {
        if (isEnabled(level)) {
            const auto message = std::forward<MakeMessage>(makeMessage)();
            log(level, std::string_view(message));
        }
    }

    template <class M>
    void debug(M&& message) const {
        log(LogLevel::debug, std::forward<M>(message));
    }
    template <class M>
    void info(M&& message) const {
        log(LogLevel::info, std::forward<M>(message));
    }
    template <class M>
    void error(M&& message) const {
        log(LogLevel::error, std::forward<M>(message));
    }

  private:
    std::string subsystem_;
    std::string category_;
};

// For tests: while alive, records every logged line (at every level) instead of the current
// sink, and restores the previous sink and level when destroyed. One at a time per process.
class NIMBORRA_PLATFORM_EXPORT LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    void clear();

  private:
    struct State;
    State* state_;
};

}  // namespace nimborra::platform
