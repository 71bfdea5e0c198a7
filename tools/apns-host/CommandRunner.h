// Runs the COMMAND of `apns-host -- COMMAND [ARGS...]` as a child process and reports how it
// ended, as an exit status of the host: its own exit status, or 128 + N when signal N ended it,
// 127 when the program cannot be found and 126 when it cannot be run (the shells' convention).
//
// The child gets the host's environment with the given variables added or replaced, the host's
// standard output and error, and either the host's standard input or /dev/null; no other file
// descriptor; default signal dispositions and an empty signal mask. It stays in the host's process
// group, so a terminal's Ctrl-C reaches it directly. The kernel kills it (SIGKILL) when the host
// dies, however the host dies, so that it never outlives the network the host made for it.
//
// Threads: start() once, from a thread that lives until the child has ended (the kernel's
// parent-death signal follows the thread that started the child); waitForExit() once, from the one thread that takes
// SIGINT and SIGTERM for the process. Both signals must be blocked in every thread of the process
// (waitForExit() reads them through a signalfd). exitStatus() after waitForExit() has returned.
//
// Failures are values; nothing here throws except std::bad_alloc.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace nimborra::host {

struct CommandSetup {
    // The program (looked up in PATH unless it contains "/") and its arguments; not empty.
    std::vector<std::string> arguments;
    // Added to the host's environment, replacing variables of the same name.
    std::vector<std::pair<std::string, std::string>> environment;
    // The child reads the host's standard input instead of /dev/null.
    bool inheritStandardInput = false;
};

class CommandRunner {
  public:
    // How long a command may go on after a forwarded SIGINT or SIGTERM before it is killed.
    static constexpr int gracePeriodSeconds = 10;

    explicit CommandRunner(CommandSetup setup);
    // Kills and reaps a child still running (only when waitForExit() never ran).
    ~CommandRunner();
    CommandRunner(const CommandRunner&) = delete;
    CommandRunner& operator=(const CommandRunner&) = delete;

    // Starts the child. Nothing, or why it could not start (its status is then 127 or 126, and
    // waitForExit() returns at once).
    std::optional<std::string> start();

    // Waits for start(), then until the child has ended. Meanwhile every SIGINT or SIGTERM sent
    // to the host (or to this thread) is passed on to the child, except those a terminal sent
    // to the whole process group, which the child has had already; once one has come, the child
    // is killed if it is still running gracePeriodSeconds later.
    void waitForExit();

    // How the child ended, as an exit status (see above); 2 before it has ended.
    int exitStatus() const;

  private:
    CommandSetup setup_;
    mutable std::mutex mutex_;
    std::condition_variable started_;
    bool startCalled_ = false;
    pid_t child_ = -1;
    // A descriptor referring to the child (pidfd), when the kernel has them; else -1.
    int childFd_ = -1;
    int status_ = 2;
    bool ended_ = false;
};

}  // namespace nimborra::host
