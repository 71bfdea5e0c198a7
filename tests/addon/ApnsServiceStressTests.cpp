// Many threads calling the registered production plug-in at once, with the stand-in center
// answering from its own thread: nothing lost, nothing duplicated, order kept per caller.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"

namespace nimborra::apns {
namespace {

constexpr int kThreads = 8;
constexpr int kCallsPerThread = 20000;

struct MixedCall {
    const char* method;
    const char* payload;
    const char* replyPrefix;  // what every reply of this call starts with
    int events;               // events the call emits
};

constexpr const char* kNotification =
    R"({"title":"t","subtitle":"","body":"b","badge":1,"sound":"","categoryIdentifier":"",)"
    R"("threadIdentifier":"","launchImageName":"","targetContentIdentifier":"",)"
    R"("interruptionLevel":1,"relevanceScore":0,"userInfoJson":"{}"})";

const std::vector<MixedCall>& mixedCalls() {
    static const std::vector<MixedCall> calls = [] {
        static const std::string present = std::string(R"({"notification":)") + kNotification + "}";
        static const std::string open =
            std::string(R"({"notification":)") + kNotification + R"(,"actionIdentifier":"a"})";
        return std::vector<MixedCall>{
            {"GetToken", "{}", R"({"error":{"code":"UNAVAILABLE")", 0},
            {"GetProviderEnvironment", "{}", R"({"success":{"environment":1}})", 0},
            {"GetColdStartNotification", "{}", R"({"success":{"notification":)", 0},
            // Provisional: the status the center remembers stays the one set below.
            {"RequestAuthorization", R"({"options":[1,2,3,7]})", R"({"success":{"granted":true}})",
             0},
            {"SetBadgeCount", R"({"count":3})", R"({"success":{}})", 0},
            {"GetNotificationSettings", "{}", R"({"success":{"authorizationStatus":4}})", 0},
            {"NotifyDidRegisterForRemoteNotifications", R"({"deviceToken":"AP8Q"})",
             R"({"success":{}})", 1},
            {"NotifyDidFailToRegister", R"({"errorDescription":"x"})", R"({"success":{}})", 0},
            {"NotifyWillPresentNotification", present.c_str(),
             R"({"success":{"presentationOptions":[]}})", 1},
            {"NotifyDidReceiveResponse", open.c_str(), R"({"success":{}})", 1},
            {"NoSuchMethod", "{}", R"({"error":{"code":"UNIMPLEMENTED")", 0},
            {"SetBadgeCount", "{", R"({"error":{"code":"INTERNAL")", 0},
        };
    }();
    return calls;
}

TEST(ApnsServiceStress, ConcurrentCallersLoseAndDuplicateNothing) {
    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    dispatcher.resetForTesting();
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    center.reset();
    center.setAuthorizationStatus(3);
    const auto previousBundle = platform::Bundle::mainBundle().resourceDirectory();
    platform::Bundle::mainBundle().setResourceDirectory("/nonexistent-bundle-directory");
    (void)ApnsColdStartBuffer::shared()->drain();
    ApnsColdStartBuffer::shared()->capture(
        platform::Dictionary{{"aps", platform::Value(platform::Dictionary{{"alert", "launch"}})}});

    std::atomic<long> events{0};
    dispatcher.subscribe([&](const std::string&, const std::string&) { ++events; });
    Nimb_Orra_ApnsService_Register();
    auto plugin = dispatcher.plugin("ApnsService");
    ASSERT_NE(plugin, nullptr);

    const auto& calls = mixedCalls();
    std::atomic<long> answered{0};
    std::atomic<long> wrongReplies{0};
    std::atomic<long> outOfOrder{0};
    std::atomic<long> launchDrains{0};
    std::vector<std::atomic<int>> lastAnswered(kThreads);
    std::vector<std::vector<std::atomic<int>>> answerCounts;
    for (int t = 0; t < kThreads; ++t) {
        lastAnswered[static_cast<std::size_t>(t)] = -1;
        answerCounts.emplace_back(static_cast<std::size_t>(kCallsPerThread));
    }
    long expectedEvents = 0;
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kCallsPerThread; ++i) {
            expectedEvents += calls[static_cast<std::size_t>(i + t) % calls.size()].events;
        }
    }

    std::mutex doneMutex;
    std::condition_variable done;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const auto thread = static_cast<std::size_t>(t);
            for (int i = 0; i < kCallsPerThread; ++i) {
                // Each thread starts at a different place in the mix.
                const MixedCall& call = calls[static_cast<std::size_t>(i + t) % calls.size()];
                plugin->callAsync(call.method, call.payload, [&, thread, i](std::string reply) {
                    ++answerCounts[thread][static_cast<std::size_t>(i)];
                    if (lastAnswered[thread].exchange(i) != i - 1) {
                        ++outOfOrder;
                    }
                    if (!reply.starts_with(call.replyPrefix)) {
                        ++wrongReplies;
                    }
                    if (reply.find(R"("body":"launch")") != std::string::npos) {
                        ++launchDrains;
                    }
                    if (++answered == long{kThreads} * kCallsPerThread) {
                        std::lock_guard lock(doneMutex);
                        done.notify_all();
                    }
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    {
        std::unique_lock lock(doneMutex);
        done.wait_for(lock, std::chrono::minutes(5),
                      [&] { return answered.load() == long{kThreads} * kCallsPerThread; });
    }

    EXPECT_EQ(answered.load(), long{kThreads} * kCallsPerThread);
    long notExactlyOnce = 0;
    for (const auto& counts : answerCounts) {
        for (const auto& count : counts) {
            notExactlyOnce += count.load() != 1;
        }
    }
    EXPECT_EQ(notExactlyOnce, 0) << "every callback is called exactly once";
    EXPECT_EQ(outOfOrder.load(), 0) << "each thread's calls are answered in submission order";
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
    center.reset();
    platform::Bundle::mainBundle().setResourceDirectory(previousBundle);
}

}  // namespace
}  // namespace nimborra::apns
