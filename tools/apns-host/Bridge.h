// apns-host's end of the bridge: every call into the "ApnsService" plug-in, the far side's and
// the host application's own, goes through here, and each reply is written as one line: the far
// side's as {"id":ID,"reply":R}, the application's as {"app":METHOD,"reply":R}.
//
// Threads: any thread may call. Replies arrive on the plug-in's queue and are written from there,
// in the order the plug-in answers; a continuation given with an application call runs there
// too, right after its reply line. The count of unanswered calls is guarded by one lock.
//
// Memory: at most maximumUnansweredCalls calls, holding at most maximumUnansweredBytes of payload
// between them, wait for their reply. A far-side call, or an application call made with
// `mayWait`, beyond that blocks its caller until earlier calls are answered, so a fast input or a
// stalled reader of the output cannot make the host grow. Application calls made on the plug-in's
// queue (a continuation, or a notification the push service delivers there) never wait, as waiting
// there would stop the very replies that make room; there is at most one such call per
// notification in flight, and the provider API's limit of unanswered requests bounds how many
// notifications it delivers ahead of their calls.
//
// The bridge must outlive every call it started: waitForReplies() returns once all of them have
// been answered and their continuations have run.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "NimbOrraCore/OrraPlugin.h"
#include "Output.h"

namespace nimborra::host {

class Bridge {
  public:
    // `output` must outlive the bridge.
    Bridge(OutputWriter& output, std::shared_ptr<core::OrraPlugin> plugin);
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    static constexpr std::size_t maximumUnansweredCalls = 1024;
    static constexpr std::size_t maximumUnansweredBytes = std::size_t{4} << 20;

    // A far-side asynchronous call: waits for room, then calls. The reply is written as
    // {"id":ID,"reply":R} (`id` is the id's compact JSON), then `answered` runs.
    void call(std::string method, std::string payload, std::string id,
              std::function<void()> answered);
    // A far-side synchronous call: its reply line, written before returning.
    void callSync(const std::string& method, const std::string& payload, const std::string& id);
    void cancel(std::int64_t callbackId);

    // One of the application's own calls. The reply is written as {"app":METHOD,"reply":R},
    // then `then` runs with the reply text. `method` names one of the plug-in's methods and must
    // outlive the call (the application's are literals).
    void appCall(std::string_view method, std::string payload,
                 std::function<void(std::string_view reply)> then, bool mayWait);

    // Blocks until every call started so far has been answered.
    void waitForReplies();

  private:
    // Waits (when `mayWait`) for room for a call of `bytes`, then counts it.
    void admit(std::size_t bytes, bool mayWait);
    void answered(std::size_t bytes);

    OutputWriter& output_;
    const std::shared_ptr<core::OrraPlugin> plugin_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t outstanding_ = 0;
    std::size_t outstandingBytes_ = 0;
};

}  // namespace nimborra::host
