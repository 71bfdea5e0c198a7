#include "LineReader.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace nimborra::host {

namespace {

constexpr std::size_t kChunk = 64 * 1024;

}  // namespace

bool LineReader::fill() {
    if (ended_ || error_ != 0) {
        return false;
    }
    // Drop what has been consumed before growing, so the buffer stays within a line and a chunk.
    buffer_.erase(0, start_);
    start_ = 0;
    if (fd_ < 0) {
        const std::size_t count = std::min(kChunk, text_.size());
        buffer_.append(text_.substr(0, count));
        text_.remove_prefix(count);
        ended_ = count == 0;
        return !ended_;
    }
    while (cancelled_ != nullptr) {
        if (cancelled_->load()) {
            ended_ = true;
            return false;
        }
        pollfd ready{fd_, POLLIN, 0};
        const int count = ::poll(&ready, 1, 100);
        if (count > 0) {
            break;
        }
        if (count < 0 && errno != EINTR) {
            error_ = errno;
            return false;
        }
    }
    const std::size_t size = buffer_.size();
    buffer_.resize(size + kChunk);
    ssize_t count = 0;
    do {
        count = ::read(fd_, buffer_.data() + size, kChunk);
    } while (count < 0 && errno == EINTR);
    buffer_.resize(size + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0) {
        error_ = errno;
        return false;
    }
    ended_ = count == 0;
    return !ended_;
}

LineReader::Line LineReader::next() {
    Line line;
    bool tooLong = false;
    // How much of the unread part has been searched for a line break already.
    std::size_t searched = 0;
    for (;;) {
        const std::size_t newline = buffer_.find('\n', start_ + searched);
        if (newline != std::string::npos) {
            if (tooLong || newline - start_ > maximumLineLength) {
                line.kind = Line::Kind::tooLong;
            } else {
                line.kind = Line::Kind::line;
                line.text.assign(buffer_, start_, newline - start_);
            }
            start_ = newline + 1;
            return line;
        }
        searched = buffer_.size() - start_;
        if (searched > maximumLineLength) {
            // Too long already: forget what there is and look only for the line's end.
            tooLong = true;
            start_ = buffer_.size();
            searched = 0;
        }
        if (!fill()) {
            break;
        }
    }
    if (error_ != 0) {
        line.kind = Line::Kind::failed;
        line.error = error_;
    } else if (tooLong) {
        line.kind = Line::Kind::tooLong;
    } else if (start_ < buffer_.size()) {
        line.kind = Line::Kind::line;
        line.text.assign(buffer_, start_, std::string::npos);
    } else {
        line.kind = Line::Kind::end;
    }
    start_ = buffer_.size();
    return line;
}

}  // namespace nimborra::host
