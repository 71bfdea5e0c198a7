// The result of one adapter operation: the method's response record (`success`), an outcome
// this library does not model (`unknown`: a code word and the outcome's data as JSON text), or
// a failure (`failure`: the core error record). One result type per method, all alike. They are
// in-memory values between the adapter and the plug-in; they have no JSON form of their own.
#pragma once

#include <string>
#include <utility>
#include <variant>

#include "NimbOrraCore/NimbError.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"

namespace nimborra::apns {

// The `unknown` alternative. `rawJson` is meant to hold a JSON document but is not checked here.
struct ApnsServiceUnknownOutcome {
    std::string code;
    std::string rawJson;
    friend bool operator==(const ApnsServiceUnknownOutcome&,
                           const ApnsServiceUnknownOutcome&) = default;
};

template <class Response>
class [[nodiscard]] ApnsServiceResult {
  public:
    using ResponseType = Response;

    static ApnsServiceResult success(Response response) {
        return ApnsServiceResult(std::in_place_index<0>, std::move(response));
    }
    static ApnsServiceResult unknown(std::string code, std::string rawJson) {
        return ApnsServiceResult(std::in_place_index<1>,
                                 ApnsServiceUnknownOutcome{std::move(code), std::move(rawJson)});
    }
    static ApnsServiceResult failure(core::NimbError problem) {
        return ApnsServiceResult(std::in_place_index<2>, std::move(problem));
    }

    // The alternative held, or nullptr.
    const Response* successValue() const { return std::get_if<0>(&storage_); }
    const ApnsServiceUnknownOutcome* unknownValue() const { return std::get_if<1>(&storage_); }
    const core::NimbError* problem() const { return std::get_if<2>(&storage_); }

    bool isSuccess() const { return storage_.index() == 0; }
    bool isUnknown() const { return storage_.index() == 1; }
    bool isFailure() const { return storage_.index() == 2; }

    friend bool operator==(const ApnsServiceResult&, const ApnsServiceResult&) = default;

  private:
    template <std::size_t I, class T>
    ApnsServiceResult(std::in_place_index_t<I> tag, T&& value)
        : storage_(tag, std::forward<T>(value)) {}

    std::variant<Response, ApnsServiceUnknownOutcome, core::NimbError> storage_;
};

using ApnsServiceGetTokenResult = ApnsServiceResult<APNSServiceGetTokenResponse>;
using ApnsServiceGetProviderEnvironmentResult =
    ApnsServiceResult<APNSServiceGetProviderEnvironmentResponse>;
using ApnsServiceGetColdStartNotificationResult =
    ApnsServiceResult<APNSServiceGetColdStartNotificationResponse>;
using ApnsServiceRequestAuthorizationResult =
    ApnsServiceResult<APNSServiceRequestAuthorizationResponse>;
using ApnsServiceSetBadgeCountResult = ApnsServiceResult<APNSServiceSetBadgeCountResponse>;
using ApnsServiceGetNotificationSettingsResult =
    ApnsServiceResult<APNSServiceGetNotificationSettingsResponse>;
using ApnsServiceNotifyDidRegisterForRemoteNotificationsResult =
    ApnsServiceResult<APNSServiceNotifyDidRegisterForRemoteNotificationsResponse>;
using ApnsServiceNotifyDidFailToRegisterResult =
    ApnsServiceResult<APNSServiceNotifyDidFailToRegisterResponse>;
using ApnsServiceNotifyWillPresentNotificationResult =
    ApnsServiceResult<APNSServiceNotifyWillPresentNotificationResponse>;
using ApnsServiceNotifyDidReceiveResponseResult =
    ApnsServiceResult<APNSServiceNotifyDidReceiveResponseResponse>;
using ApnsServiceNotifyColdStartNotificationResult =
    ApnsServiceResult<APNSServiceNotifyColdStartNotificationResponse>;

}  // namespace nimborra::apns
