// The device's end of its connection to the push service: how a remote notification that the
// service sends reaches the system. The push service stand-in calls it; the host implements it
// with the system's rules (RemoteNotification.h).
//
// Threads: the push service calls take() and present() from its delivery thread, one notification
// at a time, and also from the thread that brings the device back online, which delivers the
// notification kept while offline before it returns. Those two threads may call at the same
// time: an implementation guards whatever the calls share. Implementations must not throw.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

// A notification as the push service hands it to the device.
struct IncomingRemoteNotification {
    // The notification's identifier (its apns-id).
    std::string identifier;
    // Notifications with the same collapse identifier replace each other on the device.
    std::optional<std::string> collapseIdentifier;
    // The push type the provider sent ("alert", "background", ...).
    std::string pushType;
    Dictionary payload;
    // Held by the device for as long as it is busy with the notification (until the system and
    // the application are done with it), then let go: the push service paces its deliveries by
    // how many it holds. Null when nobody paces them.
    std::shared_ptr<const void> presence;
};

class RemoteNotificationReceiver {
  public:
    virtual ~RemoteNotificationReceiver() = default;

    // What became of a notification the device took.
    enum class Taken {
        delivered,
        // It replaced a shown notification with the same collapse identifier.
        replaced,
    };

    // The device takes the notification: quick, never blocks on the application.
    virtual Taken take(const IncomingRemoteNotification& notification) = 0;
    // The system then runs its rules for it: shows it, runs the application's callbacks. May
    // block until the application has handled it. The notification is the receiver's to keep
    // (its payload moves rather than being copied).
    virtual void present(IncomingRemoteNotification&& notification) = 0;
};

}  // namespace nimborra::platform
