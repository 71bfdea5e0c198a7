// Calls through the registered "ApnsService" plug-in, from callAsync to the reply callback,
// beside the floor that any queued call pays: one work item posted to one of our serial queues
// and waited for. Both sides wait the same way (a semaphore released by the last callback).
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <string>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

namespace nimborra::bench {
namespace {

using namespace apns;

constexpr char kMethod[] = "SetBadgeCount";
constexpr char kPayload[] = R"({"count":1})";
constexpr char kExpectedReply[] = R"({"success":{}})";
constexpr std::int64_t kPipelinedCalls = 100'000;

// An adapter whose every operation answers at once with an empty success.
class InstantAdapter final : public ApnsServiceNativeAdapter {
  public:
    ApnsServiceGetTokenResult getToken(APNSServiceGetTokenRequest) override {
        return ApnsServiceGetTokenResult::success({"token"});
    }
    ApnsServiceGetProviderEnvironmentResult getProviderEnvironment(
        APNSServiceGetProviderEnvironmentRequest) override {
        return ApnsServiceGetProviderEnvironmentResult::success({ProviderEnvironment::apns});
    }
    ApnsServiceGetColdStartNotificationResult getColdStartNotification(
        APNSServiceGetColdStartNotificationRequest) override {
        return ApnsServiceGetColdStartNotificationResult::success({});
    }
    ApnsServiceRequestAuthorizationResult requestAuthorization(
        APNSServiceRequestAuthorizationRequest) override {
        return ApnsServiceRequestAuthorizationResult::success({true});
    }
    ApnsServiceSetBadgeCountResult setBadgeCount(APNSServiceSetBadgeCountRequest) override {
        return ApnsServiceSetBadgeCountResult::success({});
    }
    ApnsServiceGetNotificationSettingsResult getNotificationSettings(
        APNSServiceGetNotificationSettingsRequest) override {
        return ApnsServiceGetNotificationSettingsResult::success(
            {UNAuthorizationStatus::authorized});
    }
    ApnsServiceNotifyDidRegisterForRemoteNotificationsResult
    notifyDidRegisterForRemoteNotifications(
        APNSServiceNotifyDidRegisterForRemoteNotificationsRequest) override {
        return ApnsServiceNotifyDidRegisterForRemoteNotificationsResult::success({});
    }
    ApnsServiceNotifyDidFailToRegisterResult notifyDidFailToRegister(
        APNSServiceNotifyDidFailToRegisterRequest) override {
        return ApnsServiceNotifyDidFailToRegisterResult::success({});
    }
    ApnsServiceNotifyWillPresentNotificationResult notifyWillPresentNotification(
        APNSServiceNotifyWillPresentNotificationRequest) override {
        return ApnsServiceNotifyWillPresentNotificationResult::success({});
    }
    ApnsServiceNotifyDidReceiveResponseResult notifyDidReceiveResponse(
        APNSServiceNotifyDidReceiveResponseRequest) override {
        return ApnsServiceNotifyDidReceiveResponseResult::success({});
    }
    ApnsServiceNotifyColdStartNotificationResult notifyColdStartNotification(
        APNSServiceNotifyColdStartNotificationRequest) override {
        return ApnsServiceNotifyColdStartNotificationResult::success({});
    }
    void onCancel(std::int64_t) override {}
};

// Registers the plug-in around the instant adapter, once, and looks it up the way the bridge
// does. Checks that the call being measured really answers with success.
std::shared_ptr<core::OrraPlugin> registeredPlugin(benchmark::State& state) {
    static const std::shared_ptr<core::OrraPlugin> plugin = [] {
        ApnsServicePlugin::registerPlugin(std::make_shared<InstantAdapter>());
        return core::OrraBridgeDispatcher::shared().plugin(ApnsServicePlugin::name);
    }();
    if (!plugin) {
        state.SkipWithError("the plug-in is not registered");
        return nullptr;
    }
    std::binary_semaphore answered{0};
    std::string reply;
    plugin->callAsync(kMethod, kPayload, [&](std::string text) {
        reply = std::move(text);
        answered.release();
    });
    answered.acquire();
    if (reply != kExpectedReply) {
        state.SkipWithError(("unexpected reply: " + reply).c_str());
        return nullptr;
    }
    return plugin;
}

void RoundTripPlugin(benchmark::State& state) {
    const auto plugin = registeredPlugin(state);
    if (!plugin) {
        return;
    }
    std::binary_semaphore answered{0};
    for (auto _ : state) {
        plugin->callAsync(kMethod, kPayload, [&answered](std::string) { answered.release(); });
        answered.acquire();
    }
}

void RoundTripQueueFloor(benchmark::State& state) {
    platform::DispatchQueue queue("com.nimborra.bench.floor", platform::DispatchQoS::userInitiated);
    std::binary_semaphore answered{0};
    for (auto _ : state) {
        if (!queue.async([&answered] { answered.release(); })) {
            state.SkipWithError("the queue refused a work item");
            return;
        }
        answered.acquire();
    }
}

void PipelinedPlugin(benchmark::State& state) {
    const auto plugin = registeredPlugin(state);
    if (!plugin) {
        return;
    }
    for (auto _ : state) {
        std::atomic<std::int64_t> remaining{kPipelinedCalls};
        std::binary_semaphore allAnswered{0};
        for (std::int64_t i = 0; i < kPipelinedCalls; ++i) {
            plugin->callAsync(kMethod, kPayload, [&](std::string) {
                if (remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                    allAnswered.release();
                }
            });
        }
        allAnswered.acquire();
    }
    state.counters["calls_per_second"] = benchmark::Counter(
        static_cast<double>(kPipelinedCalls), benchmark::Counter::kIsIterationInvariantRate);
}

void PipelinedQueueFloor(benchmark::State& state) {
    platform::DispatchQueue queue("com.nimborra.bench.floor", platform::DispatchQoS::userInitiated);
    bool refused = false;
    for (auto _ : state) {
        std::atomic<std::int64_t> remaining{kPipelinedCalls};
        std::binary_semaphore allAnswered{0};
        const auto countDown = [&] {
            if (remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                allAnswered.release();
            }
        };
        for (std::int64_t i = 0; i < kPipelinedCalls; ++i) {
            if (!queue.async(countDown)) {
                // Counted here instead, so that the wait below still ends.
                refused = true;
                countDown();
            }
        }
        allAnswered.acquire();
    }
    if (refused) {
        state.SkipWithError("the queue refused work items");
        return;
    }
    state.counters["calls_per_second"] = benchmark::Counter(
        static_cast<double>(kPipelinedCalls), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(RoundTripPlugin)->Name("RoundTrip/plugin")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(RoundTripQueueFloor)
    ->Name("RoundTrip/queue_floor")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(PipelinedPlugin)
    ->Name("Pipelined100k/plugin")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(PipelinedQueueFloor)
    ->Name("Pipelined100k/queue_floor")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace nimborra::bench
