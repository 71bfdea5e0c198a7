#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::apns {

namespace {

using platform::Dictionary;
using platform::JSONSerialization;
using platform::Value;

constexpr std::int32_t kBadgeMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kBadgeMax = std::numeric_limits<std::int32_t>::max();

// What the mapper answers when it cannot even copy the notification's texts (out of memory):
// an otherwise empty record whose user info is the usual "{}" of an unwritable dictionary, so
// that a mapped record always carries JSON text in `userInfoJson`. "{}" fits the string's
// inline buffer, so building this record does not allocate.
ApnsNotification unreadableNotification() noexcept {
    ApnsNotification notification;
    notification.userInfoJson = "{}";
    return notification;
}

// The member's value when it is text; the empty text when it is absent or of any other type.
std::string textMember(const Dictionary& dictionary, const char* key) {
    const Value* value = dictionary.find(key);
    if (value == nullptr) {
        return {};
    }
    const std::string* text = value->text();
    return text != nullptr ? *text : std::string();
}

std::int32_t saturatedBadge(std::int64_t number) {
    if (number < kBadgeMin) {
        return kBadgeMin;
    }
    if (number > kBadgeMax) {
        return kBadgeMax;
    }
    return static_cast<std::int32_t>(number);
}

// The integer value of a number (booleans included), saturated to the signed 32-bit range.
// Reals lose their fraction (toward zero) and NaN counts as 0, as the platform's number object
// does when asked for its integer value; anything that is not a number gives 0.
std::int32_t badgeValue(const Value* value) {
    if (value == nullptr) {
        return 0;
    }
    if (const bool* boolean = value->boolean()) {
        return *boolean ? 1 : 0;
    }
    if (const std::int64_t* integer = value->integer()) {
        return saturatedBadge(*integer);
    }
    if (value->unsignedInteger() != nullptr) {
        // Only values beyond the signed 64-bit range are held as unsigned.
        return kBadgeMax;
    }
    if (const double* real = value->real()) {
        if (std::isnan(*real)) {
            return 0;
        }
        if (*real >= static_cast<double>(kBadgeMax)) {
            return kBadgeMax;
        }
        if (*real <= static_cast<double>(kBadgeMin)) {
            return kBadgeMin;
        }
        return static_cast<std::int32_t>(*real);
    }
    return 0;
}

UNNotificationInterruptionLevel interruptionLevelFromPlatform(std::int64_t level) {
    switch (level) {
        case platform::UNNotificationInterruptionLevelPassive:
            return UNNotificationInterruptionLevel::passive;
        case platform::UNNotificationInterruptionLevelActive:
            return UNNotificationInterruptionLevel::active;
        case platform::UNNotificationInterruptionLevelTimeSensitive:
            return UNNotificationInterruptionLevel::timeSensitive;
        case platform::UNNotificationInterruptionLevelCritical:
            return UNNotificationInterruptionLevel::critical;
        default:
            return UNNotificationInterruptionLevel::unspecified;
    }
}

}  // namespace

ApnsNotification ApnsNotificationMapper::map(const platform::Dictionary& remotePayload) noexcept {
    try {
        const Dictionary noAps;
        const Value* apsValue = remotePayload.find("aps");
        const Dictionary* apsDictionary = apsValue != nullptr ? apsValue->dictionary() : nullptr;
        const Dictionary& aps = apsDictionary != nullptr ? *apsDictionary : noAps;

        ApnsNotification notification;

        if (const Value* alert = aps.find("alert")) {
            if (const Dictionary* alertDictionary = alert->dictionary()) {
                notification.title = textMember(*alertDictionary, "title");
                notification.subtitle = textMember(*alertDictionary, "subtitle");
                notification.body = textMember(*alertDictionary, "body");
            } else if (const std::string* text = alert->text()) {
                notification.body = *text;
            }
        }

        notification.sound = textMember(aps, "sound");
        if (notification.sound.empty()) {
            // Critical alerts name their sound inside a dictionary.
            const Value* sound = aps.find("sound");
            if (const Dictionary* soundDictionary = sound ? sound->dictionary() : nullptr) {
                notification.sound = textMember(*soundDictionary, "name");
            }
        }

        notification.badge = badgeValue(aps.find("badge"));
        notification.categoryIdentifier = textMember(aps, "category");
        notification.threadIdentifier = textMember(aps, "thread-id");
        notification.targetContentIdentifier = textMember(aps, "target-content-id");
        // The launch image, interruption level and relevance score are deliberately not taken
        // from a raw payload; they keep their empty values.
        notification.userInfoJson = encodeUserInfoJson(remotePayload);
        return notification;
    } catch (...) {
        return unreadableNotification();
    }
}

ApnsNotification ApnsNotificationMapper::map(
    const platform::UNNotificationContent& content) noexcept {
    try {
        ApnsNotification notification;
        notification.title = content.title;
        notification.subtitle = content.subtitle;
        notification.body = content.body;
        notification.badge = content.badge ? saturatedBadge(*content.badge) : 0;
        // The content's sound object names no file we could pass on; the far side gets none.
        notification.categoryIdentifier = content.categoryIdentifier;
        notification.threadIdentifier = content.threadIdentifier;
        notification.launchImageName = content.launchImageName;
        notification.targetContentIdentifier = content.targetContentIdentifier.value_or("");
        notification.interruptionLevel = interruptionLevelFromPlatform(content.interruptionLevel);
        notification.relevanceScore = content.relevanceScore;
        notification.userInfoJson = encodeUserInfoJson(content.userInfo);
        return notification;
    } catch (...) {
        return unreadableNotification();
    }
}

ApnsNotification ApnsNotificationMapper::unset() noexcept {
    return ApnsNotification{};
}

std::string ApnsNotificationMapper::encodeUserInfoJson(
    const platform::Dictionary& userInfo) noexcept {
    // Two characters fit the string's inline buffer: returning this never allocates.
    constexpr const char* kFallback = "{}";
    try {
        // One value that JSON cannot hold spoils the whole text; nothing is left out silently.
        // The writer refuses exactly what isValidJSONObject refuses (byte data, dates, non-finite
        // numbers, non-text keys, nesting beyond the limit), so its failure is the check.
        constexpr platform::JSONWritingOptions sorted{.sortedKeys = true};
        std::optional<std::string> text;
        if (std::all_of(userInfo.begin(), userInfo.end(),
                        [](const Dictionary::Entry& entry) { return entry.first.isText(); })) {
            // The usual user info, keyed by text only: written as it stands.
            text = JSONSerialization::data(userInfo, sorted);
        } else {
            // JSON keys are text: every key is replaced by its description. Setting a key that
            // is already there replaces its value, so of two keys that describe alike the later
            // wins.
            Dictionary byText;
            byText.reserve(userInfo.size());
            for (const auto& [key, value] : userInfo) {
                byText.set(key.description(), value);
            }
            text = JSONSerialization::data(byText, sorted);
        }
        if (!text || !platform::isValidUTF8(*text)) {
            return kFallback;
        }
        return std::move(*text);
    } catch (...) {
        return kFallback;
    }
}

std::optional<platform::Dictionary> ApnsNotificationMapper::decodeUserInfoJson(
    std::string_view text) noexcept {
    try {
        if (text.empty() || !platform::isValidUTF8(text)) {
            return std::nullopt;
        }
        std::optional<Value> root = JSONSerialization::jsonObject(text);
        if (!root) {
            return std::nullopt;
        }
        Dictionary* dictionary = root->dictionary();
        // An empty object is what encodeUserInfoJson writes when it fails: it carries nothing.
        if (dictionary == nullptr || dictionary->empty()) {
            return std::nullopt;
        }
        return std::move(*dictionary);
    } catch (...) {
        return std::nullopt;
    }
}

}  // namespace nimborra::apns
