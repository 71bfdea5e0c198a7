#include "CommandRunner.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <system_error>
#include <variant>

extern char** environ;

namespace nimborra::host {

namespace {

constexpr int kNotFound = 127;
constexpr int kNotRunnable = 126;

// The status a shell reports for a child that ended with `status` (from waitpid).
int exitStatusOf(int status) {
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

// A descriptor that becomes readable when `child` ends (Linux 5.3 and later); -1 without one.
int childDescriptor(pid_t child) {
#ifdef SYS_pidfd_open
    return static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
#else
    (void)child;
    return -1;
#endif
}

// The file `program` names: itself when it holds a '/', else the first executable regular file
// of that name in the host's PATH (as a shell finds it); or ENOENT, or EACCES when only files that
// cannot be run were found. Looked up before the fork, where allocating is allowed.
std::variant<std::string, int> programPath(const std::string& program) {
    if (program.empty()) {
        return ENOENT;
    }
    if (program.find('/') != std::string::npos) {
        return program;
    }
    const char* variable = ::getenv("PATH");
    const std::string_view search = variable != nullptr ? variable : "/bin:/usr/bin";
    int error = ENOENT;
    for (std::size_t start = 0; start <= search.size();) {
        std::size_t end = search.find(':', start);
        end = end == std::string_view::npos ? search.size() : end;
        const std::string_view directory = search.substr(start, end - start);
        std::string candidate = directory.empty() ? "." : std::string(directory);
        candidate += '/';
        candidate += program;
        struct stat info {};
        if (::stat(candidate.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
            if (::access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
            error = EACCES;
        }
        start = end + 1;
    }
    return error;
}

// The child's side of start(), between fork and exec: async-signal-safe calls only. Standard
// input from /dev/null unless inherited, no descriptor beyond standard error, default signal
// dispositions, an empty mask, and SIGKILL when the host dies (so that a host killed outright
// leaves no command running in its network); then the program, or its errno on `report`.
[[noreturn]] void runChild(const char* path, char* const* argv, char* const* envp, pid_t host,
                           int report, bool inheritStandardInput) {
    int error = 0;
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
        error = errno;
    } else if (::getppid() != host) {
        ::_exit(kNotRunnable);  // the host died before the death signal was set
    }
    if (error == 0 && !inheritStandardInput) {
        const int input = ::open("/dev/null", O_RDONLY);
        if (input < 0 || ::dup2(input, STDIN_FILENO) < 0) {
            error = errno;
        } else if (input != STDIN_FILENO) {
            ::close(input);
        }
    }
    // Whatever the host has open (sockets, files) is none of the command's business: every
    // descriptor beyond standard error closes on exec (the report pipe with them).
    if (error == 0 &&
        ::syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
        rlimit limit{};
        const int last = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < 65536
                             ? static_cast<int>(limit.rlim_cur)
                             : 65536;
        for (int fd = STDERR_FILENO + 1; fd < last; ++fd) {
            if (fd != report) {
                ::close(fd);
            }
        }
    }
    if (error == 0) {
        // The host ignores SIGPIPE, and ignored signals would stay ignored across exec.
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) {
            ::sigaction(signal, &standard, nullptr);
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execve(path, argv, envp);
        error = errno;
    }
    while (::write(report, &error, sizeof error) < 0 && errno == EINTR) {
    }
    ::_exit(error == ENOENT ? kNotFound : kNotRunnable);
}

}  // namespace

CommandRunner::CommandRunner(CommandSetup setup) : setup_(std::move(setup)) {}

CommandRunner::~CommandRunner() {
    if (child_ > 0 && !ended_) {
        ::kill(child_, SIGKILL);
        int status = 0;
        while (::waitpid(child_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (childFd_ >= 0) {
        ::close(childFd_);
    }
}

std::optional<std::string> CommandRunner::start() {
    // The host's environment, but for the variables the setup sets.
    std::vector<std::string> environment;
    for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view variable(*entry);
        const auto name = variable.substr(0, variable.find('='));
        const bool replaced = std::any_of(setup_.environment.begin(), setup_.environment.end(),
                                          [&](const auto& set) { return set.first == name; });
        if (!replaced) {
            environment.emplace_back(variable);
        }
    }
    for (const auto& [name, value] : setup_.environment) {
        environment.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (auto& variable : environment) {
        envp.push_back(variable.data());
    }
    envp.push_back(nullptr);
    std::vector<char*> argv;
    for (auto& argument : setup_.arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    // Everything the child needs is made before the fork: between fork and exec it may only make
    // async-signal-safe calls, as other threads of the host may hold locks (the allocator's).
    const pid_t host = ::getpid();
    const auto found = programPath(setup_.arguments.empty() ? std::string() : setup_.arguments[0]);
    const std::string path =
        std::holds_alternative<std::string>(found) ? std::get<std::string>(found) : std::string();
    int error = std::holds_alternative<int>(found) ? std::get<int>(found) : 0;
    pid_t child = -1;
    // The child reports a failed exec through this pipe; a successful one closes it unwritten.
    int report[2] = {-1, -1};
    if (error == 0 && ::pipe2(report, O_CLOEXEC) != 0) {
        error = errno;
    }
    if (error == 0) {
        child = ::fork();
        if (child == 0) {
            runChild(path.c_str(), argv.data(), envp.data(), host, report[1],
                     setup_.inheritStandardInput);
        }
        if (child < 0) {
            error = errno;
        }
        ::close(report[1]);
        if (child > 0) {
            int childError = 0;
            ssize_t got = 0;
            while ((got = ::read(report[0], &childError, sizeof childError)) < 0 &&
                   errno == EINTR) {
            }
            if (got == static_cast<ssize_t>(sizeof childError)) {
                error = childError;
                int status = 0;
                while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
                }
                child = -1;
            }
        }
        ::close(report[0]);
    }

    std::optional<std::string> failure;
    const std::lock_guard lock(mutex_);
    if (error != 0) {
        status_ = error == ENOENT ? kNotFound : kNotRunnable;
        ended_ = true;
        failure = "cannot run '" +
                  (setup_.arguments.empty() ? std::string() : setup_.arguments[0]) +
                  "': " + std::generic_category().message(error);
    } else {
        child_ = child;
        childFd_ = childDescriptor(child);
    }
    startCalled_ = true;
    started_.notify_all();
    return failure;
}

void CommandRunner::waitForExit() {
    {
        std::unique_lock lock(mutex_);
        started_.wait(lock, [this] { return startCalled_; });
        if (ended_) {
            return;
        }
    }
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    const int signals = ::signalfd(-1, &stopSignals, SFD_CLOEXEC | SFD_NONBLOCK);

    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> killAt;
    bool killed = false;
    for (;;) {
        int status = 0;
        const pid_t waited = ::waitpid(child_, &status, WNOHANG);
        if (waited == child_ || (waited < 0 && errno != EINTR)) {
            // ECHILD would mean someone else reaped it, its status lost: the host's failure.
            const std::lock_guard lock(mutex_);
            status_ = waited == child_ ? exitStatusOf(status) : 2;
            ended_ = true;
            break;
        }
        // Without a child descriptor, the child is looked at again every 100 ms.
        int timeout = childFd_ >= 0 ? -1 : 100;
        if (killAt && !killed) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*killAt - Clock::now());
            const int leftMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
            timeout = timeout < 0 ? leftMs : std::min(timeout, leftMs);
        }
        pollfd ready[2] = {{signals, POLLIN, 0}, {childFd_, POLLIN, 0}};
        ::poll(ready, 2, timeout);

        signalfd_siginfo info{};
        while (signals >= 0 && ::read(signals, &info, sizeof info) == sizeof info) {
            // A terminal's signal went to the whole process group, the child included.
            if (info.ssi_code != SI_KERNEL) {
                ::kill(child_, static_cast<int>(info.ssi_signo));
            }
            if (!killAt) {
                killAt = Clock::now() + std::chrono::seconds(gracePeriodSeconds);
            }
        }
        if (killAt && !killed && Clock::now() >= *killAt) {
            ::kill(child_, SIGKILL);
            killed = true;
        }
    }
    if (signals >= 0) {
        ::close(signals);
    }
}

int CommandRunner::exitStatus() const {
    const std::lock_guard lock(mutex_);
    return status_;
}

}  // namespace nimborra::host
