#include "HostProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include <gtest/gtest.h>

extern char** environ;

namespace nimborra::testing {

namespace {

// How long a test waits for the host before it gives up on it.
constexpr std::chrono::seconds kPatience{120};

std::chrono::steady_clock::time_point deadlineFromNow() {
    return std::chrono::steady_clock::now() + kPatience;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            lines.push_back(text.substr(start));
            break;
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

}  // namespace

HostProcess::HostProcess(const std::vector<std::string>& arguments) {
    // A host that exits early must not kill the test with SIGPIPE while it writes.
    std::signal(SIGPIPE, SIG_IGN);

    int in[2];
    int out[2];
    int err[2];
    if (pipe2(in, O_CLOEXEC) != 0) {
        return;
    }
    if (pipe2(out, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        return;
    }
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(in[0]);
        close(in[1]);
        close(out[0]);
        close(out[1]);
        return;
    }

    std::vector<std::string> argumentsWithProgram{NIMBORRA_APNS_HOST};
    argumentsWithProgram.insert(argumentsWithProgram.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& argument : argumentsWithProgram) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    pid_t child = -1;
    const int spawned = posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);

    close(in[0]);
    close(out[1]);
    close(err[1]);
    input_ = in[1];
    output_ = out[0];
    errorOutput_ = err[0];
    if (spawned != 0) {
        closeFd(input_);
        closeFd(output_);
        closeFd(errorOutput_);
        return;
    }
    child_ = child;
    fcntl(input_, F_SETFL, fcntl(input_, F_GETFL) | O_NONBLOCK);
}

HostProcess::~HostProcess() {
    closeFd(input_);
    closeFd(output_);
    closeFd(errorOutput_);
    if (child_ > 0) {
        kill(child_, SIGKILL);
        int status = 0;
        waitpid(child_, &status, 0);
    }
}

void HostProcess::closeFd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

void HostProcess::write(std::string_view text) {
    pendingInput_.append(text);
}

void HostProcess::closeInput() {
    closeRequested_ = true;
    if (pendingInput_.empty()) {
        closeFd(input_);
    }
}

bool HostProcess::pump(std::chrono::steady_clock::time_point deadline) {
    pollfd fds[3];
    nfds_t count = 0;
    if (input_ >= 0 && !pendingInput_.empty()) {
        fds[count++] = pollfd{input_, POLLOUT, 0};
    }
    if (output_ >= 0) {
        fds[count++] = pollfd{output_, POLLIN, 0};
    }
    if (errorOutput_ >= 0) {
        fds[count++] = pollfd{errorOutput_, POLLIN, 0};
    }
    if (count == 0) {
        return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    const int ready = poll(fds, count, static_cast<int>(left.count()));
    if (ready < 0) {
        return errno == EINTR;
    }
    for (nfds_t index = 0; index < count; ++index) {
        const pollfd& fd = fds[index];
        if (fd.revents == 0) {
            continue;
        }
        if (fd.fd == input_) {
            const ssize_t written = ::write(input_, pendingInput_.data(), pendingInput_.size());
            if (written > 0) {
                pendingInput_.erase(0, static_cast<std::size_t>(written));
            } else if (written < 0 && errno != EAGAIN && errno != EINTR) {
                pendingInput_.clear();  // the host closed its input
                closeFd(input_);
            }
            if (input_ >= 0 && closeRequested_ && pendingInput_.empty()) {
                closeFd(input_);
            }
            continue;
        }
        char buffer[4096];
        const ssize_t got = read(fd.fd, buffer, sizeof buffer);
        if (got > 0) {
            (fd.fd == output_ ? out_ : error_).append(buffer, static_cast<std::size_t>(got));
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
            closeFd(fd.fd == output_ ? output_ : errorOutput_);
        }
    }
    return true;
}

std::optional<std::string> HostProcess::readLine() {
    const auto deadline = deadlineFromNow();
    while (true) {
        const std::size_t end = out_.find('\n');
        if (end != std::string::npos) {
            std::string line = out_.substr(0, end);
            out_.erase(0, end + 1);
            return line;
        }
        if (!pump(deadline)) {
            if (output_ >= 0) {
                ADD_FAILURE() << "apns-host wrote no line within " << kPatience.count() << " s";
            }
            return std::nullopt;
        }
    }
}

int HostProcess::finish() {
    if (child_ <= 0) {
        return -1;
    }
    closeInput();
    const auto deadline = deadlineFromNow();
    while ((output_ >= 0 || errorOutput_ >= 0) && pump(deadline)) {
    }
    if (output_ >= 0 || errorOutput_ >= 0) {
        ADD_FAILURE() << "apns-host did not finish within " << kPatience.count() << " s";
        kill(child_, SIGKILL);
    }
    int status = 0;
    const pid_t waited = waitpid(child_, &status, 0);
    child_ = -1;
    if (waited < 0) {
        return -1;
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

std::vector<std::string> HostProcess::remainingLines() const {
    return splitLines(out_);
}

HostRun runHost(std::string_view input, const std::vector<std::string>& arguments) {
    HostProcess host(arguments);
    HostRun run;
    if (!host.started()) {
        ADD_FAILURE() << "could not start " << NIMBORRA_APNS_HOST;
        return run;
    }
    host.write(input);
    run.status = host.finish();
    run.lines = host.remainingLines();
    run.standardError = host.standardError();
    return run;
}

}  // namespace nimborra::testing
