#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <mutex>
#include <thread>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

namespace nimborra::apns {
namespace {

using ::testing::_;
using ::testing::Invoke;
using ::testing::Return;
using ::testing::StrictMock;

class MockAdapter : public ApnsServiceNativeAdapter {
  public:
    MOCK_METHOD(ApnsServiceGetTokenResult, getToken, (APNSServiceGetTokenRequest), (override));
    MOCK_METHOD(ApnsServiceGetProviderEnvironmentResult, getProviderEnvironment,
                (APNSServiceGetProviderEnvironmentRequest), (override));
    MOCK_METHOD(ApnsServiceGetColdStartNotificationResult, getColdStartNotification,
                (APNSServiceGetColdStartNotificationRequest), (override));
    MOCK_METHOD(ApnsServiceRequestAuthorizationResult, requestAuthorization,
                (APNSServiceRequestAuthorizationRequest), (override));
    MOCK_METHOD(ApnsServiceSetBadgeCountResult, setBadgeCount, (APNSServiceSetBadgeCountRequest),
                (override));
    MOCK_METHOD(ApnsServiceGetNotificationSettingsResult, getNotificationSettings,
                (APNSServiceGetNotificationSettingsRequest), (override));
    MOCK_METHOD(ApnsServiceNotifyDidRegisterForRemoteNotificationsResult,
                notifyDidRegisterForRemoteNotifications,
                (APNSServiceNotifyDidRegisterForRemoteNotificationsRequest), (override));
    MOCK_METHOD(ApnsServiceNotifyDidFailToRegisterResult, notifyDidFailToRegister,
                (APNSServiceNotifyDidFailToRegisterRequest), (override));
    MOCK_METHOD(ApnsServiceNotifyWillPresentNotificationResult, notifyWillPresentNotification,
                (APNSServiceNotifyWillPresentNotificationRequest), (override));
    MOCK_METHOD(ApnsServiceNotifyDidReceiveResponseResult, notifyDidReceiveResponse,
                (APNSServiceNotifyDidReceiveResponseRequest), (override));
    MOCK_METHOD(ApnsServiceNotifyColdStartNotificationResult, notifyColdStartNotification,
                (APNSServiceNotifyColdStartNotificationRequest), (override));
    MOCK_METHOD(void, onCancel, (std::int64_t), (override));
};

// Waits until `object` is owned by nobody else: a plug-in is released by the last work item
// that held it, on its queue's thread, after the reply was delivered.
template <class T>
void waitUntilSoleOwner(const std::shared_ptr<T>& object) {
    for (int i = 0; i < 10000 && object.use_count() > 1; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(object.use_count(), 1);
}

class ApnsServicePluginTest : public ::testing::Test {
  protected:
    void TearDown() override {
        plugin.reset();
        waitUntilSoleOwner(adapter);
    }

    std::shared_ptr<StrictMock<MockAdapter>> adapter = std::make_shared<StrictMock<MockAdapter>>();
    std::shared_ptr<ApnsServicePlugin> plugin = std::make_shared<ApnsServicePlugin>(
        adapter, std::make_shared<platform::DispatchQueue>("test.plugin"));

    // Calls asynchronously and waits for the one reply.
    std::string call(std::string method, std::string payload) {
        std::promise<std::string> reply;
        auto future = reply.get_future();
        std::atomic<int> calls{0};
        plugin->callAsync(std::move(method), std::move(payload), [&](std::string text) {
            ++calls;
            reply.set_value(std::move(text));
        });
        EXPECT_EQ(future.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        std::string text = future.get();
        // Let any second (wrong) answer show up before the promise goes away.
        std::promise<void> flushed;
        plugin->callAsync("", "", [&](std::string) { flushed.set_value(); });
        flushed.get_future().wait();
        EXPECT_EQ(calls.load(), 1);
        return text;
    }
};

// Every method reaches its own operation with the decoded request.
TEST_F(ApnsServicePluginTest, DispatchesEveryMethodToItsOwnOperation) {
    ApnsNotification notification;
    notification.title = "T";
    notification.relevanceScore = 0.5;
    const std::string notificationJSON =
        core::OrraJSONCoding::makeEncoder().encode(notification).value();

    EXPECT_CALL(*adapter, getToken(_)).WillOnce(Return(ApnsServiceGetTokenResult::success({"ab"})));
    EXPECT_CALL(*adapter, getProviderEnvironment(_))
        .WillOnce(Return(
            ApnsServiceGetProviderEnvironmentResult::success({ProviderEnvironment::apnsSandbox})));
    EXPECT_CALL(*adapter, getColdStartNotification(_))
        .WillOnce(Return(ApnsServiceGetColdStartNotificationResult::success({notification})));
    EXPECT_CALL(*adapter, requestAuthorization(APNSServiceRequestAuthorizationRequest{
                              {UNAuthorizationOption::alert, UNAuthorizationOption::unspecified}}))
        .WillOnce(Return(ApnsServiceRequestAuthorizationResult::success({true})));
    EXPECT_CALL(*adapter, setBadgeCount(APNSServiceSetBadgeCountRequest{-4}))
        .WillOnce(Return(ApnsServiceSetBadgeCountResult::success({})));
    EXPECT_CALL(*adapter, getNotificationSettings(_))
        .WillOnce(Return(
            ApnsServiceGetNotificationSettingsResult::success({UNAuthorizationStatus::denied})));
    EXPECT_CALL(*adapter, notifyDidRegisterForRemoteNotifications(
                              APNSServiceNotifyDidRegisterForRemoteNotificationsRequest{
                                  platform::Data{{0x0a, 0x1b, 0x2c}}}))
        .WillOnce(Return(ApnsServiceNotifyDidRegisterForRemoteNotificationsResult::success({})));
    EXPECT_CALL(*adapter,
                notifyDidFailToRegister(APNSServiceNotifyDidFailToRegisterRequest{"no network"}))
        .WillOnce(Return(ApnsServiceNotifyDidFailToRegisterResult::success({})));
    EXPECT_CALL(*adapter, notifyWillPresentNotification(
                              APNSServiceNotifyWillPresentNotificationRequest{notification}))
        .WillOnce(Return(ApnsServiceNotifyWillPresentNotificationResult::success(
            {{UNNotificationPresentationOption::banner}})));
    EXPECT_CALL(*adapter, notifyDidReceiveResponse(
                              APNSServiceNotifyDidReceiveResponseRequest{notification, "open"}))
        .WillOnce(Return(ApnsServiceNotifyDidReceiveResponseResult::success({})));
    EXPECT_CALL(*adapter, notifyColdStartNotification(
                              APNSServiceNotifyColdStartNotificationRequest{"{\"a\":1}"}))
        .WillOnce(Return(ApnsServiceNotifyColdStartNotificationResult::success({})));

    const std::pair<std::string, std::string> calls[][1] = {
        {{"GetToken", "{}"}},
        {{"GetProviderEnvironment", "[]"}},
        {{"GetColdStartNotification", "null"}},
        {{"RequestAuthorization", R"({"options":[3,0]})"}},
        {{"SetBadgeCount", R"({"count":-4})"}},
        {{"GetNotificationSettings", "{}"}},
        {{"NotifyDidRegisterForRemoteNotifications", R"({"deviceToken":"Chss"})"}},
        {{"NotifyDidFailToRegister", R"({"errorDescription":"no network"})"}},
        {{"NotifyWillPresentNotification", "{\"notification\":" + notificationJSON + "}"}},
        {{"NotifyDidReceiveResponse",
          "{\"notification\":" + notificationJSON + ",\"actionIdentifier\":\"open\"}"}},
        {{"NotifyColdStartNotification", R"({"userInfoJson":"{\"a\":1}"})"}},
    };
    const std::string expected[] = {
        R"({"success":{"token":"ab"}})",
        R"({"success":{"environment":2}})",
        "{\"success\":{\"notification\":" + notificationJSON + "}}",
        R"({"success":{"granted":true}})",
        R"({"success":{}})",
        R"({"success":{"authorizationStatus":2}})",
        R"({"success":{}})",
        R"({"success":{}})",
        R"({"success":{"presentationOptions":[4]}})",
        R"({"success":{}})",
        R"({"success":{}})",
    };
    for (std::size_t i = 0; i < std::size(calls); ++i) {
        EXPECT_EQ(call(calls[i][0].first, calls[i][0].second), expected[i]) << calls[i][0].first;
    }
}

TEST_F(ApnsServicePluginTest, UnknownNamesAreUnimplementedWithTheNameAsReceived) {
    for (const char* method : {"gettoken", "GetToken ", " GetToken", "", "Get Token", "GETTOKEN",
                               "GetToken\n", "Cancel"}) {
        EXPECT_EQ(
            call(method, "{}"),
            std::string(R"({"error":{"code":"UNIMPLEMENTED","message":"Unknown ASYNC method: )") +
                (std::string(method) == "GetToken\n" ? "GetToken\\n" : method) + "\"}}")
            << method;
    }
}

TEST_F(ApnsServicePluginTest, UndecodablePayloadsAreInternalErrorsWithoutReachingTheAdapter) {
    struct Case {
        const char* method;
        const char* payload;
        const char* messagePrefix;
    };
    const Case cases[] = {
        {"GetToken", "", "dataCorrupted at the top level: the data is not valid JSON ("},
        {"GetToken", "not json", "dataCorrupted at the top level: the data is not valid JSON ("},
        {"SetBadgeCount", "{}", "keyNotFound at \\\"count\\\": no value for key \\\"count\\\""},
        {"SetBadgeCount", R"({"count":1.5})", "dataCorrupted at \\\"count\\\": "},
        {"RequestAuthorization", R"({"options":["alert"]})",
         "typeMismatch at \\\"options[0]\\\": expected an integer but found a string"},
        {"NotifyDidReceiveResponse", R"({"actionIdentifier":"open"})",
         "keyNotFound at \\\"notification\\\""},
    };
    for (const auto& c : cases) {
        const std::string reply = call(c.method, c.payload);
        EXPECT_TRUE(reply.starts_with(std::string(R"({"error":{"code":"INTERNAL","message":")") +
                                      c.messagePrefix))
            << c.method << " " << c.payload << " -> " << reply;
    }
}

TEST_F(ApnsServicePluginTest, RepliesForEveryKindOfResult) {
    core::NimbError problem(core::NimbErrorCode::failedPrecondition, "a \"quoted\" /path");
    problem.externalCode = "EXT";
    problem.traceId = "t";
    EXPECT_CALL(*adapter, getToken(_))
        .WillOnce(Return(ApnsServiceGetTokenResult::unknown("C", "42")))
        .WillOnce(Return(ApnsServiceGetTokenResult::unknown("C", "null")))
        .WillOnce(Return(ApnsServiceGetTokenResult::unknown("C", R"({"k":[1,"\/"]})")))
        .WillOnce(Return(ApnsServiceGetTokenResult::unknown("C", "")))
        .WillOnce(Return(ApnsServiceGetTokenResult::unknown("C", "{")))
        .WillOnce(Return(ApnsServiceGetTokenResult::failure(problem)));
    EXPECT_EQ(call("GetToken", "{}"), R"({"outcome":{"code":"C","data":42}})");
    EXPECT_EQ(call("GetToken", "{}"), R"({"outcome":{"code":"C","data":null}})");
    EXPECT_EQ(call("GetToken", "{}"), R"({"outcome":{"code":"C","data":{"k":[1,"\/"]}}})");
    const std::string notJSON =
        R"({"error":{"code":"INTERNAL","message":"Unknown outcome rawJson was not valid JSON"}})";
    EXPECT_EQ(call("GetToken", "{}"), notJSON);
    EXPECT_EQ(call("GetToken", "{}"), notJSON);
    EXPECT_EQ(call("GetToken", "{}"),
              R"({"error":{"code":"FAILED_PRECONDITION","message":"a \"quoted\" \/path",)"
              R"("externalCode":"EXT","traceId":"t"}})");
}

TEST_F(ApnsServicePluginTest, UnencodableSuccessBecomesAnInternalErrorWithTheEncodersDescription) {
    ApnsNotification notification;
    notification.relevanceScore = std::nan("");
    EXPECT_CALL(*adapter, getColdStartNotification(_))
        .WillOnce(Return(ApnsServiceGetColdStartNotificationResult::success({notification})));
    EXPECT_EQ(call("GetColdStartNotification", "{}"),
              R"({"error":{"code":"INTERNAL","message":"invalidValue at \"notification.)"
              R"(relevanceScore\": the number nan cannot be written in JSON"}})");
}

TEST_F(ApnsServicePluginTest, UnserialisableFailureFallsBackToTheFixedText) {
    core::NimbError problem(core::NimbErrorCode::internal, "x");
    problem.details = platform::Value(platform::Data{{1}});
    EXPECT_CALL(*adapter, getToken(_))
        .WillOnce(Return(ApnsServiceGetTokenResult::failure(problem)));
    EXPECT_EQ(call("GetToken", "{}"), ApnsOutcomeEnvelope::serialisationFallback);
    // A message that is not UTF-8 cannot become reply text.
    EXPECT_EQ(ApnsOutcomeEnvelope::errorReply("INTERNAL", "\xFF"),
              ApnsOutcomeEnvelope::textFallback);
}

TEST_F(ApnsServicePluginTest, SyncCallsAreRefusedAndCancelIsForwardedOnTheCallersThread) {
    const char* refusal =
        R"({"error":{"code":"INTERNAL","message":"Plugin ApnsService has no SYNC methods"}})";
    for (const char* method : {"GetToken", "", "Anything"}) {
        EXPECT_EQ(plugin->callSync(method, "{}"), refusal);
    }
    std::thread::id cancelThread;
    EXPECT_CALL(*adapter, onCancel(987654321987LL)).WillOnce(Invoke([&](std::int64_t) {
        cancelThread = std::this_thread::get_id();
    }));
    plugin->cancel(987654321987LL);
    EXPECT_EQ(cancelThread, std::this_thread::get_id());
    EXPECT_EQ(plugin->pluginName(), "ApnsService");
}

// Calls from several threads are answered in the order they were enqueued, one at a time, on
// the plug-in's queue; the next operation starts only after the previous callback returned.
TEST_F(ApnsServicePluginTest, AnswersInEnqueueOrderOneAtATimeOnItsQueue) {
    std::mutex mutex;
    std::vector<int> operations;
    std::vector<int> replies;
    std::atomic<bool> inCallback{false};
    std::atomic<int> violations{0};
    EXPECT_CALL(*adapter, setBadgeCount(_))
        .WillRepeatedly(Invoke([&](APNSServiceSetBadgeCountRequest request) {
            if (inCallback.load() || !plugin->queue().isCurrent()) {
                ++violations;
            }
            std::lock_guard lock(mutex);
            operations.push_back(request.count);
            return ApnsServiceSetBadgeCountResult::success({});
        }));

    constexpr int kThreads = 4;
    constexpr int kPerThread = 200;
    std::vector<int> enqueued;
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                const int id = t * kPerThread + i;
                // Enqueue under the lock so that `enqueued` records the true submission order.
                std::lock_guard lock(mutex);
                enqueued.push_back(id);
                plugin->callAsync(
                    "SetBadgeCount", "{\"count\":" + std::to_string(id) + "}",
                    [&, id](std::string reply) {
                        inCallback = true;
                        if (reply != R"({"success":{}})" || !plugin->queue().isCurrent()) {
                            ++violations;
                        }
                        {
                            std::lock_guard inner(mutex);
                            replies.push_back(id);
                        }
                        std::this_thread::yield();
                        inCallback = false;
                        ++answered;
                    });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int i = 0; i < 3000 && answered.load() < kThreads * kPerThread; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::lock_guard lock(mutex);
    EXPECT_EQ(answered.load(), kThreads * kPerThread);
    EXPECT_EQ(violations.load(), 0);
    EXPECT_EQ(operations, enqueued);
    EXPECT_EQ(replies, enqueued);
}

class ApnsServicePluginRegistration : public ::testing::Test {
  protected:
    void SetUp() override { core::OrraBridgeDispatcher::shared().resetForTesting(); }
    void TearDown() override { core::OrraBridgeDispatcher::shared().resetForTesting(); }
};

TEST_F(ApnsServicePluginRegistration, EachRegistrationBuildsAPluginWithItsOwnQueue) {
    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    auto adapter = std::make_shared<StrictMock<MockAdapter>>();
    ApnsServicePlugin::registerPlugin(adapter);
    auto first = std::dynamic_pointer_cast<ApnsServicePlugin>(dispatcher.plugin("ApnsService"));
    ApnsServicePlugin::registerPlugin(adapter);
    auto second = std::dynamic_pointer_cast<ApnsServicePlugin>(dispatcher.plugin("ApnsService"));
    ASSERT_TRUE(first && second);
    EXPECT_NE(first, second);
    EXPECT_NE(&first->queue(), &second->queue());
    EXPECT_EQ(first->queue().label(), "com.nimborra.apns_service.plugin");
    EXPECT_EQ(first->queue().qos(), platform::DispatchQoS::userInitiated);
    EXPECT_EQ(first->adapter(), second->adapter());
    static_assert(!std::is_default_constructible_v<ApnsServicePlugin>);
}

}  // namespace
}  // namespace nimborra::apns
