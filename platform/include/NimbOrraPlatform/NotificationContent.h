// The content of a displayed notification, as the user-notification center hands it to the
// application when a notification is about to be presented or the user has opened it. A plain,
// immutable-by-convention value record: copies are deep, and distinct objects may be used from
// different threads without synchronisation.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

// The platform's interruption levels, as the raw values that `interruptionLevel` holds. Content
// from a newer system may carry other values.
inline constexpr std::int64_t UNNotificationInterruptionLevelPassive = 0;
inline constexpr std::int64_t UNNotificationInterruptionLevelActive = 1;
inline constexpr std::int64_t UNNotificationInterruptionLevelTimeSensitive = 2;
inline constexpr std::int64_t UNNotificationInterruptionLevelCritical = 3;

struct UNNotificationContent {
    std::string title;
    std::string subtitle;
    std::string body;
    // The number to show on the application's icon, as the integer value of the platform's
    // number object; absent when the notification leaves the badge alone.
    std::optional<std::int64_t> badge;
    // The name of the sound to play, absent for a silent notification.
    std::optional<std::string> sound;
    std::string categoryIdentifier;
    std::string threadIdentifier;
    std::string launchImageName;
    // The identifier of the window or scene to bring forward; absent when there is none.
    std::optional<std::string> targetContentIdentifier;
    // One of the UNNotificationInterruptionLevel* values above, or any other raw value.
    std::int64_t interruptionLevel = UNNotificationInterruptionLevelActive;
    // Between 0 and 1 by the platform's convention; passed on as it is.
    double relevanceScore = 0;
    // The notification's custom data: the whole remote payload for a remote notification.
    Dictionary userInfo;

    friend bool operator==(const UNNotificationContent&, const UNNotificationContent&) = default;
};

}  // namespace nimborra::platform
