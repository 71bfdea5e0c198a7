// The plug-in's coding work for one call, and the opened-event payload, each beside
// nlohmann::json doing the same work on the same texts.
//
// Request decoding and reply encoding: the request text is decoded into its record (every field
// required and type-checked) and the success reply for the call is written. The baseline parses
// the same text with nlohmann::json, reads every field with checked accessors into the same
// record and dumps the same reply.
//
// Event payload: makeNotificationEventPayload for a full notification and an action identifier,
// against the literal three-step route with nlohmann::json: encode the record (members in
// declaration order), parse that text back, write the wrapper with sorted keys.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "BenchFixtures.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServiceResults.h"

namespace nimborra::bench {
namespace {

using namespace apns;
using nlohmann::json;
using nlohmann::ordered_json;

const std::string& notifyDidReceiveResponseText() {
    static const std::string text = core::OrraJSONCoding::makeEncoder()
                                        .encode(APNSServiceNotifyDidReceiveResponseRequest{
                                            fullNotification(), kActionIdentifier})
                                        .value();
    return text;
}

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

void DecodeEncodeNotifyDidReceiveResponseOurs(benchmark::State& state) {
    const std::string& text = notifyDidReceiveResponseText();
    {
        auto check =
            core::OrraJSONCoding::makeDecoder().decode<APNSServiceNotifyDidReceiveResponseRequest>(
                text);
        if (!check.ok() || check.value().notification != fullNotification()) {
            state.SkipWithError("the request does not decode to the full notification");
            return;
        }
    }
    for (auto _ : state) {
        auto request =
            core::OrraJSONCoding::makeDecoder().decode<APNSServiceNotifyDidReceiveResponseRequest>(
                text);
        benchmark::DoNotOptimize(request);
        auto reply =
            ApnsOutcomeEnvelope::reply(ApnsServiceNotifyDidReceiveResponseResult::success({}));
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void DecodeEncodeNotifyDidReceiveResponseNlohmann(benchmark::State& state) {
    const std::string& text = notifyDidReceiveResponseText();
    for (auto _ : state) {
        const json parsed = json::parse(text);
        APNSServiceNotifyDidReceiveResponseRequest request{
            notificationFromJSON(parsed.at("notification")),
            parsed.at("actionIdentifier").get<std::string>()};
        benchmark::DoNotOptimize(request);
        std::string reply = json{{"success", json::object()}}.dump();
        benchmark::DoNotOptimize(reply);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
}

void DecodeEncodeRequestAuthorizationOurs(benchmark::State& state) {
    for (auto _ : state) {
        auto request =
            core::OrraJSONCoding::makeDecoder().decode<APNSServiceRequestAuthorizationRequest>(
                kRequestAuthorizationText);
        benchmark::DoNotOptimize(request);
        auto reply =
            ApnsOutcomeEnvelope::reply(ApnsServiceRequestAuthorizationResult::success({true}));
        benchmark::DoNotOptimize(reply);
    }
}

void DecodeEncodeRequestAuthorizationNlohmann(benchmark::State& state) {
    for (auto _ : state) {
        const json parsed = json::parse(kRequestAuthorizationText);
        APNSServiceRequestAuthorizationRequest request;
        const json& options = parsed.at("options");
        request.options.reserve(options.size());
        for (const json& option : options) {
            request.options.push_back(
                core::fromWireValue<UNAuthorizationOption>(option.get<std::int64_t>()));
        }
        benchmark::DoNotOptimize(request);
        std::string reply = json{{"success", {{"granted", true}}}}.dump();
        benchmark::DoNotOptimize(reply);
    }
}

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

BENCHMARK(DecodeEncodeNotifyDidReceiveResponseOurs)
    ->Name("DecodeEncode.NotifyDidReceiveResponse/nimborra");
BENCHMARK(DecodeEncodeNotifyDidReceiveResponseNlohmann)
    ->Name("DecodeEncode.NotifyDidReceiveResponse/nlohmann");
BENCHMARK(DecodeEncodeRequestAuthorizationOurs)->Name("DecodeEncode.RequestAuthorization/nimborra");
BENCHMARK(DecodeEncodeRequestAuthorizationNlohmann)
    ->Name("DecodeEncode.RequestAuthorization/nlohmann");
BENCHMARK(EventPayloadOurs)->Name("OpenedEventPayload/nimborra");
BENCHMARK(EventPayloadNlohmann)->Name("OpenedEventPayload/nlohmann_three_steps");

}  // namespace
}  // namespace nimborra::bench
