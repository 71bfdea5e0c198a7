// The user-notification center: the system service that asks the user for permission to show
// notifications, reports the current notification settings and sets the application's badge.
//
// Linux has no such service, so this one answers from programmable local state: a host or a test
// decides what the user "said" (setAuthorizationAnswer, setAuthorizationStatus, setBadgeError),
// can hold every answer back to exercise callers that wait for one (setHoldsAnswers), and can
// inspect what it was asked (last option mask, last badge count, call counts).
//
// Threads: every member function may be called from any thread; the state is guarded by one lock.
// Completion handlers never run inside the call that requested them: each answer is delivered on
// the center's own delivery thread (a serial dispatch queue), one handler at a time, in the order
// the answers were released. A caller may therefore block until its handler has run, as long as
// it does not block the delivery thread itself (that is, not from inside a completion handler).
// Each handler is called exactly once, except that answers held back are only called once holding
// is turned off (or the center is reset). A handler that throws is reported by the delivery queue,
// which carries on with the next answer. Should the delivery queue be unable to take an answer
// (its thread could not be started, memory ran out), the call that requested or released it
// runs the handler itself, on its own thread, just before it returns: late, but never lost.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/Export.h"
#include "NimbOrraPlatform/NSError.h"

namespace nimborra::platform {

// The platform's authorization options: a bit mask of the UNAuthorizationOption* bits below.
using UNAuthorizationOptions = std::uint64_t;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionBadge = 1;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionSound = 2;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionAlert = 4;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionCarPlay = 8;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionCriticalAlert = 16;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionProvidesAppNotificationSettings = 32;
inline constexpr UNAuthorizationOptions UNAuthorizationOptionProvisional = 64;

// The platform's authorization states, as the raw values that the settings report. A newer
// system may report other values.
inline constexpr std::int64_t UNAuthorizationStatusNotDetermined = 0;
inline constexpr std::int64_t UNAuthorizationStatusDenied = 1;
inline constexpr std::int64_t UNAuthorizationStatusAuthorized = 2;
inline constexpr std::int64_t UNAuthorizationStatusProvisional = 3;
inline constexpr std::int64_t UNAuthorizationStatusEphemeral = 4;

struct UNNotificationSettings {
    // One of the UNAuthorizationStatus* values above, or any other raw value.
    std::int64_t authorizationStatus = UNAuthorizationStatusNotDetermined;
};

class NIMBORRA_PLATFORM_EXPORT UNUserNotificationCenter {
  public:
    using AuthorizationHandler = std::function<void(bool granted, std::optional<NSError> error)>;
    using SettingsHandler = std::function<void(UNNotificationSettings settings)>;
    using BadgeHandler = std::function<void(std::optional<NSError> error)>;

    // The process's one center, created on first use and never destroyed.
    static UNUserNotificationCenter& currentNotificationCenter();

    UNUserNotificationCenter(const UNUserNotificationCenter&) = delete;
    UNUserNotificationCenter& operator=(const UNUserNotificationCenter&) = delete;

    // The three services. Each records the request, fixes its answer from the state programmed
    // at the moment of the call, and returns at once; the handler receives that answer later on
    // the delivery thread. An empty handler is allowed (the answer is then dropped).
    //
    // The center remembers the user's answer to an authorization request, as the system does:
    // a grant makes the status authorized, or provisional when `options` holds the provisional
    // option (which the system grants without asking); a refusal makes it denied; an error
    // leaves it as it was.
    void requestAuthorizationWithOptions(UNAuthorizationOptions options,
                                         AuthorizationHandler completionHandler);
    void getNotificationSettingsWithCompletionHandler(SettingsHandler completionHandler);
    void setBadgeCount(std::int64_t count, BadgeHandler completionHandler);

    // Programming the answers. Authorization requests are answered with (`granted`, `error`)
    // exactly as given; the platform reports granted = false together with any error.
    void setAuthorizationAnswer(bool granted, std::optional<NSError> error = std::nullopt);
    void setAuthorizationStatus(std::int64_t rawStatus);
    void setBadgeError(std::optional<NSError> error);

    // The raw authorization status the settings report now.
    std::int64_t authorizationStatus() const;

    // The system sets the badge from a notification's "badge": recorded as the last badge count,
    // without a request.
    void setBadgeCountFromNotification(std::int64_t count);

    // While holding, answers are kept instead of delivered, so a caller waiting for one stays
    // blocked. Turning holding off delivers every held answer, oldest first.
    void setHoldsAnswers(bool hold);
    bool holdsAnswers() const;
    // How many answers are being held back.
    std::size_t heldAnswerCount() const;

    // What the center was asked. The last values are absent until the first request.
    std::optional<UNAuthorizationOptions> lastAuthorizationOptions() const;
    std::optional<std::int64_t> lastBadgeCount() const;
    std::size_t authorizationRequestCount() const;
    std::size_t settingsRequestCount() const;
    std::size_t badgeRequestCount() const;

    // Restores the defaults: authorization granted without error, status not determined, no
    // badge error, nothing recorded. Held answers are delivered first, so no caller stays blocked.
    void reset();

    // For tests only: delivers answers through `queue` from now on (nullptr: a new queue of the
    // center's own), e.g. a DispatchQueue::makeRefusingForTesting queue.
    void setDeliveryQueueForTesting(std::shared_ptr<DispatchQueue> queue);

  private:
    UNUserNotificationCenter();
    ~UNUserNotificationCenter();

    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nimborra::platform
