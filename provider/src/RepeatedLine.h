// A log line of one kind that a client can cause at will (a refused connection, a refused
// request): written at most once per second, the lines held back meanwhile counted and the next
// line written saying how many. Safe from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::provider::detail {

class RepeatedLine {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr Clock::duration kInterval = std::chrono::seconds(1);

    RepeatedLine(const platform::Logger& log, platform::LogLevel level)
        : log_(log), level_(level) {}

    // Writes makeMessage() unless a line of this kind went out less than a second ago; then
    // only counts it, without building the message.
    template <class MakeMessage>
    void write(MakeMessage&& makeMessage) {
        if (!log_.isEnabled(level_)) {
            return;
        }
        std::size_t heldBack = 0;
        {
            const std::lock_guard lock(mutex_);
            const auto now = Clock::now();
            if (written_ && now - last_ < kInterval) {
                ++heldBack_;
                return;
            }
            written_ = true;
            last_ = now;
            heldBack = std::exchange(heldBack_, 0);
        }
        std::string message = std::forward<MakeMessage>(makeMessage)();
        if (heldBack > 0) {
            message += " (" + std::to_string(heldBack) + " more like it held back since the last)";
        }
        log_.log(level_, message);
    }

  private:
    const platform::Logger& log_;
    const platform::LogLevel level_;
    std::mutex mutex_;
    bool written_ = false;
    Clock::time_point last_;
    std::size_t heldBack_ = 0;
};

}  // namespace nimborra::provider::detail
