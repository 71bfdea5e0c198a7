// Many threads at once: calling the registered production plug-in, with the stand-in center
// answering from its own thread, and capturing and draining the launch notification.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"

namespace nimborra::apns {
namespace {

constexpr int kThreads = 8;
constexpr int kCallsPerThread = 5000;

const std::string kNotification =
    R"({"notification":{"title":"t","subtitle":"","body":"b","badge":1,"sound":"",)"
    R"("categoryIdentifier":"","threadIdentifier":"","launchImageName":"",)"
    R"("targetContentIdentifier":"","interruptionLevel":1,"relevanceScore":0,"userInfoJson":"{}"})";

// Every method, an unknown one and an undecodable payload: what each reply starts with, and how
// many events the call emits.
const struct {
    const char* method;
    std::string payload;
    const char* replyPrefix;
    int events;
} kCalls[] = {
    {"GetToken", "{}", R"({"error":{"code":"UNAVAILABLE")", 0},
    {"GetProviderEnvironment", "{}", R"({"success":{"environment":1}})", 0},
    {"GetColdStartNotification", "{}", R"({"success":{"notification":)", 0},
    // Provisional: the status the center remembers stays the one the test sets.
    {"RequestAuthorization", R"({"options":[1,2,3,7]})", R"({"success":{"granted":true}})", 0},
    {"SetBadgeCount", R"({"count":3})", R"({"success":{}})", 0},
    {"GetNotificationSettings", "{}", R"({"success":{"authorizationStatus":4}})", 0},
    {"NotifyDidRegisterForRemoteNotifications", R"({"deviceToken":"AP8Q"})", R"({"success":{}})",
     1},
    {"NotifyDidFailToRegister", R"({"errorDescription":"x"})", R"({"success":{}})", 0},
    {"NotifyWillPresentNotification", kNotification + "}",
     R"({"success":{"presentationOptions":[]}})", 1},
    {"NotifyDidReceiveResponse", kNotification + R"(,"actionIdentifier":"a"})", R"({"success":{}})",
     1},
    {"NoSuchMethod", "{}", R"({"error":{"code":"UNIMPLEMENTED")", 0},
    {"SetBadgeCount", "{", R"({"error":{"code":"INTERNAL")", 0},
};

TEST(ApnsServiceStress, ConcurrentCallersLoseAndDuplicateNothing) {
    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    dispatcher.resetForTesting();
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    center.reset();
    center.setAuthorizationStatus(3);
    platform::Bundle::mainBundle().setResourceDirectory("/nonexistent-bundle-directory");
    (void)ApnsColdStartBuffer::shared()->drain();
    ApnsColdStartBuffer::shared()->capture(
        platform::Dictionary{{"aps", platform::Value(platform::Dictionary{{"alert", "launch"}})}});
    std::atomic<long> events{0};
    dispatcher.subscribe([&](const std::string&, const std::string&) { ++events; });
    Nimb_Orra_ApnsService_Register();
    std::shared_ptr<core::OrraPlugin> plugin = dispatcher.plugin("ApnsService");
    ASSERT_NE(plugin, nullptr);

    constexpr long kTotal = long{kThreads} * kCallsPerThread;
    std::atomic<long> answered{0}, wrongReplies{0}, outOfOrder{0}, launchDrains{0};
    std::vector<std::atomic<int>> lastAnswered(kThreads);
    long expectedEvents = 0;
    std::promise<void> allAnswered;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        lastAnswered[t] = -1;
        for (int i = 0; i < kCallsPerThread; ++i) {
            expectedEvents += kCalls[(i + t) % std::size(kCalls)].events;
        }
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCallsPerThread; ++i) {
                const auto& call =
                    kCalls[(i + t) % std::size(kCalls)];  // each thread starts elsewhere
                plugin->callAsync(call.method, call.payload, [&, t, i](std::string reply) {
                    outOfOrder += lastAnswered[t].exchange(i) != i - 1;
                    wrongReplies += !reply.starts_with(call.replyPrefix);
                    launchDrains += reply.find(R"("body":"launch")") != std::string::npos;
                    if (++answered == kTotal) {
                        allAnswered.set_value();
                    }
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(allAnswered.get_future().wait_for(std::chrono::minutes(5)),
              std::future_status::ready);
    // Each thread's answers come one by one in submission order, so none is lost or repeated.
    EXPECT_EQ(outOfOrder.load(), 0) << "each thread's calls are answered once, in order";
    EXPECT_EQ(wrongReplies.load(), 0);
    EXPECT_EQ(launchDrains.load(), 1) << "the launch notification is drained once";
    EXPECT_EQ(events.load(), expectedEvents);

    // Let the plug-in's last work item release it before tearing down.
    std::weak_ptr<core::OrraPlugin> weak = plugin;
    plugin.reset();
    dispatcher.resetForTesting();
    for (int i = 0; i < 10000 && !weak.expired(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// Capturers and drainers race on one buffer; each capture carries a distinct id in its category
// and a body derived from it, so a torn or invented record shows. "Last capture wins" lets
// undrained captures vanish; what must hold is:
// - every drained record is one that was captured, whole, and no record is delivered twice;
// - a drainer sees each capturer's records in capture order;
// - the very last capture (the last one of some capturer) is delivered, by a drainer or to the
//   drain after everybody has finished, and after that the buffer is empty.
TEST(ApnsColdStartBuffer, ConcurrentCaptureAndDrainDeliverEachRecordAtMostOnce) {
    constexpr int kCapturers = 4;
    constexpr int kEach = 2000;
    ApnsColdStartBuffer buffer;
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::atomic<int> capturersRunning{kCapturers};
    std::vector<std::vector<ApnsNotification>> drainedBy(4);
    std::vector<std::thread> threads;
    for (auto& drained : drainedBy) {
        threads.emplace_back([&] {
            while (capturersRunning.load() > 0) {
                if (auto notification = buffer.drain()) {
                    drained.push_back(std::move(*notification));
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int c = 0; c < kCapturers; ++c) {
        threads.emplace_back([&, c] {
            for (int id = c * kEach; id < (c + 1) * kEach; ++id) {
                buffer.capture(platform::Dictionary{
                    {"aps", platform::Dictionary{{"category", std::to_string(id)},
                                                 {"alert", "body " + std::to_string(id)}}}});
            }
            --capturersRunning;
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    if (auto leftOver = buffer.drain()) {
        EXPECT_EQ(std::stoi(leftOver->categoryIdentifier) % kEach, kEach - 1)
            << "what stays pending must be a capturer's final capture";
        drainedBy.push_back({*leftOver});
    }
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::set<int> delivered;
    for (const auto& records : drainedBy) {
        std::vector<int> last(kCapturers, -1);
        for (const ApnsNotification& n : records) {
            EXPECT_EQ(n.body, "body " + n.categoryIdentifier) << "torn record";
            const int id = std::stoi(n.categoryIdentifier);
            EXPECT_TRUE(delivered.insert(id).second) << "record " << id << " delivered twice";
            EXPECT_GT(id, last[id / kEach]) << "out of capture order";
            last[id / kEach] = id;
        }
    }
    int finalCaptures = 0;
    for (int c = 1; c <= kCapturers; ++c) {
        finalCaptures += static_cast<int>(delivered.count(c * kEach - 1));
    }
    EXPECT_GE(finalCaptures, 1) << "the last capture made was lost";
}

}  // namespace
}  // namespace nimborra::apns
