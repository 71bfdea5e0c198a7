// Event payloads and their delivery to the bridge.
//
// The notification payload deliberately takes the long way round: the record is encoded with a
// default encoder, read back into a generic object and written again with sorted keys, so that
// the far side sees exactly the member order and escapes of the platform serialiser. The only
// savings made are copies: the parsed object is moved into the wrapper, and the texts are built
// in place.
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

#include <string_view>
#include <utility>

#include "NimbOrraCore/JSONEncoder.h"
#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsLogger.h"

namespace nimborra::apns {
namespace {

constexpr std::string_view kDroppedSuffix = " dropped: payload encoding failed";

// Writes `payload` with the platform serialiser and keeps the text only when it is valid UTF-8.
std::optional<std::string> writePayload(const platform::Value& payload, bool sortedKeys) {
    platform::JSONWritingOptions options;
    options.sortedKeys = sortedKeys;
    std::optional<std::string> text = platform::JSONSerialization::data(payload, options);
    if (text && !platform::isValidUTF8(*text)) {
        return std::nullopt;
    }
    return text;
}

// Reads the encoder's output back as an object whose keys are all text; nothing otherwise.
std::optional<platform::Value> readNotificationObject(std::string_view encoded) {
    std::optional<platform::Value> object = platform::JSONSerialization::jsonObject(encoded);
    if (!object) {
        return std::nullopt;
    }
    const platform::Dictionary* members = object->dictionary();
    if (members == nullptr) {
        return std::nullopt;
    }
    for (const auto& member : *members) {
        if (!member.first.isText()) {
            return std::nullopt;
        }
    }
    return object;
}

// Hands a finished payload to the sink; a sink that throws must not reach our caller.
void deliver(ApnsEventEmitting& emitter, const std::string& name, const std::string& payload) {
    try {
        emitter.emit(name, payload);
    } catch (...) {
        // The sink failed on its own side; there is nobody to tell.
    }
}

}  // namespace

ApnsEventEmitting::~ApnsEventEmitting() = default;

void ApnsBridgeEventEmitter::emit(const std::string& name, const std::string& payload) {
    try {
        core::OrraBridgeDispatcher::shared().emitEvent(name, payload);
    } catch (...) {
        // Copying the texts for the dispatcher ran out of memory: the event is lost.
    }
}

std::optional<std::string> makeNotificationEventPayload(
    const ApnsNotification& notification, const std::optional<std::string>& actionIdentifier) {
    try {
        const core::CodingResult<std::string> encoded = core::JSONEncoder{}.encode(notification);
        if (!encoded) {
            return std::nullopt;
        }
        std::optional<platform::Value> object = readNotificationObject(encoded.value());
        if (!object) {
            return std::nullopt;
        }
        if (!actionIdentifier) {
            return writePayload(*object, /*sortedKeys=*/true);
        }
        platform::Dictionary wrapper;
        wrapper.reserve(2);
        wrapper.set("notification", std::move(*object));
        wrapper.set("actionIdentifier", platform::Value(*actionIdentifier));
        return writePayload(platform::Value(std::move(wrapper)), /*sortedKeys=*/true);
    } catch (...) {
        // Out of memory somewhere along the way: no payload.
        return std::nullopt;
    }
}

void emitTokenRefreshed(ApnsEventEmitting& emitter, const std::string& token) {
    try {
        platform::Dictionary members;
        members.reserve(1);
        members.set("newToken", platform::Value(token));
        const std::optional<std::string> payload =
            writePayload(platform::Value(std::move(members)), /*sortedKeys=*/false);
        if (payload) {
            deliver(emitter, apnsTokenRefreshedEventName, *payload);
            return;
        }
    } catch (...) {
        // Treated like any other encoding failure below.
    }
    try {
        apnsLogger().error("OnTokenRefreshed dropped: payload encoding failed");
    } catch (...) {
    }
}

void emitNotificationEvent(ApnsEventEmitting& emitter, const std::string& name,
                           const ApnsNotification& notification,
                           const std::optional<std::string>& actionIdentifier) {
    const std::optional<std::string> payload =
        makeNotificationEventPayload(notification, actionIdentifier);
    if (payload) {
        deliver(emitter, name, *payload);
        return;
    }
    try {
        apnsLogger().error([&name] {
            std::string message;
            message.reserve(name.size() + kDroppedSuffix.size());
            message.append(name);
            message.append(kDroppedSuffix);
            return message;
        });
    } catch (...) {
        // Not even the log line could be built.
    }
}

}  // namespace nimborra::apns
