// The logging service: one process-wide spdlog logger whose single sink hands each record to the
// host's LogSink, or writes it to standard error when the host has not chosen a sink.
//
// The level gate is our own atomic, checked before anything is built; spdlog's logger is left
// open at its lowest level so that whatever passes the gate reaches the sink. Messages go to
// spdlog as plain text (the overload that does no formatting), so braces and percent signs in a
// message come out unchanged.
#include "NimbOrraPlatform/Logger.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace nimborra::platform {
namespace {

// Where the record being logged on this thread comes from. The logger is synchronous, so the
// sink runs on the logging thread, inside Logger::log, while these pointers are valid.
struct Origin {
    const std::string* subsystem = nullptr;
    const std::string* category = nullptr;
};
thread_local Origin currentOrigin;

LogLevel fromSpdlog(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::trace:
        case spdlog::level::debug:
            return LogLevel::debug;
        case spdlog::level::info:
            return LogLevel::info;
        case spdlog::level::off:
            return LogLevel::off;
        default:
            return LogLevel::error;
    }
}

spdlog::level::level_enum toSpdlog(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return spdlog::level::debug;
        case LogLevel::info:
            return spdlog::level::info;
        case LogLevel::error:
            return spdlog::level::err;
        case LogLevel::off:
            break;
    }
    return spdlog::level::off;
}

// The one sink of the process logger. base_sink's mutex serialises the records and guards the
// host's sink function, so replacing the sink never races a record being delivered.
class HostSink final : public spdlog::sinks::base_sink<std::mutex> {
  public:
    // Installs `sink` (empty: standard error) and returns the one it replaces.
    LogSink exchange(LogSink sink) {
        std::lock_guard<std::mutex> lock(mutex_);
        host_.swap(sink);
        return sink;
    }

  protected:
    void sink_it_(const spdlog::details::log_msg& msg) override {
        const Origin origin = currentOrigin;
        try {
            // No static of class type here: records may still be written while static objects
            // are being destroyed.
            LogRecord record;
            record.level = fromSpdlog(msg.level);
            if (origin.subsystem != nullptr) {
                record.subsystem = *origin.subsystem;
            }
            if (origin.category != nullptr) {
                record.category = *origin.category;
            }
            record.message.assign(msg.payload.data(), msg.payload.size());
            if (host_) {
                host_(record);
            } else {
                writeToStandardError(record);
            }
        } catch (...) {
            // A failing host sink loses its record; logging itself never fails.
        }
    }

    void flush_() override { std::fflush(stderr); }

  private:
    static void writeToStandardError(const LogRecord& record) {
        std::string line = formatLogLine(record);
        line.push_back('\n');
        std::fwrite(line.data(), 1, line.size(), stderr);
    }

    LogSink host_;
};

struct Service {
    std::shared_ptr<HostSink> sink = std::make_shared<HostSink>();
    // Not registered with spdlog's registry, so a host that uses spdlog itself cannot collide
    // with it by name.
    spdlog::logger logger{"nimborra", sink};
    std::atomic<LogLevel> minimum{LogLevel::info};
    // Serialises LogCapture's set-up and tear-down against each other and against host changes.
    std::mutex configuration;

    Service() {
        logger.set_level(spdlog::level::trace);
        logger.flush_on(spdlog::level::off);
    }
};

// Created on first use and never destroyed, so logging stays valid during static destruction.
Service& service() {
    static Service* const instance = new Service;
    return *instance;
}

}  // namespace

std::string formatLogLine(const LogRecord& record) {
    std::string line;
    line.reserve(record.subsystem.size() + record.category.size() + record.message.size() + 16);
    line.append(logLevelName(record.level));
    line.append(" [");
    line.append(record.subsystem);
    line.push_back(':');
    line.append(record.category);
    line.append("] ");
    line.append(record.message);
    return line;
}

std::string_view logLevelName(LogLevel level) {
    switch (level) {
        case LogLevel::debug:
            return "debug";
        case LogLevel::info:
            return "info";
        case LogLevel::error:
            return "error";
        case LogLevel::off:
            break;
    }
    return "off";
}

void setLogSink(LogSink sink) {
    try {
        Service& s = service();
        std::lock_guard<std::mutex> lock(s.configuration);
        s.sink->exchange(std::move(sink));
    } catch (...) {
    }
}

void setLogLevel(LogLevel minimum) {
    service().minimum.store(minimum, std::memory_order_relaxed);
}

LogLevel logLevel() {
    return service().minimum.load(std::memory_order_relaxed);
}

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

bool Logger::isEnabled(LogLevel level) const {
    return level != LogLevel::off &&
           static_cast<int>(level) >=
               static_cast<int>(service().minimum.load(std::memory_order_relaxed));
}

void Logger::log(LogLevel level, std::string_view message) const {
    if (!isEnabled(level)) {
        return;
    }
    const Origin previous = currentOrigin;
    currentOrigin = Origin{&subsystem_, &category_};
    try {
        service().logger.log(spdlog::source_loc{}, toSpdlog(level),
                             spdlog::string_view_t(message.data(), message.size()));
    } catch (...) {
    }
    currentOrigin = previous;
}

struct LogCapture::State {
    mutable std::mutex mutex;
    std::vector<LogRecord> records;
    LogSink previousSink;
    LogLevel previousLevel = LogLevel::info;
};

LogCapture::LogCapture() : state_(new State) {
    Service& s = service();
    std::lock_guard<std::mutex> lock(s.configuration);
    State* state = state_;
    state_->previousSink = s.sink->exchange([state](const LogRecord& record) {
        std::lock_guard<std::mutex> recordsLock(state->mutex);
        state->records.push_back(record);
    });
    state_->previousLevel = s.minimum.exchange(LogLevel::debug, std::memory_order_relaxed);
}

LogCapture::~LogCapture() {
    Service& s = service();
    {
        std::lock_guard<std::mutex> lock(s.configuration);
        s.minimum.store(state_->previousLevel, std::memory_order_relaxed);
        // Once the exchange returns, no record can still be on its way into this capture.
        s.sink->exchange(std::move(state_->previousSink));
    }
    delete state_;
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->records;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->records.clear();
}

}  // namespace nimborra::platform
