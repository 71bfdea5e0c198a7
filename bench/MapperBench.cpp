// Mapping a realistic 1 KiB remote payload into the notification record: map(remotePayload)
// reads the "aps" members and writes the whole payload as userInfoJson with encodeUserInfoJson
// (sorted keys at every level). The baseline does the same with nlohmann::json, starting from
// the same payload already parsed into its own tree (as ours starts from the platform's
// dictionary): the same member reads and a dump, whose std::map objects come out sorted.
#include <benchmark/benchmark.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>

#include "BenchFixtures.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::bench {
namespace {

using namespace apns;
using nlohmann::json;

std::string textMember(const json& object, const char* key) {
    const auto found = object.find(key);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

std::int32_t badgeValue(const json& object) {
    const auto found = object.find("badge");
    if (found == object.end()) {
        return 0;
    }
    constexpr double lowest = std::numeric_limits<std::int32_t>::min();
    constexpr double highest = std::numeric_limits<std::int32_t>::max();
    if (found->is_boolean()) {
        return found->get<bool>() ? 1 : 0;
    }
    if (found->is_number()) {
        const double number = found->get<double>();
        if (std::isnan(number)) {
            return 0;
        }
        return static_cast<std::int32_t>(std::fmin(std::fmax(number, lowest), highest));
    }
    return 0;
}

ApnsNotification mapWithNlohmann(const json& payload) {
    static const json noAps = json::object();
    const auto apsMember = payload.find("aps");
    const json& aps = apsMember != payload.end() && apsMember->is_object() ? *apsMember : noAps;
    ApnsNotification notification;
    if (const auto alert = aps.find("alert"); alert != aps.end()) {
        if (alert->is_object()) {
            notification.title = textMember(*alert, "title");
            notification.subtitle = textMember(*alert, "subtitle");
            notification.body = textMember(*alert, "body");
        } else if (alert->is_string()) {
            notification.body = alert->get<std::string>();
        }
    }
    notification.sound = textMember(aps, "sound");
    if (notification.sound.empty()) {
        if (const auto sound = aps.find("sound"); sound != aps.end() && sound->is_object()) {
            notification.sound = textMember(*sound, "name");
        }
    }
    notification.badge = badgeValue(aps);
    notification.categoryIdentifier = textMember(aps, "category");
    notification.threadIdentifier = textMember(aps, "thread-id");
    notification.targetContentIdentifier = textMember(aps, "target-content-id");
    notification.userInfoJson = payload.dump();
    return notification;
}

void MapOurs(benchmark::State& state) {
    const platform::Dictionary& payload = remotePayload();
    for (auto _ : state) {
        ApnsNotification notification = ApnsNotificationMapper::map(payload);
        benchmark::DoNotOptimize(notification);
    }
}

void MapNlohmann(benchmark::State& state) {
    const json payload = json::parse(remotePayloadText());
    for (auto _ : state) {
        ApnsNotification notification = mapWithNlohmann(payload);
        benchmark::DoNotOptimize(notification);
    }
}

BENCHMARK(MapOurs)->Name("MapRemotePayload1KiB/nimborra");
BENCHMARK(MapNlohmann)->Name("MapRemotePayload1KiB/nlohmann");

}  // namespace
}  // namespace nimborra::bench
