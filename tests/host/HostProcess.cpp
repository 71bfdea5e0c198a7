#include "HostProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <utility>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

extern char** environ;

namespace nimborra::testing {

namespace {

// How long a test waits for the host before it gives up on it.
constexpr std::chrono::seconds kPatience{120};

void closeFd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

}  // namespace

HostProcess::HostProcess(const std::vector<std::string>& arguments) {
    // A host that exits early must not kill the test with SIGPIPE while it writes.
    std::signal(SIGPIPE, SIG_IGN);

    int in[2] = {-1, -1}, out[2] = {-1, -1};
    errors_ = memfd_create("apns-host-stderr", MFD_CLOEXEC);
    if (errors_ >= 0 && pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0) {
        // posix_spawn does not change the arguments it is given.
        std::vector<char*> argv{const_cast<char*>(NIMBORRA_APNS_HOST)};
        for (const auto& argument : arguments) {
            argv.push_back(const_cast<char*>(argument.c_str()));
        }
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, errors_, STDERR_FILENO);
        pid_t child = -1;
        if (posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
            child_ = child;
            input_ = std::exchange(in[1], -1);
            output_ = std::exchange(out[0], -1);
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    for (int* fd : {&in[0], &in[1], &out[0], &out[1]}) {
        closeFd(*fd);
    }
}

HostProcess::~HostProcess() {
    closeFd(input_);
    closeFd(output_);
    closeFd(errors_);
    if (child_ > 0) {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
}

void HostProcess::signal(int signal) {
    if (child_ > 0) {
        kill(child_, signal);
    }
}

void HostProcess::write(std::string_view text) {
    while (input_ >= 0 && !text.empty()) {
        const ssize_t written = ::write(input_, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            closeFd(input_);  // the host closed its input
        }
    }
}

bool HostProcess::readMore(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (output_ < 0 || left.count() <= 0) {
        return false;
    }
    pollfd ready{output_, POLLIN, 0};
    const int count = poll(&ready, 1, static_cast<int>(left.count()));
    if (count <= 0) {
        return count < 0 && errno == EINTR;
    }
    char buffer[4096];
    const ssize_t got = read(output_, buffer, sizeof buffer);
    if (got > 0) {
        out_.append(buffer, static_cast<std::size_t>(got));
    } else if (got == 0 || errno != EINTR) {
        closeFd(output_);
    }
    return output_ >= 0;
}

std::optional<std::string> HostProcess::readLine() {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::size_t end;
    while ((end = out_.find('\n')) == std::string::npos) {
        if (!readMore(deadline)) {
            if (output_ >= 0) {
                ADD_FAILURE() << "apns-host wrote no line within " << kPatience.count() << " s";
            }
            return std::nullopt;
        }
    }
    std::string line = out_.substr(0, end);
    out_.erase(0, end + 1);
    return line;
}

std::vector<std::string> HostProcess::readLinesThrough(
    const std::function<bool(const std::string&)>& last) {
    std::vector<std::string> lines;
    while (auto line = readLine()) {
        lines.push_back(*line);
        if (last(*line)) {
            break;
        }
    }
    return lines;
}

int HostProcess::finish() {
    if (child_ <= 0) {
        return -1;
    }
    closeFd(input_);
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (readMore(deadline)) {
    }
    if (output_ >= 0) {
        ADD_FAILURE() << "apns-host did not finish within " << kPatience.count() << " s";
        kill(child_, SIGKILL);
    }
    int status = 0;
    const pid_t waited = waitpid(std::exchange(child_, -1), &status, 0);
    if (waited < 0) {
        return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::vector<std::string> HostProcess::remainingLines() const {
    return linesOf(out_);
}

std::string HostProcess::standardError() const {
    return errors_ >= 0 ? readFile("/proc/self/fd/" + std::to_string(errors_)) : "";
}

HostRun runHost(std::string_view input, const std::vector<std::string>& arguments) {
    HostProcess host(arguments);
    host.write(input);
    const int status = host.finish();
    return {status, host.remainingLines(), host.standardError()};
}

std::filesystem::path temporaryFile(const std::string& name) {
    static const struct Directory {
        std::filesystem::path path =
            std::filesystem::temp_directory_path() / ("apns-host-test-" + std::to_string(getpid()));
        Directory() { std::filesystem::create_directories(path); }
        ~Directory() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    } directory;
    return directory.path / name;
}

const provider::AuthKey& testKey() {
    static const provider::AuthKey key = provider::AuthKey::generate();
    return key;
}

const std::filesystem::path& keyFile() {
    static const std::filesystem::path file = [] {
        const auto path = temporaryFile("key.p8");
        std::ofstream(path) << testKey().pem();
        return path;
    }();
    return file;
}

std::string providerToken(std::int64_t age, const provider::AuthKey& key) {
    return provider::makeProviderToken(key, kKeyId, kTeamId, std::time(nullptr) - age)
        .value_or("<unsigned>");
}

std::vector<std::string> providerHostArguments() {
    return {"--bundle",         kSampleBundle, "--status", "2",         "--auth-key",
            keyFile().string(), "--key-id",    kKeyId,     "--team-id", kTeamId};
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string member(const std::string& line, const std::string& name) {
    const auto at = line.find("\"" + name + "\":");
    if (at == std::string::npos) {
        return "";
    }
    const auto start = at + name.size() + 3;
    if (line[start] == '"') {
        return line.substr(start + 1, line.find('"', start + 1) - start - 1);
    }
    return line.substr(start, line.find_first_of(",}", start) - start);
}

}  // namespace nimborra::testing
