#include "Bridge.h"

#include <utility>

namespace nimborra::host {

Bridge::Bridge(OutputWriter& output, std::shared_ptr<core::OrraPlugin> plugin)
    : output_(output), plugin_(std::move(plugin)) {}

void Bridge::admit(std::size_t bytes, bool mayWait) {
    std::unique_lock lock(mutex_);
    if (mayWait) {
        // A call larger than the byte limit goes alone.
        changed_.wait(lock, [this, bytes] {
            return outstanding_ == 0 || (outstanding_ < maximumUnansweredCalls &&
                                         outstandingBytes_ + bytes <= maximumUnansweredBytes);
        });
    }
    ++outstanding_;
    outstandingBytes_ += bytes;
}

void Bridge::answered(std::size_t bytes) {
    // Notified under the lock: once a waiter sees the count reach zero, the callback that
    // called this no longer touches the bridge.
    const std::lock_guard lock(mutex_);
    --outstanding_;
    outstandingBytes_ -= bytes;
    changed_.notify_all();
}

void Bridge::call(std::string method, std::string payload, std::string id,
                  std::function<void()> answered) {
    const std::size_t bytes = payload.size();
    admit(bytes, true);
    plugin_->callAsync(
        std::move(method), std::move(payload),
        [this, id = std::move(id), bytes, answered = std::move(answered)](std::string reply) {
            output_.writeBuiltLine([&](std::string& line) { appendReplyLine(line, id, reply); });
            if (answered) {
                answered();
            }
            this->answered(bytes);
        });
}

void Bridge::callSync(const std::string& method, const std::string& payload,
                      const std::string& id) {
    const std::string reply = plugin_->callSync(method, payload);
    output_.writeBuiltLine([&](std::string& line) { appendReplyLine(line, id, reply); });
}

void Bridge::cancel(std::int64_t callbackId) {
    plugin_->cancel(callbackId);
}

void Bridge::appCall(std::string_view method, std::string payload,
                     std::function<void(std::string_view reply)> then, bool mayWait) {
    const std::size_t bytes = payload.size();
    admit(bytes, mayWait);
    plugin_->callAsync(std::string(method), std::move(payload),
                       [this, method, bytes, then = std::move(then)](std::string reply) {
                           output_.writeBuiltLine(
                               [&](std::string& line) { appendAppReplyLine(line, method, reply); });
                           if (then) {
                               then(reply);
                           }
                           answered(bytes);
                       });
}

void Bridge::waitForReplies() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return outstanding_ == 0; });
}

}  // namespace nimborra::host
