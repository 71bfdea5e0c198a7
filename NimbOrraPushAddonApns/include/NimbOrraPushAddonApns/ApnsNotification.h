// The one record that carries a notification across the bridge: a flat, platform-neutral copy
// of the parts of a notification's content that the far side needs. Absent values are the empty
// text, 0 and `unspecified`; every field is always written and always required on reading.
// `userInfoJson` is text that holds the whole user-info dictionary as JSON; this record neither
// parses nor checks it. A plain value.
#pragma once

#include <cstdint>
#include <string>
#include <tuple>

#include "NimbOrraCore/Codable.h"
#include "NimbOrraPushAddonApns/ApnsWireEnumerations.h"

namespace nimborra::apns {

struct ApnsNotification {
    std::string title;
    std::string subtitle;
    std::string body;
    std::int32_t badge = 0;
    std::string sound;
    std::string categoryIdentifier;
    std::string threadIdentifier;
    std::string launchImageName;
    std::string targetContentIdentifier;
    UNNotificationInterruptionLevel interruptionLevel =
        UNNotificationInterruptionLevel::unspecified;
    double relevanceScore = 0;
    std::string userInfoJson;

    static constexpr auto codingFields() {
        using core::CodingField;
        using N = ApnsNotification;
        return std::tuple{
            CodingField{"title", &N::title},
            CodingField{"subtitle", &N::subtitle},
            CodingField{"body", &N::body},
            CodingField{"badge", &N::badge},
            CodingField{"sound", &N::sound},
            CodingField{"categoryIdentifier", &N::categoryIdentifier},
            CodingField{"threadIdentifier", &N::threadIdentifier},
            CodingField{"launchImageName", &N::launchImageName},
            CodingField{"targetContentIdentifier", &N::targetContentIdentifier},
            CodingField{"interruptionLevel", &N::interruptionLevel},
            CodingField{"relevanceScore", &N::relevanceScore},
            CodingField{"userInfoJson", &N::userInfoJson},
        };
    }

    friend bool operator==(const ApnsNotification&, const ApnsNotification&) = default;
};

}  // namespace nimborra::apns
