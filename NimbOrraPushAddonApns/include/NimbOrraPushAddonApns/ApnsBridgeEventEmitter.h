// The one path by which the add-on pushes unsolicited events (a refreshed device token, a
// notification shown or opened) to the far side of the bridge.
//
// The emission routines below turn a token or a notification into the event's JSON payload and
// hand it, with the event's name, to an ApnsEventEmitting sink; the production sink,
// ApnsBridgeEventEmitter, passes it on to the shared bridge dispatcher. When the payload cannot
// be produced the event is dropped and one error-level line is logged through apnsLogger(); the
// caller is never told and nothing is retried.
//
// Threads: everything here is stateless (apart from the module logger) and may be called from
// any thread at once. Events are delivered on the calling thread; from there on the dispatcher's
// own threading applies. Nothing here throws.
#pragma once

#include <optional>
#include <string>
#include <tuple>

#include "NimbOrraPushAddonApns/ApnsNotification.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

// The bridge events that the add-on emits.
inline constexpr char apnsTokenRefreshedEventName[] = "APNSService.OnTokenRefreshed";
inline constexpr char apnsNotificationPresentedEventName[] = "APNSService.OnNotificationPresented";
inline constexpr char apnsNotificationOpenedEventName[] = "APNSService.OnNotificationOpened";

// The payload of apnsTokenRefreshedEventName, as a record.
struct ApnsTokenRefreshedEvent {
    std::string newToken;

    static constexpr auto codingFields() {
        return std::tuple{core::CodingField{"newToken", &ApnsTokenRefreshedEvent::newToken}};
    }
};

// The payload of apnsNotificationOpenedEventName, as a record. The payload of
// apnsNotificationPresentedEventName is the ApnsNotification itself. Both are written with their
// keys sorted (see makeNotificationEventPayload).
struct ApnsNotificationOpenedEvent {
    std::string actionIdentifier;
    ApnsNotification notification;

    static constexpr auto codingFields() {
        using core::CodingField;
        using E = ApnsNotificationOpenedEvent;
        return std::tuple{CodingField{"actionIdentifier", &E::actionIdentifier},
                          CodingField{"notification", &E::notification}};
    }
};

// Where events go: the seam between the emission routines and the bridge. Implementations must
// be safe to call from any thread and should not throw (an exception is swallowed by the
// emission routines, and the event counts as delivered or lost as the implementation left it).
class NIMBORRA_APNS_EXPORT ApnsEventEmitting {
  public:
    virtual ~ApnsEventEmitting();

    // Delivers one event: its name and its payload, a JSON text.
    virtual void emit(const std::string& name, const std::string& payload) = 0;
};

// The production sink: hands both texts, unchanged, to
// core::OrraBridgeDispatcher::shared().emitEvent on the caller's thread. Holds no state, so one
// instance may be shared by any number of threads. Never throws: if the texts cannot be copied
// for the dispatcher (out of memory), the event is lost.
class NIMBORRA_APNS_EXPORT ApnsBridgeEventEmitter final : public ApnsEventEmitting {
  public:
    void emit(const std::string& name, const std::string& payload) override;
};

// Emits apnsTokenRefreshedEventName with the payload {"newToken":<token>}, written compactly.
// A token that is not valid UTF-8 cannot be written as JSON text: the event is then dropped and
// "OnTokenRefreshed dropped: payload encoding failed" is logged at error level.
NIMBORRA_APNS_EXPORT void emitTokenRefreshed(ApnsEventEmitting& emitter, const std::string& token);

// Emits the event `name` with the payload of makeNotificationEventPayload. When there is no
// payload, the event is dropped and "<name> dropped: payload encoding failed" is logged at error
// level. The adapter uses it with apnsNotificationPresentedEventName and no identifier, and with
// apnsNotificationOpenedEventName and the response's action identifier.
NIMBORRA_APNS_EXPORT void emitNotificationEvent(ApnsEventEmitting& emitter, const std::string& name,
                                                const ApnsNotification& notification,
                                                const std::optional<std::string>& actionIdentifier);

// The payload of a notification event, or nothing when it cannot be produced. The notification
// is encoded with a default core::JSONEncoder, read back into a generic object and written again
// with sorted keys (byte order, at every level) and the platform serialiser's escapes ("/" as
// "\/"), without whitespace. Without an action identifier the payload is the notification object
// itself; with one (even an empty one) it is {"actionIdentifier":<id>,"notification":<object>}.
// Nothing comes back when the notification cannot be encoded (a relevance score that is NaN or
// infinite, text that is not valid UTF-8), when the identifier is not valid UTF-8, or when memory
// runs out.
[[nodiscard]] NIMBORRA_APNS_EXPORT std::optional<std::string> makeNotificationEventPayload(
    const ApnsNotification& notification, const std::optional<std::string>& actionIdentifier);

}  // namespace nimborra::apns
