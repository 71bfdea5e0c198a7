// The plug-in's coding work for one call, and the opened-event payload, each beside
// nlohmann::json doing the same work on the same texts.
//
// Request decoding and reply encoding, for every method: the request text is decoded into its
// record (every field required and type-checked) and the success reply for the call is written
// from its response record. The baseline parses the same text with nlohmann::json, reads every
// field with checked accessors into the same record and dumps the same reply.
//
// Event payload: makeNotificationEventPayload for a full notification and an action identifier,
// against the literal three-step route with nlohmann::json: encode the record (members in
// declaration order), parse that text back, write the wrapper with sorted keys.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "BenchFixtures.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServiceResults.h"

namespace nimborra::bench {
namespace {

using namespace apns;
using nlohmann::json;
using nlohmann::ordered_json;

constexpr char kRequestAuthorizationText[] = R"({"options":[1,2,3,7]})";

// ---- nlohmann::json doing the same work -------------------------------------------------------

ApnsNotification notificationFromJSON(const json& object) {
    ApnsNotification notification;
    notification.title = object.at("title").get<std::string>();
    notification.subtitle = object.at("subtitle").get<std::string>();
    notification.body = object.at("body").get<std::string>();
    notification.badge = object.at("badge").get<std::int32_t>();
    notification.sound = object.at("sound").get<std::string>();
    notification.categoryIdentifier = object.at("categoryIdentifier").get<std::string>();
    notification.threadIdentifier = object.at("threadIdentifier").get<std::string>();
    notification.launchImageName = object.at("launchImageName").get<std::string>();
    notification.targetContentIdentifier = object.at("targetContentIdentifier").get<std::string>();
    notification.interruptionLevel = core::fromWireValue<UNNotificationInterruptionLevel>(
        object.at("interruptionLevel").get<std::int64_t>());
    notification.relevanceScore = object.at("relevanceScore").get<double>();
    notification.userInfoJson = object.at("userInfoJson").get<std::string>();
    return notification;
}

ordered_json notificationToJSON(const ApnsNotification& n) {
    ordered_json object;
    object["title"] = n.title;
    object["subtitle"] = n.subtitle;
    object["body"] = n.body;
    object["badge"] = n.badge;
    object["sound"] = n.sound;
    object["categoryIdentifier"] = n.categoryIdentifier;
    object["threadIdentifier"] = n.threadIdentifier;
    object["launchImageName"] = n.launchImageName;
    object["targetContentIdentifier"] = n.targetContentIdentifier;
    object["interruptionLevel"] = core::rawValue(n.interruptionLevel);
    object["relevanceScore"] = n.relevanceScore;
    object["userInfoJson"] = n.userInfoJson;
    return object;
}

// ---- Request decoding and reply encoding -------------------------------------------------------

// One method's coding work: the request text it receives and the success response it answers
// with (built once, outside the timed loop, on both sides).
template <class Request, class Response>
struct MethodCase {
    std::string requestText;
    Response response;
    // The baseline's reading of the request and writing of the response record.
    Request (*readRequest)(const json& parsed);
    ordered_json (*writeResponse)(const Response& response);
};

template <class Request, class Response>
void decodeEncodeOurs(benchmark::State& state, const MethodCase<Request, Response>& method) {
    const auto result = ApnsServiceResult<Response>::success(method.response);
    {
        auto request = core::OrraJSONCoding::makeDecoder().decode<Request>(method.requestText);
        auto reply = ApnsOutcomeEnvelope::reply(result);
        const std::string expected =
            ordered_json{{"success", method.writeResponse(method.response)}}.dump();
        if (!request.ok() ||
            request.value() != method.readRequest(json::parse(method.requestText)) || !reply.ok() ||
            json::parse(reply.value()) != json::parse(expected)) {
            state.SkipWithError("the request or the reply differs from the baseline's");
            return;
        }
    }
    for (auto _ : state) {
        auto request = core::OrraJSONCoding::makeDecoder().decode<Request>(method.requestText);
        benchmark::DoNotOptimize(request);
        auto reply = ApnsOutcomeEnvelope::reply(result);
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(state.iterations() *
                            static_cast<std::int64_t>(method.requestText.size()));
}

template <class Request, class Response>
void decodeEncodeNlohmann(benchmark::State& state, const MethodCase<Request, Response>& method) {
    for (auto _ : state) {
        const json parsed = json::parse(method.requestText);
        Request request = method.readRequest(parsed);
        benchmark::DoNotOptimize(request);
        std::string reply = ordered_json{{"success", method.writeResponse(method.response)}}.dump();
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(state.iterations() *
                            static_cast<std::int64_t>(method.requestText.size()));
}

template <class Request, class Response>
void registerMethod(const std::string& name, MethodCase<Request, Response> method) {
    auto shared = std::make_shared<const MethodCase<Request, Response>>(std::move(method));
    benchmark::RegisterBenchmark(
        ("DecodeEncode." + name + "/nimborra").c_str(),
        [shared](benchmark::State& state) { decodeEncodeOurs(state, *shared); });
    benchmark::RegisterBenchmark(
        ("DecodeEncode." + name + "/nlohmann").c_str(),
        [shared](benchmark::State& state) { decodeEncodeNlohmann(state, *shared); });
}

template <class Request>
Request readNothing(const json& parsed) {
    // A request without fields is read from any JSON value.
    benchmark::DoNotOptimize(parsed);
    return Request{};
}

template <class Response>
ordered_json writeNothing(const Response&) {
    return ordered_json::object();
}

std::vector<UNAuthorizationOption> optionsFromJSON(const json& options) {
    std::vector<UNAuthorizationOption> read;
    read.reserve(options.size());
    for (const json& option : options) {
        read.push_back(core::fromWireValue<UNAuthorizationOption>(option.get<std::int64_t>()));
    }
    return read;
}

// The device token as the system hands it over: 32 bytes, base64 on the wire.
const platform::Data& deviceToken() {
    static const platform::Data token = [] {
        platform::Data data;
        for (std::uint8_t i = 0; i < 32; ++i) {
            data.bytes.push_back(static_cast<std::uint8_t>(0x5C + i * 37));
        }
        return data;
    }();
    return token;
}

template <class Record>
std::string encoded(const Record& record) {
    return core::OrraJSONCoding::makeEncoder().encode(record).value();
}

// Every method of the plug-in, each with a request and a success response as the far side and
// the system produce them.
[[maybe_unused]] const bool registered = [] {
    registerMethod<APNSServiceGetTokenRequest, APNSServiceGetTokenResponse>(
        "GetToken", {"{}",
                     {"5c1f0a9e3b7d2c4f8e6a1b0d9c3e7f2a5b8d0c1e4f7a2b6d9e0c3f5a8b1d4e7c"},
                     readNothing<APNSServiceGetTokenRequest>,
                     [](const APNSServiceGetTokenResponse& r) {
                         return ordered_json{{"token", r.token}};
                     }});
    registerMethod<APNSServiceGetProviderEnvironmentRequest,
                   APNSServiceGetProviderEnvironmentResponse>(
        "GetProviderEnvironment",
        {"{}",
         {ProviderEnvironment::apnsSandbox},
         readNothing<APNSServiceGetProviderEnvironmentRequest>,
         [](const APNSServiceGetProviderEnvironmentResponse& r) {
             return ordered_json{{"environment", core::rawValue(r.environment)}};
         }});
    registerMethod<APNSServiceGetColdStartNotificationRequest,
                   APNSServiceGetColdStartNotificationResponse>(
        "GetColdStartNotification",
        {"{}",
         {fullNotification()},
         readNothing<APNSServiceGetColdStartNotificationRequest>,
         [](const APNSServiceGetColdStartNotificationResponse& r) {
             return ordered_json{{"notification", notificationToJSON(r.notification)}};
         }});
    registerMethod<APNSServiceRequestAuthorizationRequest, APNSServiceRequestAuthorizationResponse>(
        "RequestAuthorization",
        {kRequestAuthorizationText,
         {true},
         [](const json& parsed) {
             return APNSServiceRequestAuthorizationRequest{optionsFromJSON(parsed.at("options"))};
         },
         [](const APNSServiceRequestAuthorizationResponse& r) {
             return ordered_json{{"granted", r.granted}};
         }});
    registerMethod<APNSServiceSetBadgeCountRequest, APNSServiceSetBadgeCountResponse>(
        "SetBadgeCount",
        {R"({"count":12})",
         {},
         [](const json& parsed) {
             return APNSServiceSetBadgeCountRequest{parsed.at("count").get<std::int32_t>()};
         },
         writeNothing<APNSServiceSetBadgeCountResponse>});
    registerMethod<APNSServiceGetNotificationSettingsRequest,
                   APNSServiceGetNotificationSettingsResponse>(
        "GetNotificationSettings",
        {"{}",
         {UNAuthorizationStatus::authorized},
         readNothing<APNSServiceGetNotificationSettingsRequest>,
         [](const APNSServiceGetNotificationSettingsResponse& r) {
             return ordered_json{{"authorizationStatus", core::rawValue(r.authorizationStatus)}};
         }});
    registerMethod<APNSServiceNotifyDidRegisterForRemoteNotificationsRequest,
                   APNSServiceNotifyDidRegisterForRemoteNotificationsResponse>(
        "NotifyDidRegisterForRemoteNotifications",
        {encoded(APNSServiceNotifyDidRegisterForRemoteNotificationsRequest{deviceToken()}),
         {},
         [](const json& parsed) {
             // nlohmann::json has no base64: both sides use the platform's decoder.
             auto bytes = platform::base64DecodedData(parsed.at("deviceToken").get<std::string>());
             return APNSServiceNotifyDidRegisterForRemoteNotificationsRequest{
                 platform::Data{bytes.value()}};
         },
         writeNothing<APNSServiceNotifyDidRegisterForRemoteNotificationsResponse>});
    registerMethod<APNSServiceNotifyDidFailToRegisterRequest,
                   APNSServiceNotifyDidFailToRegisterResponse>(
        "NotifyDidFailToRegister",
        {encoded(APNSServiceNotifyDidFailToRegisterRequest{
             "no valid \"aps-environment\" entitlement string found for application"}),
         {},
         [](const json& parsed) {
             return APNSServiceNotifyDidFailToRegisterRequest{
                 parsed.at("errorDescription").get<std::string>()};
         },
         writeNothing<APNSServiceNotifyDidFailToRegisterResponse>});
    registerMethod<APNSServiceNotifyWillPresentNotificationRequest,
                   APNSServiceNotifyWillPresentNotificationResponse>(
        "NotifyWillPresentNotification",
        {encoded(APNSServiceNotifyWillPresentNotificationRequest{fullNotification()}),
         {},
         [](const json& parsed) {
             return APNSServiceNotifyWillPresentNotificationRequest{
                 notificationFromJSON(parsed.at("notification"))};
         },
         [](const APNSServiceNotifyWillPresentNotificationResponse& r) {
             ordered_json options = ordered_json::array();
             for (const auto option : r.presentationOptions) {
                 options.push_back(core::rawValue(option));
             }
             return ordered_json{{"presentationOptions", options}};
         }});
    registerMethod<APNSServiceNotifyDidReceiveResponseRequest,
                   APNSServiceNotifyDidReceiveResponseResponse>(
        "NotifyDidReceiveResponse",
        {encoded(APNSServiceNotifyDidReceiveResponseRequest{fullNotification(), kActionIdentifier}),
         {},
         [](const json& parsed) {
             return APNSServiceNotifyDidReceiveResponseRequest{
                 notificationFromJSON(parsed.at("notification")),
                 parsed.at("actionIdentifier").get<std::string>()};
         },
         writeNothing<APNSServiceNotifyDidReceiveResponseResponse>});
    registerMethod<APNSServiceNotifyColdStartNotificationRequest,
                   APNSServiceNotifyColdStartNotificationResponse>(
        "NotifyColdStartNotification",
        {encoded(APNSServiceNotifyColdStartNotificationRequest{fullNotification().userInfoJson}),
         {},
         [](const json& parsed) {
             return APNSServiceNotifyColdStartNotificationRequest{
                 parsed.at("userInfoJson").get<std::string>()};
         },
         writeNothing<APNSServiceNotifyColdStartNotificationResponse>});
    return true;
}();

// ---- The opened-event payload -------------------------------------------------------------------

void EventPayloadOurs(benchmark::State& state) {
    const ApnsNotification& notification = fullNotification();
    const std::optional<std::string> actionIdentifier = kActionIdentifier;
    if (!makeNotificationEventPayload(notification, actionIdentifier)) {
        state.SkipWithError("no payload for the full notification");
        return;
    }
    for (auto _ : state) {
        auto payload = makeNotificationEventPayload(notification, actionIdentifier);
        benchmark::DoNotOptimize(payload);
    }
}

void EventPayloadNlohmann(benchmark::State& state) {
    const ApnsNotification& notification = fullNotification();
    const std::string actionIdentifier = kActionIdentifier;
    for (auto _ : state) {
        const std::string encoded = notificationToJSON(notification).dump();
        json wrapper;
        wrapper["notification"] = json::parse(encoded);
        wrapper["actionIdentifier"] = actionIdentifier;
        std::string payload = wrapper.dump();
        benchmark::DoNotOptimize(payload);
    }
}

BENCHMARK(EventPayloadOurs)->Name("OpenedEventPayload/nimborra");
BENCHMARK(EventPayloadNlohmann)->Name("OpenedEventPayload/nlohmann_three_steps");

}  // namespace
}  // namespace nimborra::bench
