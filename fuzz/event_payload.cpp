// The notification event payload against its definition. makeNotificationEventPayload builds
// the payload in one pass; the payload is defined as the long way round: the record encoded with
// a default encoder, read back into a generic value and written again with sorted keys. Both are
// computed for notifications made from the input (any bytes in the texts, any bit pattern in the
// relevance score: NaN, infinities, negative zero, subnormals) and must agree exactly, including
// on when there is no payload at all.
#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "NimbOrraCore/JSONEncoder.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

namespace {

using namespace nimborra;

// The definition, step by step.
std::optional<std::string> longWayRound(const apns::ApnsNotification& notification,
                                        const std::optional<std::string>& actionIdentifier) {
    const auto encoded = core::JSONEncoder{}.encode(notification);
    if (!encoded) {
        return std::nullopt;
    }
    auto object = platform::JSONSerialization::jsonObject(encoded.value());
    if (!object || object->dictionary() == nullptr) {
        return std::nullopt;
    }
    platform::Value payload = std::move(*object);
    if (actionIdentifier) {
        platform::Dictionary wrapper;
        wrapper.set("notification", std::move(payload));
        wrapper.set("actionIdentifier", platform::Value(*actionIdentifier));
        payload = platform::Value(std::move(wrapper));
    }
    auto text = platform::JSONSerialization::data(payload, {.sortedKeys = true});
    if (!text || !platform::isValidUTF8(*text)) {
        return std::nullopt;
    }
    return text;
}

std::string text(FuzzedDataProvider& input) {
    return input.ConsumeRandomLengthString(64);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    apns::ApnsNotification notification;
    notification.title = text(input);
    notification.subtitle = text(input);
    notification.body = text(input);
    notification.badge = input.ConsumeIntegral<std::int32_t>();
    notification.sound = text(input);
    notification.categoryIdentifier = text(input);
    notification.threadIdentifier = text(input);
    notification.launchImageName = text(input);
    notification.targetContentIdentifier = text(input);
    notification.interruptionLevel =
        static_cast<apns::UNNotificationInterruptionLevel>(input.ConsumeIntegral<std::int64_t>());
    notification.relevanceScore = std::bit_cast<double>(input.ConsumeIntegral<std::uint64_t>());
    std::optional<std::string> actionIdentifier;
    if (input.ConsumeBool()) {
        actionIdentifier = text(input);
    }
    notification.userInfoJson = input.ConsumeRemainingBytesAsString();

    const auto expected = longWayRound(notification, actionIdentifier);
    const auto actual = apns::makeNotificationEventPayload(notification, actionIdentifier);
    if (expected != actual) {
        std::fprintf(stderr, "event_payload: the payloads differ\n  defined: %s\n  built:   %s\n",
                     expected ? expected->c_str() : "(none)", actual ? actual->c_str() : "(none)");
        std::abort();
    }
    return 0;
}
