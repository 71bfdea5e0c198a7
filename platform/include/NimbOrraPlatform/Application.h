// The application object: the process's one UIApplication, through which the application asks
// the system to register it for remote notifications.
//
// Linux has no push service, so a registration is recorded: hosts and tests can count the
// registrations, see how many of them were made on the main thread (where the platform requires
// them), and wait for one to happen. When a host connects a push service (a device-token issuer),
// a registration also asks it for the device token and hands the token to the application
// delegate's registration callback on the main queue, as the system does.
//
// Threads: every member function may be called from any thread; the state is guarded by one lock.
// registerForRemoteNotifications() belongs on the main thread; a call from elsewhere is recorded
// as such and otherwise behaves the same.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "NimbOrraPlatform/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

class NIMBORRA_PLATFORM_EXPORT UIApplication {
  public:
    // The process's one application object, created on first use and never destroyed.
    static UIApplication& sharedApplication();

    UIApplication(const UIApplication&) = delete;
    UIApplication& operator=(const UIApplication&) = delete;

    // Records one registration and wakes the threads waiting for it. With a push service
    // connected, the token it issues reaches the registration callback on the main queue; should
    // the main queue not take it (memory ran out), an error is logged and that token is not
    // delivered.
    void registerForRemoteNotifications();

    // The push service the device is connected to: asked for the device token at each
    // registration, on the registering thread, outside every lock. Nothing when it issues none.
    using DeviceTokenIssuer = std::function<std::optional<Data>()>;
    void setDeviceTokenIssuer(DeviceTokenIssuer issuer);
    // The application delegate's didRegisterForRemoteNotificationsWithDeviceToken: runs on the
    // main queue with each token issued.
    using RegistrationCallback = std::function<void(const Data& deviceToken)>;
    void setRegistrationCallback(RegistrationCallback callback);

    // Registrations since the start or the last reset(), and how many of them ran on the main
    // thread.
    std::size_t registrationCount() const;
    std::size_t mainThreadRegistrationCount() const;

    // Blocks until at least `count` registrations have been recorded or `timeout` has passed;
    // returns whether the count was reached. Pass registrationCount() + 1, read before the action
    // that should register, to wait for the next registration.
    bool waitForRegistrationCount(std::size_t count, std::chrono::milliseconds timeout) const;

    // Forgets every registration, the issuer and the callback.
    void reset();

  private:
    UIApplication();
    ~UIApplication();

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nimborra::platform
