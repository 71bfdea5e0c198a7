// What apns-host writes: JSON Lines on standard output (replies, events, refusals, inspections,
// echoed input) and log lines on standard error.
//
// Threads: replies arrive on the plug-in's queue, events on whichever thread emits them, and
// everything else on the thread that reads the input. OutputWriter keeps whole lines in the order
// their writeLine calls took its lock and writes them on a thread of its own, in batches: once a
// line arrives it gathers what follows for up to a millisecond (less when much is pending or
// someone drains) and writes it all with one system call, so a busy host makes one write for many
// lines and the threads that produce them never wait for the output file. Should that thread not
// start, the thread that finds no write under way writes what is pending, and keeps writing what
// other threads add meanwhile.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/RemoteNotification.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::host {

class OutputWriter {
  public:
    // Lines waiting for the thread that writes: past this many bytes, writers wait for it (a
    // reader that does not keep up slows the host down instead of filling its memory).
    static constexpr std::size_t maximumPendingBytes = 1 << 20;

    // Writes to `stream`, which must outlive the writer.
    explicit OutputWriter(std::FILE* stream);
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;
    // Waits until every line taken has been written (or the output has failed), then ends the
    // writing thread.
    ~OutputWriter();

    // Takes `line` and a line break as one unit; it is written, and flushed, soon after (within
    // about gatherTime when the output keeps up), before any line taken after it. Any thread;
    // never throws. After the first failed write nothing more is written.
    void writeLine(std::string_view line) noexcept;
    // Writes the line `build` appends to an empty text, as writeLine does. The text is the
    // calling thread's own and kept from line to line, so that a line costs no allocation of its
    // own; `build` must not write lines itself, and may throw std::bad_alloc, which fails the
    // output as writeLine would.
    template <class Build>
    void writeBuiltLine(Build&& build) noexcept;
    // Returns once every line taken so far has been written and flushed, or the output failed.
    void drain() noexcept;

    // Whether a write has failed, and its errno value (0 while none has).
    bool failed() const noexcept { return error_.load() != 0; }
    int error() const noexcept { return error_.load(); }

    // How long the writing thread gathers lines after the first of a batch, and how many bytes
    // make it write at once.
    static constexpr std::chrono::microseconds gatherTime{1000};
    static constexpr std::size_t batchBytes = 256 * 1024;

  private:
    void run() noexcept;
    // A text for writeBuiltLine() cleared, or nothing once it cannot be had.
    static std::string& scratch() noexcept;
    void failOutOfMemory() noexcept;
    // Writes `batch` and flushes; the errno value of a failure, else 0.
    int write(const std::string& batch) noexcept;

    std::mutex mutex_;
    // Producers wait here for room, drain() for the end of the writing.
    std::condition_variable changed_;
    // The writing thread waits here for lines.
    std::condition_variable wake_;
    std::FILE* const stream_;
    // Taken lines not yet handed to the writing thread, and whether one is writing.
    std::string pending_;
    bool writing_ = false;
    // Bytes of the batch the writing thread is writing: with pending_, under the limit.
    std::size_t inFlight_ = 0;
    // The writing thread waits for the first line of a batch; a producer then wakes it. While it
    // gathers, the producer whose line fills the batch wakes it, once.
    bool idle_ = false;
    bool full_ = false;
    bool stopping_ = false;
    // drain() calls waiting: the writing thread then writes without gathering.
    std::size_t draining_ = 0;
    std::atomic<int> error_{0};
    // Not joinable when it could not start: producers then write themselves.
    std::thread thread_;
};

template <class Build>
void OutputWriter::writeBuiltLine(Build&& build) noexcept {
    std::string& text = scratch();
    try {
        build(text);
    } catch (...) {
        failOutOfMemory();
        return;
    }
    writeLine(text);
}

// The output lines. Texts that are already JSON (replies, event payloads) are spliced in byte
// for byte; everything else is written with the platform's JSON writer conventions.

// {"id":ID,"reply":REPLY}, where `id` is the id's compact JSON (an integer or a string), appended
// to `out`.
void appendReplyLine(std::string& out, std::string_view id, std::string_view reply);
// {"app":METHOD,"reply":REPLY}: the reply to one of the host application's own calls.
void appendAppReplyLine(std::string& out, std::string_view method, std::string_view reply);
// {"id":ID,"done":NAME}: a command with an id that is not a call or an inspection has finished.
std::string doneLine(std::string_view id, std::string_view name);
// `line`, a JSON object, with ,"id":ID added as its last member.
std::string withId(std::string line, std::string_view id);
// {"event":NAME,"payload":PAYLOAD}
void appendEventLine(std::string& out, std::string_view name, std::string_view payload);
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
