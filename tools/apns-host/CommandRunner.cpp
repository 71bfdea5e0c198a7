#include "CommandRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <system_error>

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

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!setup_.inheritStandardInput) {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    }
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
    // Whatever the host has open (sockets, files) is none of the command's business.
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
#endif
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    // The host ignores SIGPIPE, and ignored signals would stay ignored across exec.
    sigset_t defaults;
    sigemptyset(&defaults);
    for (const int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCHLD}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t child = -1;
    const int error =
        setup_.arguments.empty()
            ? ENOENT
            : ::posix_spawnp(&child, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);

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
