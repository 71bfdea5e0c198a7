// Reads a session's input line by line without ever holding more than one bounded line: a line
// longer than the limit is skipped up to its line break and reported as too long, so that neither
// a huge line nor an endless one (/dev/zero) can exhaust memory.
//
// Threads: one reader belongs to one thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>

namespace nimborra::host {

class LineReader {
  public:
    // The longest line read, line break not included.
    static constexpr std::size_t maximumLineLength = std::size_t{1} << 20;

    // Reads the open file descriptor `fd`, which stays open (the caller owns it).
    explicit LineReader(int fd) : fd_(fd) {}
    // Reads `text`, which must outlive the reader.
    explicit LineReader(std::string_view text) : text_(text) {}

    struct Line {
        enum class Kind {
            // `text` holds the line, without its line break.
            line,
            // The line was longer than maximumLineLength and has been skipped.
            tooLong,
            // The input has ended.
            end,
            // Reading failed; `error` holds the errno value. Reading stops here.
            failed,
        };
        Kind kind = Kind::end;
        std::string text;
        int error = 0;
    };

    // The next line. A last line without a line break is a line too.
    Line next();

    // From now on, a file descriptor is read only when it has data, and once `*cancelled` is true
    // the input counts as ended (checked at least every 100 ms while waiting for data), so that
    // a host that must stop is not held by a terminal nobody types into. The flag must outlive
    // the reader.
    void setCancellation(const std::atomic<bool>* cancelled) { cancelled_ = cancelled; }

  private:
    // Appends up to one chunk of input to buffer_; false at the end of input or on failure.
    bool fill();

    int fd_ = -1;
    std::string_view text_;
    std::string buffer_;
    // Where the unread part of buffer_ starts.
    std::size_t start_ = 0;
    bool ended_ = false;
    const std::atomic<bool>* cancelled_ = nullptr;
    int error_ = 0;
};

}  // namespace nimborra::host
