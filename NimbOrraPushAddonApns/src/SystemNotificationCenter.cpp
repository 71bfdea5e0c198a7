// Forwards the three notification-center services to the platform's current center.
//
// Each completion is wrapped so that it runs at most once: normally the platform answers it on
// its delivery thread; if handing the request over throws, this file answers it instead, so that
// a caller blocked on the answer is released either way.
#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

#include <atomic>
#include <memory>
#include <string>
#include <utility>

namespace nimborra::apns {
namespace {

template <class... Args>
class OnceCompletion {
  public:
    explicit OnceCompletion(std::function<void(Args...)> completion)
        : completion_(std::move(completion)) {}

    // Runs the completion unless it has already run. Only the first caller touches it, so the
    // platform's thread and a failing caller never race for it.
    void operator()(Args... args) {
        if (answered_.exchange(true, std::memory_order_acq_rel)) {
            return;
        }
        const std::function<void(Args...)> completion = std::move(completion_);
        completion(std::move(args)...);
    }

  private:
    std::atomic<bool> answered_{false};
    std::function<void(Args...)> completion_;
};

// Hands `completion` to `forward` (which passes it on to the platform) behind a run-once guard.
// When forwarding throws, `fallback` answers the completion on this thread, unless the platform
// got to it first. Nothing escapes.
template <class... Args, class Forward, class Fallback>
void forwardOnce(std::function<void(Args...)> completion, Forward&& forward, Fallback&& fallback) {
    if (!completion) {
        // Nobody waits for the answer: a failure can simply be dropped.
        try {
            forward(std::function<void(Args...)>());
        } catch (...) {
        }
        return;
    }
    std::shared_ptr<OnceCompletion<Args...>> once;
    try {
        once = std::make_shared<OnceCompletion<Args...>>(std::move(completion));
    } catch (...) {
        // The guard could not be made, but the completion is still ours alone (make_shared
        // allocates before it moves anything), so answer it directly.
        try {
            fallback(completion);
        } catch (...) {
        }
        return;
    }
    try {
        forward(
            std::function<void(Args...)>([once](Args... args) { (*once)(std::move(args)...); }));
    } catch (...) {
        try {
            fallback(*once);
        } catch (...) {
        }
    }
}

platform::NSError requestFailedError() {
    return platform::NSError{std::string(apnsNotificationCenterErrorDomain),
                             apnsNotificationCenterErrorRequestFailed};
}

}  // namespace

ApnsNotificationCentering::~ApnsNotificationCentering() = default;

void SystemNotificationCenter::requestAuthorization(
    platform::UNAuthorizationOptions options,
    std::function<void(bool granted, std::optional<platform::NSError> error)> completion) {
    forwardOnce(
        std::move(completion),
        [options](platform::UNUserNotificationCenter::AuthorizationHandler handler) {
            platform::UNUserNotificationCenter::currentNotificationCenter()
                .requestAuthorizationWithOptions(options, std::move(handler));
        },
        [](auto& answer) { answer(false, requestFailedError()); });
}

void SystemNotificationCenter::getAuthorizationStatus(
    std::function<void(std::int64_t platformStatus)> completion) {
    forwardOnce(
        std::move(completion),
        [](std::function<void(std::int64_t)> handler) {
            platform::UNUserNotificationCenter::currentNotificationCenter()
                .getNotificationSettingsWithCompletionHandler(
                    handler ? platform::UNUserNotificationCenter::SettingsHandler(
                                  [handler = std::move(handler)](
                                      platform::UNNotificationSettings settings) {
                                      handler(settings.authorizationStatus);
                                  })
                            : platform::UNUserNotificationCenter::SettingsHandler());
        },
        [](auto& answer) { answer(apnsUnknownPlatformStatus); });
}

void SystemNotificationCenter::setBadgeCount(
    std::int64_t count, std::function<void(std::optional<platform::NSError>)> completion) {
    forwardOnce(
        std::move(completion),
        [count](platform::UNUserNotificationCenter::BadgeHandler handler) {
            platform::UNUserNotificationCenter::currentNotificationCenter().setBadgeCount(
                count, std::move(handler));
        },
        [](auto& answer) { answer(requestFailedError()); });
}

}  // namespace nimborra::apns
