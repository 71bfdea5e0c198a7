// The wire enumerations that travel inside the "ApnsService" records. They are this library's
// own types, not the platform's: each begins with `unspecified` (0), which stands for a value
// that was not set or not recognised. On the wire each is its integer raw value; decoding maps
// an integer that names no case to `unspecified` instead of failing, while construction from a
// raw value (nimborra::core::fromRawValue) is strict. Each traits specialisation also names the
// cases, in raw-value order, as the Swift-style names the far side sees in documentation.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "NimbOrraCore/Codable.h"

namespace nimborra::apns {

// The APNs environment that the application is entitled to.
enum class ProviderEnvironment : std::int64_t { unspecified, apns, apnsSandbox };

// One option of an authorization request.
enum class UNAuthorizationOption : std::int64_t {
    unspecified,
    badge,
    sound,
    alert,
    carPlay,
    criticalAlert,
    providesAppNotificationSettings,
    provisional,
};

// The application's notification authorization.
enum class UNAuthorizationStatus : std::int64_t {
    unspecified,
    notDetermined,
    denied,
    authorized,
    provisional,
    ephemeral,
};

// How urgently a notification may interrupt.
enum class UNNotificationInterruptionLevel : std::int64_t {
    unspecified,
    passive,
    active,
    timeSensitive,
    critical,
};

// One way of presenting a notification while the application is in the foreground.
enum class UNNotificationPresentationOption : std::int64_t {
    unspecified,
    badge,
    sound,
    list,
    banner,
};

}  // namespace nimborra::apns

namespace nimborra::core {

template <>
struct WireEnumTraits<apns::ProviderEnvironment> {
    static constexpr std::int64_t caseCount = 3;
    static constexpr std::array<std::string_view, caseCount> caseNames{"unspecified", "apns",
                                                                       "apnsSandbox"};
};
template <>
struct WireEnumTraits<apns::UNAuthorizationOption> {
    static constexpr std::int64_t caseCount = 8;
    static constexpr std::array<std::string_view, caseCount> caseNames{
        "unspecified",
        "badge",
        "sound",
        "alert",
        "carPlay",
        "criticalAlert",
        "providesAppNotificationSettings",
        "provisional"};
};
template <>
struct WireEnumTraits<apns::UNAuthorizationStatus> {
    static constexpr std::int64_t caseCount = 6;
    static constexpr std::array<std::string_view, caseCount> caseNames{
        "unspecified", "notDetermined", "denied", "authorized", "provisional", "ephemeral"};
};
template <>
struct WireEnumTraits<apns::UNNotificationInterruptionLevel> {
    static constexpr std::int64_t caseCount = 5;
    static constexpr std::array<std::string_view, caseCount> caseNames{
        "unspecified", "passive", "active", "timeSensitive", "critical"};
};
template <>
struct WireEnumTraits<apns::UNNotificationPresentationOption> {
    static constexpr std::int64_t caseCount = 5;
    static constexpr std::array<std::string_view, caseCount> caseNames{"unspecified", "badge",
                                                                       "sound", "list", "banner"};
};

}  // namespace nimborra::core
