// Turning an asynchronous platform answer into a synchronous result.
//
// The notification center answers through completion handlers on threads of its own, while the
// adapter's operations must return their result directly. The pattern: the waiting operation
// makes a box holding an initial value and a semaphore at 0; the completion handler writes its
// result into the box and then releases the semaphore; the operation acquires the semaphore
// (without any time limit) and then reads the box. waitForCompletion below does exactly that.
//
// Threads: the box has no lock of its own. The handler's write happens before its release of
// the semaphore and the waiter's read happens after its acquire, so the release/acquire pair
// orders the two accesses; nothing else may touch the box while the wait is in progress.
#pragma once

#include <atomic>
#include <memory>
#include <semaphore>
#include <utility>

#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

// The one value that a completion handler hands to the operation waiting for it. A reference
// type: make it with std::make_shared and share the pointer between the waiting operation and
// the handler; the handler writes `value`, the operation reads it once the semaphore says so.
template <class T>
class NIMBORRA_APNS_EXPORT ApnsCompletionBox {
  public:
    explicit ApnsCompletionBox(T initial) : value(std::move(initial)) {}
    ApnsCompletionBox(const ApnsCompletionBox&) = delete;
    ApnsCompletionBox& operator=(const ApnsCompletionBox&) = delete;

    T value;
};

namespace detail {

// The semaphore of one wait and the guard that lets only the first answer through.
struct NIMBORRA_APNS_EXPORT ApnsCompletionSignal {
    std::atomic<bool> answered{false};
    std::binary_semaphore ready{0};
};

}  // namespace detail

// The "complete" callable that waitForCompletion hands to the request it starts: call it with
// the result, from any thread. The first call writes the box and then releases the waiter;
// later calls are ignored (so a handler that fires twice cannot race the waiter's read).
// Copyable, so it fits into a std::function; never throws (if writing the value throws, the box
// keeps what it held and the waiter is released all the same).
template <class T>
class NIMBORRA_APNS_EXPORT ApnsCompletion {
  public:
    ApnsCompletion(std::shared_ptr<ApnsCompletionBox<T>> box,
                   std::shared_ptr<detail::ApnsCompletionSignal> signal)
        : box_(std::move(box)), signal_(std::move(signal)) {}

    void operator()(T result) const noexcept {
        if (signal_->answered.exchange(true, std::memory_order_acq_rel)) {
            return;
        }
        try {
            box_->value = std::move(result);
        } catch (...) {
        }
        signal_->ready.release();
    }

  private:
    std::shared_ptr<ApnsCompletionBox<T>> box_;
    std::shared_ptr<detail::ApnsCompletionSignal> signal_;
};

// Starts an asynchronous request and blocks the calling thread until it has answered.
//
// `start` is called once, on this thread, with an ApnsCompletion<T>; it starts the request and
// arranges for its completion handler to call that with the result. Then this thread waits, with
// no time limit, and returns the result (or `initial`, should the handler pass nothing better).
// If the handler never runs, this never returns.
//
// Must not be called on the thread that delivers the completion (from inside a completion
// handler of the same center, say): the wait would block the answer it waits for. A handler that
// runs inside `start`, on this thread, is fine.
//
// Never throws (provided T's move constructor does not). If `start` throws, the request is taken as
// never answered: `initial` is returned at once, unless the handler had already answered, whose
// result is then returned. If the box cannot be made (out of memory), `start` is not called and
// `initial` is returned.
template <class T, class Start>
[[nodiscard]] NIMBORRA_APNS_EXPORT T waitForCompletion(T initial, Start&& start) {
    std::shared_ptr<detail::ApnsCompletionSignal> signal;
    std::shared_ptr<ApnsCompletionBox<T>> box;
    try {
        signal = std::make_shared<detail::ApnsCompletionSignal>();
        box = std::make_shared<ApnsCompletionBox<T>>(std::move(initial));
    } catch (...) {
        return initial;
    }
    try {
        std::forward<Start>(start)(ApnsCompletion<T>(box, signal));
    } catch (...) {
        // Claim the answer for ourselves, so that a handler that runs later leaves the box alone;
        // if the handler got there first, its result is on its way and is waited for below.
        if (!signal->answered.exchange(true, std::memory_order_acq_rel)) {
            return std::move(box->value);
        }
    }
    signal->ready.acquire();
    return std::move(box->value);
}

}  // namespace nimborra::apns
