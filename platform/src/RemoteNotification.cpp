#include "NimbOrraPlatform/RemoteNotification.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"

namespace nimborra::platform {

namespace {

constexpr std::array<std::pair<std::string_view, ApplicationState>, 3> kStates{{
    {"foreground", ApplicationState::foreground},
    {"background", ApplicationState::background},
    {"notRunning", ApplicationState::notRunning},
}};

constexpr std::array<std::pair<std::string_view, std::int64_t>, 4> kInterruptionLevels{{
    {"passive", UNNotificationInterruptionLevelPassive},
    {"active", UNNotificationInterruptionLevelActive},
    {"time-sensitive", UNNotificationInterruptionLevelTimeSensitive},
    {"critical", UNNotificationInterruptionLevelCritical},
}};

const std::string* textMember(const Dictionary& dictionary, std::string_view key) {
    const Value* value = dictionary.find(key);
    return value != nullptr ? value->text() : nullptr;
}

std::string textOrEmpty(const Dictionary& dictionary, std::string_view key) {
    const std::string* text = textMember(dictionary, key);
    return text != nullptr ? *text : std::string();
}

// A number's value as a badge count: integers as they are, reals without their fraction and
// clamped to the 64-bit range; nothing for anything that is not a number.
std::optional<std::int64_t> badgeNumber(const Value* value) {
    if (value == nullptr) {
        return std::nullopt;
    }
    if (const auto* integer = value->integer()) {
        return *integer;
    }
    if (value->unsignedInteger() != nullptr) {
        return std::numeric_limits<std::int64_t>::max();
    }
    if (const double* real = value->real(); real != nullptr && !std::isnan(*real)) {
        constexpr double kLimit = 9223372036854775807.0;
        if (*real >= kLimit) {
            return std::numeric_limits<std::int64_t>::max();
        }
        if (*real <= -kLimit) {
            return std::numeric_limits<std::int64_t>::min();
        }
        return static_cast<std::int64_t>(*real);
    }
    return std::nullopt;
}

double numberOrZero(const Value* value) {
    if (value == nullptr) {
        return 0;
    }
    if (const auto* integer = value->integer()) {
        return static_cast<double>(*integer);
    }
    if (const auto* large = value->unsignedInteger()) {
        return static_cast<double>(*large);
    }
    if (const auto* real = value->real()) {
        return *real;
    }
    return 0;
}

// The text a format argument stands for.
std::string argumentText(const Value& argument) {
    if (const std::string* text = argument.text()) {
        return *text;
    }
    JSONWritingOptions options;
    options.fragmentsAllowed = true;
    return JSONSerialization::data(argument, options).value_or(std::string());
}

// An alert text: the localisation key as the format when one is given, else the plain member.
std::string alertText(const Dictionary& alert, std::string_view member, std::string_view locKey,
                      std::string_view locArgs) {
    if (const std::string* key = textMember(alert, locKey)) {
        const Value* arguments = alert.find(locArgs);
        return localizedFormat(*key, arguments != nullptr ? arguments->array() : nullptr);
    }
    return textOrEmpty(alert, member);
}

const Dictionary& apsOf(const Dictionary& payload) {
    static const Dictionary* const kNone = new Dictionary;
    const Value* aps = payload.find("aps");
    const Dictionary* dictionary = aps != nullptr ? aps->dictionary() : nullptr;
    return dictionary != nullptr ? *dictionary : *kNone;
}

}  // namespace

std::string_view applicationStateName(ApplicationState state) {
    for (const auto& [name, candidate] : kStates) {
        if (candidate == state) {
            return name;
        }
    }
    return "foreground";
}

std::optional<ApplicationState> applicationStateNamed(std::string_view name) {
    for (const auto& [candidateName, state] : kStates) {
        if (candidateName == name) {
            return state;
        }
    }
    return std::nullopt;
}

std::optional<std::size_t> compactPayloadSize(const Value& payload) {
    const auto json = JSONSerialization::data(payload);
    if (!json) {
        return std::nullopt;
    }
    // The platform's writer escapes every "/" as "\/", which a provider does not; every "/" in
    // the text is such an escape, so each costs one byte less as sent.
    return json->size() - static_cast<std::size_t>(std::count(json->begin(), json->end(), '/'));
}

std::variant<Dictionary, std::string> acceptRemoteNotificationPayload(const Value& payload) {
    const Dictionary* dictionary = payload.dictionary();
    if (dictionary == nullptr) {
        return std::string("the payload must be a JSON object");
    }
    const Value* aps = dictionary->find("aps");
    if (aps != nullptr && aps->dictionary() == nullptr) {
        return std::string("\"aps\" must be an object");
    }
    const auto size = compactPayloadSize(payload);
    if (!size) {
        return std::string("the payload cannot be written as JSON");
    }
    if (*size > kRemoteNotificationPayloadLimit) {
        return "the payload is " + std::to_string(*size) + " bytes of compact JSON; at most " +
               std::to_string(kRemoteNotificationPayloadLimit) + " are delivered";
    }
    return *dictionary;
}

std::string localizedFormat(std::string_view format, const Array* arguments) {
    const auto argument = [arguments](std::size_t index) {
        return arguments != nullptr && index < arguments->size() ? argumentText((*arguments)[index])
                                                                 : std::string();
    };
    std::string out;
    std::size_t sequential = 0;
    std::size_t index = 0;
    while (index < format.size()) {
        const char c = format[index];
        if (c != '%' || index + 1 == format.size()) {
            out.push_back(c);
            ++index;
            continue;
        }
        const std::string_view rest = format.substr(index + 1);
        if (rest.front() == '%') {
            out.push_back('%');
            index += 2;
            continue;
        }
        if (rest.front() == '@') {
            out += argument(sequential++);
            index += 2;
            continue;
        }
        // "%n$@": a positional argument, counted from 1.
        std::size_t digits = 0;
        std::size_t position = 0;
        while (digits < rest.size() && digits < 9 && rest[digits] >= '0' && rest[digits] <= '9') {
            position = position * 10 + static_cast<std::size_t>(rest[digits] - '0');
            ++digits;
        }
        if (digits > 0 && position > 0 && rest.substr(digits).starts_with("$@")) {
            out += argument(position - 1);
            index += 1 + digits + 2;
            continue;
        }
        out.push_back(c);
        ++index;
    }
    return out;
}

UNNotificationContent remoteNotificationContent(const Dictionary& payload) {
    return remoteNotificationContent(Dictionary(payload));
}

UNNotificationContent remoteNotificationContent(Dictionary&& payload) {
    const Dictionary& aps = apsOf(payload);
    UNNotificationContent content;
    if (const Value* alert = aps.find("alert")) {
        if (const std::string* text = alert->text()) {
            content.body = *text;
        } else if (const Dictionary* fields = alert->dictionary()) {
            content.title = alertText(*fields, "title", "title-loc-key", "title-loc-args");
            content.subtitle =
                alertText(*fields, "subtitle", "subtitle-loc-key", "subtitle-loc-args");
            content.body = alertText(*fields, "body", "loc-key", "loc-args");
            content.launchImageName = textOrEmpty(*fields, "launch-image");
        }
    }
    content.badge = badgeNumber(aps.find("badge"));
    if (const Value* sound = aps.find("sound")) {
        if (const std::string* name = sound->text()) {
            content.sound = *name;
        } else if (const Dictionary* critical = sound->dictionary()) {
            if (const std::string* name = textMember(*critical, "name")) {
                content.sound = *name;
            }
        }
    }
    content.categoryIdentifier = textOrEmpty(aps, "category");
    content.threadIdentifier = textOrEmpty(aps, "thread-id");
    if (const std::string* target = textMember(aps, "target-content-id")) {
        content.targetContentIdentifier = *target;
    }
    content.interruptionLevel = UNNotificationInterruptionLevelActive;
    if (const std::string* level = textMember(aps, "interruption-level")) {
        for (const auto& [name, raw] : kInterruptionLevels) {
            if (name == *level) {
                content.interruptionLevel = raw;
            }
        }
    }
    content.relevanceScore = numberOrZero(aps.find("relevance-score"));
    content.userInfo = std::move(payload);
    return content;
}

bool isVisibleRemoteNotification(const Dictionary& payload) {
    const Dictionary& aps = apsOf(payload);
    return aps.contains("alert") || aps.contains("badge") || aps.contains("sound");
}

bool authorizationStatusShowsNotifications(std::int64_t rawStatus) {
    return rawStatus == UNAuthorizationStatusAuthorized ||
           rawStatus == UNAuthorizationStatusProvisional ||
           rawStatus == UNAuthorizationStatusEphemeral;
}

std::string_view remoteNotificationCallbackName(RemoteNotificationCallback callback) {
    switch (callback) {
        case RemoteNotificationCallback::didFinishLaunching:
            return "didFinishLaunching";
        case RemoteNotificationCallback::willPresent:
            return "willPresent";
        case RemoteNotificationCallback::didReceiveResponse:
            return "didReceiveResponse";
    }
    return "";
}

}  // namespace nimborra::platform
