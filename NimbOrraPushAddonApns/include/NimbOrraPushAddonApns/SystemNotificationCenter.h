// The add-on's narrow view of the system notification center: the three asynchronous services
// that the adapter needs (ask for authorization, read the authorization status, set the badge),
// behind the ApnsNotificationCentering interface so that other implementations can stand in.
//
// Threads: every operation may be called from any thread and returns without waiting. Its
// completion handler runs exactly once, later, on a thread of the platform's choosing (never
// inside the call, unless the request could not be handed to the platform at all; see
// SystemNotificationCenter). A caller that blocks until the handler has run (see
// ApnsCompletionBox.h) must therefore not block the thread that delivers the handlers.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "NimbOrraPlatform/NSError.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsWireEnumerations.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

class NIMBORRA_APNS_EXPORT ApnsNotificationCentering {
  public:
    virtual ~ApnsNotificationCentering();

    // Asks the user to allow the notification features in `options` (a mask of the platform's
    // UNAuthorizationOption* bits). `completion` receives the platform's answer unchanged.
    virtual void requestAuthorization(
        platform::UNAuthorizationOptions options,
        std::function<void(bool granted, std::optional<platform::NSError> error)> completion) = 0;

    // Reads the notification settings and passes on only their raw authorization status (one of
    // the platform's UNAuthorizationStatus* values, or a value this library does not know).
    virtual void getAuthorizationStatus(
        std::function<void(std::int64_t platformStatus)> completion) = 0;

    // Sets the application's badge to `count`, unchecked (0 clears it; negative values are passed
    // on as they are). `completion` receives the platform's error, or nothing on success.
    virtual void setBadgeCount(
        std::int64_t count, std::function<void(std::optional<platform::NSError>)> completion) = 0;
};

// The production implementation: forwards each call to
// platform::UNUserNotificationCenter::currentNotificationCenter(), looked up afresh on every call.
// Holds no state; one instance may be shared by any number of threads. Nothing throws.
//
// An empty completion is allowed: the request is still made and its answer ignored. Should the
// request not reach the platform at all (the platform call throws, which only running out of
// memory can cause), the completion is answered at once, on the calling thread, so that a waiting
// caller is not left blocked: authorization with (false, the error below), the badge with the
// error below, the status with apnsUnknownPlatformStatus. The completion still runs only once.
class NIMBORRA_APNS_EXPORT SystemNotificationCenter final : public ApnsNotificationCentering {
  public:
    void requestAuthorization(
        platform::UNAuthorizationOptions options,
        std::function<void(bool granted, std::optional<platform::NSError> error)> completion)
        override;
    void getAuthorizationStatus(
        std::function<void(std::int64_t platformStatus)> completion) override;
    void setBadgeCount(std::int64_t count,
                       std::function<void(std::optional<platform::NSError>)> completion) override;
};

// The error with which SystemNotificationCenter answers a request that never reached the platform.
inline constexpr std::string_view apnsNotificationCenterErrorDomain =
    "com.nimborra.push.addon.apns.SystemNotificationCenter";
inline constexpr std::int64_t apnsNotificationCenterErrorRequestFailed = 1;

// The raw status reported when the settings could not be asked for; it names no platform state,
// so it reads as UNAuthorizationStatus::unspecified.
inline constexpr std::int64_t apnsUnknownPlatformStatus = -1;

// The platform's raw authorization status as the wire enumeration: 0 notDetermined, 1 denied,
// 2 authorized, 3 provisional, 4 ephemeral (the wire value is the raw value plus one); any other
// value, negative ones included, is unspecified.
NIMBORRA_APNS_EXPORT constexpr UNAuthorizationStatus authorizationStatusFromPlatform(
    std::int64_t raw) {
    if (raw < 0 || raw > 4) {
        return UNAuthorizationStatus::unspecified;
    }
    return static_cast<UNAuthorizationStatus>(raw + 1);
}

}  // namespace nimborra::apns
