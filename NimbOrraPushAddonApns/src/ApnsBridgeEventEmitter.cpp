// Event payloads and their delivery to the bridge.
//
// The notification payload is defined as the long way round: the record encoded with a default
// encoder, read back into a generic object and written again with sorted keys, so that the far
// side sees exactly the member order and escapes of the platform serialiser. It is built without
// the detour, in one pass, and comes out byte for byte the same:
// - every member's value is written by the same encoder, and reading a value back and writing it
//   again gives the encoder's text unchanged (the same escapes; numbers in their shortest form
//   read back to the same number), except that "-0" reads back as the integer 0, written "0";
// - the members are written in byte order of their keys, as the sorted write orders them;
// - text that is not UTF-8 fails the read-back, and so fails the final UTF-8 check here; a value
//   the encoder refuses (a relevance score that is not finite) fails both ways.
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "NimbOrraCore/Codable.h"
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

template <class T>
struct IsVector : std::false_type {};
template <class T, class A>
struct IsVector<std::vector<T, A>> : std::true_type {};

// The positions of a record's coding fields in byte order of their keys.
template <core::CodableRecord R>
constexpr auto sortedFieldOrder() {
    constexpr auto fields = R::codingFields();
    constexpr std::size_t count = std::tuple_size_v<decltype(fields)>;
    std::array<std::string_view, count> keys{};
    std::apply(
        [&keys](const auto&... field) {
            std::size_t i = 0;
            ((keys[i++] = field.key), ...);
        },
        fields);
    std::array<std::size_t, count> order{};
    for (std::size_t i = 0; i < count; ++i) {
        order[i] = i;
    }
    std::sort(order.begin(), order.end(),
              [&keys](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
    return order;
}

// Writes `record` as a JSON object with its members in byte order of their keys, each value as
// the encoder writes it, "-0" as "0" (see the top of this file). Only flat records: a nested
// record or list would have to be sorted inside as well.
template <core::CodableRecord R, std::size_t... Position>
void encodeSorted(core::EncodingContext& context, const R& record,
                  std::index_sequence<Position...>) {
    static constexpr auto fields = R::codingFields();
    static constexpr auto order = sortedFieldOrder<R>();
    std::string& out = context.out();
    out += '{';
    (
        [&] {
            const auto& field = std::get<order[Position]>(fields);
            using Member = std::remove_cvref_t<decltype(record.*(field.member))>;
            static_assert(!core::CodableRecord<Member> && !IsVector<Member>::value,
                          "only records of plain values can be written sorted in one pass");
            if (context.failed()) {
                return;
            }
            if (Position > 0) {
                out += ',';
            }
            context.writeKey(field.key);
            const std::size_t start = out.size();
            core::encodeValue(context, record.*(field.member));
            if constexpr (std::is_floating_point_v<Member>) {
                if (std::string_view(out).substr(start) == "-0") {
                    out.replace(start, 2, "0");
                }
            }
        }(),
        ...);
    out += '}';
}

template <core::CodableRecord R>
void encodeSorted(core::EncodingContext& context, const R& record) {
    encodeSorted(context, record,
                 std::make_index_sequence<std::tuple_size_v<decltype(R::codingFields())>>());
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
        core::EncodingContext context;
        std::string& out = context.out();
        // Room for the usual payload at once: the keys, the texts and the escaped user info.
        out.reserve(512 + notification.title.size() + notification.body.size() +
                    2 * notification.userInfoJson.size());
        // The wrapper's two keys in byte order: "actionIdentifier" before "notification".
        if (actionIdentifier) {
            out += "{\"actionIdentifier\":";
            platform::appendJSONString(out, *actionIdentifier);
            out += ",\"notification\":";
        }
        encodeSorted(context, notification);
        if (context.failed()) {
            return std::nullopt;
        }
        if (actionIdentifier) {
            out += '}';
        }
        if (!platform::isValidUTF8(out)) {
            return std::nullopt;
        }
        return std::move(out);
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
