// The device at the end of the provider API: it takes the notifications the push service sends,
// hands each to the session's push road (the system's rules, the delegate, the plug-in), keeps
// the notifications the system shows so that the user can tap them later, and writes one
// "provider" line per request the service answers.
//
// Threads: take(), present() and requestHandled() come from the push service's threads (see
// ProviderService.h); the commands come from the session's reading thread. The shown
// notifications and the application's state are guarded by one lock, never held while the
// session runs the push road.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/RemoteNotification.h"
#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "NimbOrraProviderApi/ProviderService.h"
#include "Output.h"

namespace nimborra::host {

class Session;

class SimulatedDevice final : public platform::RemoteNotificationReceiver,
                              public provider::ProviderObserver {
  public:
    // The system keeps at most this many shown notifications; the oldest goes first.
    static constexpr std::size_t maximumShownNotifications = 64;

    SimulatedDevice(Session& session, OutputWriter& output, platform::ApplicationState app);

    Taken take(const platform::IncomingRemoteNotification& notification) override;
    void present(const platform::IncomingRemoteNotification& notification) override;
    void requestHandled(const provider::ProviderRecord& record) override;
    void keptNotificationDelivered(std::string_view apnsId,
                                   provider::ProviderOutcome outcome) override;

    platform::ApplicationState applicationState() const;
    void setApplicationState(platform::ApplicationState app);

    // A shown notification the user taps, taken out of the notification centre: by apns-id, or
    // the newest for "latest". Nothing when there is no such notification.
    std::optional<platform::IncomingRemoteNotification> takeShown(std::string_view identifier);

    // {"notificationCenter":[{"apnsId":ID,"collapseId":ID|null,"payload":P}...]}, oldest first.
    std::string notificationCenterLine() const;

  private:
    Session& session_;
    OutputWriter& output_;

    mutable std::mutex mutex_;
    platform::ApplicationState app_;
    std::deque<platform::IncomingRemoteNotification> shown_;
};

}  // namespace nimborra::host
