// The request and response records of the eleven "ApnsService" methods. Each is a plain
// value whose JSON form is an object keyed by its field names, in declaration order. Every field
// is required on reading and always written; unknown keys are ignored. A record without fields
// is written as {} and is read from any well-formed JSON value without looking at it.
// `deviceToken` travels with the coders' byte-string form (base64 text).
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#include "NimbOrraCore/Codable.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsNotification.h"
#include "NimbOrraPushAddonApns/ApnsWireEnumerations.h"

namespace nimborra::apns {

struct APNSServiceGetColdStartNotificationRequest {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceGetColdStartNotificationRequest&,
                           const APNSServiceGetColdStartNotificationRequest&) = default;
};

struct APNSServiceGetColdStartNotificationResponse {
    ApnsNotification notification;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"notification", &APNSServiceGetColdStartNotificationResponse::notification},
        };
    }

    friend bool operator==(const APNSServiceGetColdStartNotificationResponse&,
                           const APNSServiceGetColdStartNotificationResponse&) = default;
};

struct APNSServiceGetNotificationSettingsRequest {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceGetNotificationSettingsRequest&,
                           const APNSServiceGetNotificationSettingsRequest&) = default;
};

struct APNSServiceGetNotificationSettingsResponse {
    UNAuthorizationStatus authorizationStatus = UNAuthorizationStatus::unspecified;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"authorizationStatus",
                        &APNSServiceGetNotificationSettingsResponse::authorizationStatus},
        };
    }

    friend bool operator==(const APNSServiceGetNotificationSettingsResponse&,
                           const APNSServiceGetNotificationSettingsResponse&) = default;
};

struct APNSServiceGetProviderEnvironmentRequest {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceGetProviderEnvironmentRequest&,
                           const APNSServiceGetProviderEnvironmentRequest&) = default;
};

struct APNSServiceGetProviderEnvironmentResponse {
    ProviderEnvironment environment = ProviderEnvironment::unspecified;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"environment", &APNSServiceGetProviderEnvironmentResponse::environment},
        };
    }

    friend bool operator==(const APNSServiceGetProviderEnvironmentResponse&,
                           const APNSServiceGetProviderEnvironmentResponse&) = default;
};

struct APNSServiceGetTokenRequest {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceGetTokenRequest&,
                           const APNSServiceGetTokenRequest&) = default;
};

struct APNSServiceGetTokenResponse {
    std::string token;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"token", &APNSServiceGetTokenResponse::token},
        };
    }

    friend bool operator==(const APNSServiceGetTokenResponse&,
                           const APNSServiceGetTokenResponse&) = default;
};

struct APNSServiceNotifyColdStartNotificationRequest {
    std::string userInfoJson;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"userInfoJson",
                        &APNSServiceNotifyColdStartNotificationRequest::userInfoJson},
        };
    }

    friend bool operator==(const APNSServiceNotifyColdStartNotificationRequest&,
                           const APNSServiceNotifyColdStartNotificationRequest&) = default;
};

struct APNSServiceNotifyColdStartNotificationResponse {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceNotifyColdStartNotificationResponse&,
                           const APNSServiceNotifyColdStartNotificationResponse&) = default;
};

struct APNSServiceNotifyDidFailToRegisterRequest {
    std::string errorDescription;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"errorDescription",
                        &APNSServiceNotifyDidFailToRegisterRequest::errorDescription},
        };
    }

    friend bool operator==(const APNSServiceNotifyDidFailToRegisterRequest&,
                           const APNSServiceNotifyDidFailToRegisterRequest&) = default;
};

struct APNSServiceNotifyDidFailToRegisterResponse {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceNotifyDidFailToRegisterResponse&,
                           const APNSServiceNotifyDidFailToRegisterResponse&) = default;
};

struct APNSServiceNotifyDidReceiveResponseRequest {
    ApnsNotification notification;
    std::string actionIdentifier;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"notification", &APNSServiceNotifyDidReceiveResponseRequest::notification},
            CodingField{"actionIdentifier",
                        &APNSServiceNotifyDidReceiveResponseRequest::actionIdentifier},
        };
    }

    friend bool operator==(const APNSServiceNotifyDidReceiveResponseRequest&,
                           const APNSServiceNotifyDidReceiveResponseRequest&) = default;
};

struct APNSServiceNotifyDidReceiveResponseResponse {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceNotifyDidReceiveResponseResponse&,
                           const APNSServiceNotifyDidReceiveResponseResponse&) = default;
};

struct APNSServiceNotifyDidRegisterForRemoteNotificationsRequest {
    platform::Data deviceToken;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"deviceToken",
                        &APNSServiceNotifyDidRegisterForRemoteNotificationsRequest::deviceToken},
        };
    }

    friend bool operator==(const APNSServiceNotifyDidRegisterForRemoteNotificationsRequest&,
                           const APNSServiceNotifyDidRegisterForRemoteNotificationsRequest&) =
        default;
};

struct APNSServiceNotifyDidRegisterForRemoteNotificationsResponse {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceNotifyDidRegisterForRemoteNotificationsResponse&,
                           const APNSServiceNotifyDidRegisterForRemoteNotificationsResponse&) =
        default;
};

struct APNSServiceNotifyWillPresentNotificationRequest {
    ApnsNotification notification;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"notification",
                        &APNSServiceNotifyWillPresentNotificationRequest::notification},
        };
    }

    friend bool operator==(const APNSServiceNotifyWillPresentNotificationRequest&,
                           const APNSServiceNotifyWillPresentNotificationRequest&) = default;
};

struct APNSServiceNotifyWillPresentNotificationResponse {
    std::vector<UNNotificationPresentationOption> presentationOptions;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"presentationOptions",
                        &APNSServiceNotifyWillPresentNotificationResponse::presentationOptions},
        };
    }

    friend bool operator==(const APNSServiceNotifyWillPresentNotificationResponse&,
                           const APNSServiceNotifyWillPresentNotificationResponse&) = default;
};

struct APNSServiceRequestAuthorizationRequest {
    std::vector<UNAuthorizationOption> options;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"options", &APNSServiceRequestAuthorizationRequest::options},
        };
    }

    friend bool operator==(const APNSServiceRequestAuthorizationRequest&,
                           const APNSServiceRequestAuthorizationRequest&) = default;
};

struct APNSServiceRequestAuthorizationResponse {
    bool granted = false;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"granted", &APNSServiceRequestAuthorizationResponse::granted},
        };
    }

    friend bool operator==(const APNSServiceRequestAuthorizationResponse&,
                           const APNSServiceRequestAuthorizationResponse&) = default;
};

struct APNSServiceSetBadgeCountRequest {
    std::int32_t count = 0;

    static constexpr auto codingFields() {
        using core::CodingField;
        return std::tuple{
            CodingField{"count", &APNSServiceSetBadgeCountRequest::count},
        };
    }

    friend bool operator==(const APNSServiceSetBadgeCountRequest&,
                           const APNSServiceSetBadgeCountRequest&) = default;
};

struct APNSServiceSetBadgeCountResponse {
    static constexpr auto codingFields() { return std::tuple<>{}; }

    friend bool operator==(const APNSServiceSetBadgeCountResponse&,
                           const APNSServiceSetBadgeCountResponse&) = default;
};

}  // namespace nimborra::apns
