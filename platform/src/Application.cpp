// The application object stand-in: registrations are counted under a lock, and a condition
// variable lets other threads wait for them.
#include "NimbOrraPlatform/Application.h"

#include <condition_variable>
#include <mutex>

#include "NimbOrraPlatform/DispatchQueue.h"

namespace nimborra::platform {

struct UIApplication::State {
    mutable std::mutex mutex;
    mutable std::condition_variable registered;
    std::size_t registrations = 0;
    std::size_t mainThreadRegistrations = 0;
};

UIApplication::UIApplication() : state_(std::make_unique<State>()) {}

UIApplication::~UIApplication() = default;

UIApplication& UIApplication::sharedApplication() {
    // Never destroyed, so registrations made during shutdown still find it.
    static UIApplication* const application = new UIApplication;
    return *application;
}

void UIApplication::registerForRemoteNotifications() {
    const bool onMainThread = isMainThread();
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        ++state_->registrations;
        if (onMainThread) {
            ++state_->mainThreadRegistrations;
        }
    }
    state_->registered.notify_all();
}

std::size_t UIApplication::registrationCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->registrations;
}

std::size_t UIApplication::mainThreadRegistrationCount() const {
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->mainThreadRegistrations;
}

bool UIApplication::waitForRegistrationCount(std::size_t count,
                                             std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(state_->mutex);
    return state_->registered.wait_for(lock, timeout,
                                       [&] { return state_->registrations >= count; });
}

void UIApplication::reset() {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->registrations = 0;
    state_->mainThreadRegistrations = 0;
}

}  // namespace nimborra::platform
