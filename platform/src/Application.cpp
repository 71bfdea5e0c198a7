// The application object stand-in: registrations are counted under a lock, and a condition
// variable lets other threads wait for them.
#include "NimbOrraPlatform/Application.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/Logger.h"

namespace nimborra::platform {

namespace {

const Logger& applicationLogger() {
    // Never destroyed, like the application object that uses it.
    static const Logger* logger = new Logger("com.nimborra.platform", "application");
    return *logger;
}

}  // namespace

struct UIApplication::State {
    mutable std::mutex mutex;
    mutable std::condition_variable registered;
    std::size_t registrations = 0;
    std::size_t mainThreadRegistrations = 0;
    DeviceTokenIssuer issuer;
    RegistrationCallback callback;
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
    DeviceTokenIssuer issuer;
    RegistrationCallback callback;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        ++state_->registrations;
        if (onMainThread) {
            ++state_->mainThreadRegistrations;
        }
        issuer = state_->issuer;
        callback = state_->callback;
    }
    state_->registered.notify_all();
    if (!issuer || !callback) {
        return;
    }
    auto token = issuer();
    if (!token) {
        return;
    }
    // The system answers a registration later, never inside the call that asked for it.
    if (!DispatchQueue::main().async(
            [callback = std::move(callback), token = std::move(*token)] { callback(token); })) {
        // Only running out of memory gets here. The callback belongs on the main thread, so it is
        // not run here instead; the application learns the token at its next registration.
        applicationLogger().error(
            "registerForRemoteNotifications: the device token could not be handed to the main "
            "queue");
    }
}

void UIApplication::setDeviceTokenIssuer(DeviceTokenIssuer issuer) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->issuer = std::move(issuer);
}

void UIApplication::setRegistrationCallback(RegistrationCallback callback) {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->callback = std::move(callback);
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
    state_->issuer = {};
    state_->callback = {};
}

}  // namespace nimborra::platform
