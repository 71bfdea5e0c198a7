// The platform's dispatch queues: serial queues that run submitted work items one at a time, in
// submission order, and the process-wide main queue, whose items run on the main thread when the
// host lets it drain them.
//
// Threads: a queue made with the constructor owns one worker thread, started with the queue and
// joined when it is destroyed; its work items run there and nowhere else. The main queue has no
// thread of its own: its items run on the process's main thread (the initial thread) inside one
// of the draining functions below, which the host (or a test) calls on that thread.
//
// Everything here is safe to call from any thread unless a comment says otherwise, and nothing
// throws: a work item that throws is caught and reported through the platform logger.
//
// Counting semaphores are the standard library's std::counting_semaphore.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

// Quality of service requested for a queue. It is kept and reported; the Linux stand-in runs
// every queue at the same priority.
enum class DispatchQoS {
    unspecified,
    background,
    utility,
    defaultQoS,
    userInitiated,
    userInteractive
};

class NIMBORRA_PLATFORM_EXPORT DispatchQueue {
  public:
    // A new serial queue with its own worker thread. If the system refuses to start the thread,
    // an error is logged and the queue refuses every work item (async answers false).
    explicit DispatchQueue(std::string label, DispatchQoS qos = DispatchQoS::unspecified);

    // For tests only: a queue in the state of one whose worker thread could not be started. It
    // refuses every work item, so that callers' answers for refused work can be tested.
    static std::shared_ptr<DispatchQueue> makeRefusingForTesting(std::string label);

    // Runs every work item already submitted (and any that those items submit), then joins the
    // worker thread. When the last owner lets go of the queue inside one of its own work items,
    // the worker cannot be joined from itself: it is detached instead and finishes the remaining
    // items on its own before it exits.
    ~DispatchQueue();

    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;
    DispatchQueue(DispatchQueue&&) = delete;
    DispatchQueue& operator=(DispatchQueue&&) = delete;

    const std::string& label() const;
    DispatchQoS qos() const;

    // Submits `work` and returns at once, never waiting for running work. Items run one at a
    // time in the order in which they were submitted (across all submitting threads), on the
    // queue's worker thread (for the main queue: on the main thread, when drained), never on the
    // submitter's thread inside this call. An item that throws is reported at error level and
    // the queue carries on with the next one.
    //
    // Answers whether the queue took the item. It does not when its worker thread could not be
    // started or memory runs out: then an error is logged and `work` is left with the caller,
    // untouched, so that the caller can still run it elsewhere or answer for it. An empty
    // function is ignored (the answer is true: nothing is left to run).
    [[nodiscard]] bool async(std::function<void()>&& work);

    // True on the queue's worker thread. For the main queue: true on the main thread.
    bool isCurrent() const;

    // The process-wide main queue. It lives until the process exits and is never destroyed.
    static DispatchQueue& main();

    // Draining the main queue. These functions run main-queue items only on the main thread:
    // called on another thread, or from inside a main-queue item (which would break the
    // one-at-a-time rule), they run nothing and return at once (0, false, or nothing).

    // Runs the items that are pending when it is called and returns how many ran. Items that
    // they submit wait for the next drain, so an item that resubmits itself cannot keep this
    // call from returning.
    static std::size_t drainMain();

    // Runs items as they arrive until `done()` returns true or `timeout` has passed. `done` is
    // called on the main thread before anything runs, after every item, and at least every 10 ms
    // while the queue is idle (so a condition set by another thread is noticed). Returns the
    // last answer of `done()`.
    static bool runMainUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

    // The host's main loop: runs items as they arrive, sleeping while there are none, until
    // stopMainLoop() is called. Returns after the item in progress, leaving later items queued.
    static void runMainLoop();
    // Asks runMainLoop() to return; callable from any thread, including a main-queue item. A
    // request made while no loop runs ends the next loop before it runs anything.
    static void stopMainLoop();

  private:
    struct MainQueueTag {};
    explicit DispatchQueue(MainQueueTag);
    struct RefusingTag {};
    DispatchQueue(std::string label, RefusingTag);

    struct State;
    // The worker thread's body; it shares the state so that it can outlive a detached queue.
    static void runWorker(std::shared_ptr<State> state);

    std::shared_ptr<State> state_;
    std::thread worker_;
};

// True on the process's main thread, the thread that started the process.
NIMBORRA_PLATFORM_EXPORT bool isMainThread();

// Reports that code which must run on the main thread (main-actor isolated) ran elsewhere: logs
// one error line naming "<file>:<line>" (subsystem "com.nimborra.platform", category "runtime").
// The caller carries on; this is a diagnostic, not an abort.
NIMBORRA_PLATFORM_EXPORT void reportMainActorIsolationViolation(std::string_view file,
                                                                unsigned line);

}  // namespace nimborra::platform
