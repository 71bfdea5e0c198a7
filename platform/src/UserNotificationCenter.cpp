// The user-notification center stand-in: answers from programmable state, delivered on a serial
// dispatch queue of its own so that handlers never run on the requesting thread.
#include "NimbOrraPlatform/UserNotificationCenter.h"

#include <mutex>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/DispatchQueue.h"

namespace nimborra::platform {

namespace {

std::shared_ptr<DispatchQueue> makeDeliveryQueue() {
    return std::make_shared<DispatchQueue>("com.nimborra.platform.usernotifications",
                                           DispatchQoS::userInitiated);
}

}  // namespace

struct UNUserNotificationCenter::State {
    std::shared_ptr<DispatchQueue> delivery = makeDeliveryQueue();  // guarded by mutex

    mutable std::mutex mutex;
    // The programmed answers.
    bool granted = true;
    std::optional<NSError> authorizationError;
    std::int64_t authorizationStatus = UNAuthorizationStatusNotDetermined;
    std::optional<NSError> badgeError;
    // Answers kept back while holding, oldest first.
    bool holding = false;
    std::vector<std::function<void()>> held;
    // Answers that the delivery queue could not take (its thread could not be started, memory
    // ran out). The requesting call runs them itself once it has released the lock, so that
    // every handler is still called.
    std::vector<std::function<void()>> refused;
    // What was asked.
    std::optional<UNAuthorizationOptions> lastAuthorizationOptions;
    std::optional<std::int64_t> lastBadgeCount;
    std::size_t authorizationRequests = 0;
    std::size_t settingsRequests = 0;
    std::size_t badgeRequests = 0;

    // Delivers `answer` now or keeps it; the caller holds `mutex`. Submitting under the lock
    // keeps released answers ahead of any answer given after holding was turned off.
    void answer(std::function<void()> answer) {
        if (holding) {
            held.push_back(std::move(answer));
        } else if (!delivery->async(std::move(answer))) {
            refused.push_back(std::move(answer));
        }
    }

    // The caller holds `mutex`.
    void releaseHeld() {
        std::vector<std::function<void()>> released;
        released.swap(held);
        for (auto& answer : released) {
            if (!delivery->async(std::move(answer))) {
                refused.push_back(std::move(answer));
            }
        }
    }

    // Runs the refused answers; the caller does not hold `mutex`.
    void runRefused() {
        std::vector<std::function<void()>> answers;
        {
            std::lock_guard<std::mutex> lock(mutex);
            answers.swap(refused);
        }
        for (auto& answer : answers) {
            try {
                answer();
            } catch (...) {
            }
        }
    }
};

UNUserNotificationCenter::UNUserNotificationCenter() : state_(std::make_unique<State>()) {}

UNUserNotificationCenter::~UNUserNotificationCenter() = default;

UNUserNotificationCenter& UNUserNotificationCenter::currentNotificationCenter() {
    // Never destroyed: handlers may still be in flight while the process shuts down.
    static UNUserNotificationCenter* const center = new UNUserNotificationCenter;
    return *center;
}

void UNUserNotificationCenter::requestAuthorizationWithOptions(
    UNAuthorizationOptions options, AuthorizationHandler completionHandler) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->lastAuthorizationOptions = options;
        ++state_->authorizationRequests;
        if (!state_->authorizationError) {
            if (!state_->granted) {
                state_->authorizationStatus = UNAuthorizationStatusDenied;
            } else if ((options & UNAuthorizationOptionProvisional) != 0) {
                state_->authorizationStatus = UNAuthorizationStatusProvisional;
            } else {
                state_->authorizationStatus = UNAuthorizationStatusAuthorized;
            }
        }
        if (!completionHandler) {
            return;
        }
        state_->answer([handler = std::move(completionHandler), granted = state_->granted,
                        error = state_->authorizationError]() { handler(granted, error); });
    }
    state_->runRefused();
}

void UNUserNotificationCenter::getNotificationSettingsWithCompletionHandler(
    SettingsHandler completionHandler) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        ++state_->settingsRequests;
        if (!completionHandler) {
            return;
        }
        UNNotificationSettings settings;
        settings.authorizationStatus = state_->authorizationStatus;
        state_->answer([handler = std::move(completionHandler), settings]() { handler(settings); });
    }
    state_->runRefused();
}

void UNUserNotificationCenter::setBadgeCount(std::int64_t count, BadgeHandler completionHandler) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->lastBadgeCount = count;
        ++state_->badgeRequests;
        if (!completionHandler) {
            return;
        }
        state_->answer([handler = std::move(completionHandler), error = state_->badgeError]() {
            handler(error);
        });
    }
    state_->runRefused();
}

void UNUserNotificationCenter::setAuthorizationAnswer(bool granted, std::optional<NSError> error) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->granted = granted;
    state_->authorizationError = std::move(error);
}

void UNUserNotificationCenter::setAuthorizationStatus(std::int64_t rawStatus) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->authorizationStatus = rawStatus;
}

void UNUserNotificationCenter::setBadgeError(std::optional<NSError> error) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->badgeError = std::move(error);
}

std::int64_t UNUserNotificationCenter::authorizationStatus() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->authorizationStatus;
}

void UNUserNotificationCenter::setBadgeCountFromNotification(std::int64_t count) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->lastBadgeCount = count;
}

void UNUserNotificationCenter::setHoldsAnswers(bool hold) {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->holding = hold;
        if (!hold) {
            state_->releaseHeld();
        }
    }
    state_->runRefused();
}

bool UNUserNotificationCenter::holdsAnswers() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->holding;
}

std::size_t UNUserNotificationCenter::heldAnswerCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->held.size();
}

std::optional<UNAuthorizationOptions> UNUserNotificationCenter::lastAuthorizationOptions() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->lastAuthorizationOptions;
}

std::optional<std::int64_t> UNUserNotificationCenter::lastBadgeCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->lastBadgeCount;
}

std::size_t UNUserNotificationCenter::authorizationRequestCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->authorizationRequests;
}

std::size_t UNUserNotificationCenter::settingsRequestCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->settingsRequests;
}

std::size_t UNUserNotificationCenter::badgeRequestCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->badgeRequests;
}

void UNUserNotificationCenter::setDeliveryQueueForTesting(std::shared_ptr<DispatchQueue> queue) {
    std::shared_ptr<DispatchQueue> replaced = queue ? std::move(queue) : makeDeliveryQueue();
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->delivery.swap(replaced);
    }
    // The replaced queue is released here, outside the lock: its last answers may call in.
}

void UNUserNotificationCenter::reset() {
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        state_->holding = false;
        state_->releaseHeld();
        state_->granted = true;
        state_->authorizationError.reset();
        state_->authorizationStatus = UNAuthorizationStatusNotDetermined;
        state_->badgeError.reset();
        state_->lastAuthorizationOptions.reset();
        state_->lastBadgeCount.reset();
        state_->authorizationRequests = 0;
        state_->settingsRequests = 0;
        state_->badgeRequests = 0;
    }
    state_->runRefused();
}

}  // namespace nimborra::platform
