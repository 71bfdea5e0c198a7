#include "Output.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Text.h"

namespace nimborra::host {

namespace {

// Takes the writer's lock, which every holder keeps only for an append or a swap: a thread that
// finds it taken tries again for a moment before it sleeps, so that threads writing at once do not
// pay a system call to sleep and another to be woken for each line.
void lockBriefly(std::unique_lock<std::mutex>& lock) {
    constexpr int kAttempts = 64;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (lock.try_lock()) {
            return;
        }
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    lock.lock();
}

// Appends the line {"<firstKey>":<first>,"<secondKey>":<second>}: `second` is JSON text already;
// `first` is too, unless `quoteFirst` asks for it to be written as a JSON string.
void appendTwoMemberLine(std::string& out, std::string_view firstKey, std::string_view first,
                         bool quoteFirst, std::string_view secondKey, std::string_view second) {
    out.reserve(out.size() + firstKey.size() + first.size() + secondKey.size() + second.size() +
                16);
    out.append("{\"").append(firstKey).append("\":");
    if (quoteFirst) {
        platform::appendJSONString(out, first);
    } else {
        out.append(first);
    }
    out.append(",\"").append(secondKey).append("\":").append(second);
    out.push_back('}');
}

}  // namespace

OutputWriter::OutputWriter(std::FILE* stream) : stream_(stream) {
    // A pipe's usual 64 KiB hold less than a busy host's batch: the writing thread would block
    // in every write and wait for the reader many times over. A larger pipe, when the system
    // allows it, takes a batch at once; where it does not, the pipe stays as it is.
    const int fd = fileno(stream_);
    struct stat status {};
    if (fd >= 0 && ::fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode)) {
        (void)::fcntl(fd, F_SETPIPE_SZ, static_cast<int>(maximumPendingBytes));
    }
    try {
        thread_ = std::thread([this] { run(); });
    } catch (...) {
        // No thread: every line is written by a thread that takes it (see writeLine).
    }
}

OutputWriter::~OutputWriter() {
    drain();
    if (thread_.joinable()) {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
}

int OutputWriter::write(const std::string& batch) noexcept {
    errno = 0;
    // Nothing else writes to the stream, whose buffer is flushed after every batch: a batch goes
    // straight to the file, in one system call where stdio would make up to three.
    const int fd = std::fflush(stream_) == 0 ? fileno(stream_) : -1;
    if (fd < 0) {
        const bool written = std::fwrite(batch.data(), 1, batch.size(), stream_) == batch.size() &&
                             std::fflush(stream_) == 0;
        return written ? 0 : (errno != 0 ? errno : EIO);
    }
    std::size_t done = 0;
    while (done < batch.size()) {
        const ssize_t count = ::write(fd, batch.data() + done, batch.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count < 0 && errno != 0 ? errno : EIO;
        }
        done += static_cast<std::size_t>(count);
    }
    return 0;
}

void OutputWriter::run() noexcept {
    // Signals are for the host's signal thread; this one only writes.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    pthread_setname_np(pthread_self(), "host.output");
    std::string batch;
    std::unique_lock lock(mutex_);
    for (;;) {
        idle_ = true;
        wake_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
        idle_ = false;
        if (pending_.empty()) {
            return;  // stopping, and everything is written
        }
        // The lines that follow the first are written with it: a host answering many pushes
        // makes one system call for many of their lines.
        wake_.wait_for(lock, gatherTime, [this] {
            return stopping_ || draining_ > 0 || pending_.size() >= batchBytes;
        });
        batch.swap(pending_);
        full_ = false;
        writing_ = true;
        // What is being written still counts against the limit, until it is written.
        inFlight_ = batch.size();
        lock.unlock();
        const int error = error_.load() == 0 ? write(batch) : 0;
        batch.clear();
        if (batch.capacity() > 4 * batchBytes) {
            std::string().swap(batch);  // a stalled reader's backlog is not kept for good
        }
        lock.lock();
        if (error != 0) {
            error_.store(error);
            pending_.clear();
        }
        inFlight_ = 0;
        writing_ = false;
        changed_.notify_all();
    }
}

std::string& OutputWriter::scratch() noexcept {
    // Kept from line to line, unless a very long line made it large.
    constexpr std::size_t kKept = 64 * 1024;
    thread_local std::string text;
    if (text.capacity() > kKept) {
        std::string().swap(text);
    }
    text.clear();
    return text;
}

void OutputWriter::failOutOfMemory() noexcept {
    {
        const std::lock_guard lock(mutex_);
        error_.store(ENOMEM);
    }
    changed_.notify_all();
}

void OutputWriter::writeLine(std::string_view line) noexcept {
    std::unique_lock lock(mutex_, std::defer_lock);
    lockBriefly(lock);
    const bool threaded = thread_.joinable();
    // Room for the line, unless the writing is behind by more than the limit.
    changed_.wait(lock, [this, threaded] {
        return error_.load() != 0 || (!threaded && !writing_) ||
               pending_.size() + inFlight_ < maximumPendingBytes;
    });
    if (error_.load() != 0) {
        return;
    }
    try {
        pending_.append(line);
        pending_.push_back('\n');
    } catch (...) {
        error_.store(ENOMEM);
        changed_.notify_all();
        return;
    }
    if (threaded) {
        // Woken once per batch, after the lock is let go, so that it does not wake only to wait
        // for the lock.
        bool wake = false;
        if (idle_) {
            idle_ = false;
            wake = true;
        } else if (!full_ && pending_.size() >= batchBytes) {
            full_ = true;
            wake = true;
        }
        lock.unlock();
        if (wake) {
            wake_.notify_one();
        }
        return;
    }
    if (writing_) {
        return;  // the writing thread takes it with the next batch
    }
    writing_ = true;
    std::string batch;
    while (!pending_.empty() && error_.load() == 0) {
        batch.swap(pending_);
        changed_.notify_all();
        lock.unlock();
        const int error = write(batch);
        batch.clear();
        lock.lock();
        if (error != 0) {
            error_.store(error);
        }
    }
    pending_.clear();
    writing_ = false;
    changed_.notify_all();
}

void OutputWriter::drain() noexcept {
    std::unique_lock lock(mutex_);
    ++draining_;
    wake_.notify_one();
    changed_.wait(lock, [this] { return !writing_ && (pending_.empty() || error_.load() != 0); });
    --draining_;
}

void appendReplyLine(std::string& out, std::string_view id, std::string_view reply) {
    appendTwoMemberLine(out, "id", id, false, "reply", reply);
}

void appendAppReplyLine(std::string& out, std::string_view method, std::string_view reply) {
    appendTwoMemberLine(out, "app", method, true, "reply", reply);
}

std::string doneLine(std::string_view id, std::string_view name) {
    std::string line = "{\"id\":";
    line.append(id);
    line.append(",\"done\":");
    platform::appendJSONString(line, name);
    line.push_back('}');
    return line;
}

std::string withId(std::string line, std::string_view id) {
    if (line.empty() || line.back() != '}') {
        return line;
    }
    line.pop_back();
    line.append(",\"id\":");
    line.append(id);
    line.push_back('}');
    return line;
}

void appendEventLine(std::string& out, std::string_view name, std::string_view payload) {
    appendTwoMemberLine(out, "event", name, true, "payload", payload);
}

std::string refusalLine(std::string_view reason, std::size_t lineNumber) {
    std::string line = "{\"error\":";
    platform::appendJSONString(line, platform::validUTF8(reason));
    line.append(",\"line\":");
    platform::appendJSONNumber(line, static_cast<std::uint64_t>(lineNumber));
    line.push_back('}');
    return line;
}

std::string commandLine(const std::optional<platform::Value>& json, std::string_view rawLine) {
    std::string line = "{\"command\":";
    std::optional<std::string> compact;
    if (json) {
        platform::JSONWritingOptions options;
        options.fragmentsAllowed = true;
        compact = platform::JSONSerialization::data(*json, options);
    }
    if (compact) {
        line.append(*compact);
    } else {
        platform::appendJSONString(line, platform::validUTF8(rawLine));
    }
    line.push_back('}');
    return line;
}

std::string commentLine(std::string_view text) {
    std::string line = "{\"comment\":";
    platform::appendJSONString(line, platform::validUTF8(text));
    line.push_back('}');
    return line;
}

void installLogSink(std::FILE* stream) {
    // The platform serialises the sink's calls, so lines never interleave.
    platform::setLogSink([stream](const platform::LogRecord& record) {
        std::string line = platform::formatLogLine(record);
        line.push_back('\n');
        std::fwrite(line.data(), 1, line.size(), stream);
        std::fflush(stream);
    });
}

}  // namespace nimborra::host
