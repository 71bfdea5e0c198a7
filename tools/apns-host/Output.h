// What apns-host writes: JSON Lines on standard output (replies, events, refusals, inspections,
// echoed input) and log lines on standard error.
//
// Threads: replies arrive on the plug-in's queue, events on whichever thread emits them, and
// everything else on the thread that reads the input, so OutputWriter serialises whole lines
// under one lock and flushes each line before the next is written.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/RemoteNotification.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::host {

class OutputWriter {
  public:
    // Writes to `stream`, which must outlive the writer.
    explicit OutputWriter(std::FILE* stream) : stream_(stream) {}
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;

    // Writes `line` and a line break as one unit, then flushes. Any thread; never throws. After
    // the first failed write nothing more is written.
    void writeLine(std::string_view line) noexcept;

    // Whether a write has failed, and its errno value (0 while none has).
    bool failed() const noexcept { return error_.load() != 0; }
    int error() const noexcept { return error_.load(); }

  private:
    std::mutex mutex_;
    std::FILE* const stream_;
    std::atomic<int> error_{0};
};

// The output lines. Texts that are already JSON (replies, event payloads) are spliced in byte
// for byte; everything else is written with the platform's JSON writer conventions.

// {"id":ID,"reply":REPLY}, where `id` is the id's compact JSON (an integer or a string).
std::string replyLine(std::string_view id, std::string_view reply);
// {"app":METHOD,"reply":REPLY}: the reply to one of the host application's own calls.
std::string appReplyLine(std::string_view method, std::string_view reply);
// {"id":ID,"done":NAME}: a command with an id that is not a call or an inspection has finished.
std::string doneLine(std::string_view id, std::string_view name);
// `line`, a JSON object, with ,"id":ID added as its last member.
std::string withId(std::string line, std::string_view id);
// {"event":NAME,"payload":PAYLOAD}
std::string eventLine(std::string_view name, std::string_view payload);
// {"error":TEXT,"line":N}
std::string refusalLine(std::string_view reason, std::size_t lineNumber);
// {"command":COMMAND}: the command as compact JSON, or as a JSON string when it has none (bytes
// that are not UTF-8 replaced by U+FFFD, so that the line stays JSON).
std::string commandLine(const std::optional<platform::Value>& json, std::string_view rawLine);
// {"comment":TEXT}, with bytes that are not UTF-8 replaced by U+FFFD.
std::string commentLine(std::string_view text);

// Sends the process's log records to `stream` (standard error), one flushed line each.
void installLogSink(std::FILE* stream);

}  // namespace nimborra::host
