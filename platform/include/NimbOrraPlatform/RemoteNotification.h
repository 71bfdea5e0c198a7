// What the system makes of a remote notification that reaches the device: whether the payload
// is acceptable at all, the notification content it turns into, whether it is visible and
// whether the authorization status lets it be shown, and the names of the application's
// callbacks. The host's phone runs each push's road (the application's state, its delegate's
// answer, the user's tap) with these rules.
//
// The functions are pure: no state, no locks, safe from any thread at once. They never throw
// except std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "NimbOrraPlatform/Export.h"
#include "NimbOrraPlatform/NotificationContent.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

// The largest remote-notification payload APNs delivers, in bytes of compact JSON.
inline constexpr std::size_t kRemoteNotificationPayloadLimit = 4096;

// The action identifier of a plain tap on a notification (not one of its custom actions).
inline constexpr std::string_view UNNotificationDefaultActionIdentifier =
    "com.apple.UNNotificationDefaultActionIdentifier";

// Where the application is when a notification arrives.
enum class ApplicationState { foreground, background, notRunning };

// "foreground", "background" or "notRunning".
NIMBORRA_PLATFORM_EXPORT std::string_view applicationStateName(ApplicationState state);
NIMBORRA_PLATFORM_EXPORT std::optional<ApplicationState> applicationStateNamed(
    std::string_view name);

// The payload as the system takes it: the dictionary, or the one-line reason it is refused (not
// an object, "aps" present but not an object, compact JSON over the limit, not writable as JSON).
NIMBORRA_PLATFORM_EXPORT std::variant<Dictionary, std::string> acceptRemoteNotificationPayload(
    const Value& payload);

// The size in bytes of the payload written as compact JSON, as a provider sends it ("/" not
// escaped); nothing when the value cannot be written as JSON.
NIMBORRA_PLATFORM_EXPORT std::optional<std::size_t> compactPayloadSize(const Value& payload);

// The content the system builds from an accepted payload's "aps" dictionary; the user info is
// the whole payload.
NIMBORRA_PLATFORM_EXPORT UNNotificationContent remoteNotificationContent(const Dictionary& payload);
// The same, with the payload moved into the user info rather than copied.
NIMBORRA_PLATFORM_EXPORT UNNotificationContent remoteNotificationContent(Dictionary&& payload);

// A localisation key used as its own format, as the system does when the application has no
// translation for it: "%@" takes the next argument, "%n$@" the n-th (from 1), "%%" is "%". A
// placeholder without an argument becomes the empty text; arguments left over are ignored; any
// other "%" sequence stays as it is. Text arguments are used as they stand, others as their
// compact JSON.
NIMBORRA_PLATFORM_EXPORT std::string localizedFormat(std::string_view format,
                                                     const Array* arguments);

// A payload is visible when its "aps" has "alert", "badge" or "sound"; any other payload (one
// with only "content-available": 1, say) is silent.
NIMBORRA_PLATFORM_EXPORT bool isVisibleRemoteNotification(const Dictionary& payload);

// Whether a raw authorization status lets the system show notifications: authorized,
// provisional and ephemeral do; not determined, denied and unknown values do not.
NIMBORRA_PLATFORM_EXPORT bool authorizationStatusShowsNotifications(std::int64_t rawStatus);

// The application callbacks the system runs for one notification.
enum class RemoteNotificationCallback {
    // The application is launched; its launch options carry the payload.
    didFinishLaunching,
    // The notification-center delegate is asked how to present it in the foreground.
    willPresent,
    // The notification-center delegate learns the user's action on it.
    didReceiveResponse,
};

// "didFinishLaunching", "willPresent" or "didReceiveResponse".
NIMBORRA_PLATFORM_EXPORT std::string_view remoteNotificationCallbackName(
    RemoteNotificationCallback callback);

}  // namespace nimborra::platform
