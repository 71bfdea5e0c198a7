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

// Every kind of result becomes its reply: an unknown outcome keeps its code and its JSON data
// (any value), a failure its fields in order; data that is not JSON, a success that cannot be
// encoded and a failure that cannot be written fall back to fixed internal errors.
TEST_F(ApnsServicePluginTest, RepliesForEveryKindOfResult) {
    core::NimbError problem(core::NimbErrorCode::failedPrecondition, "a \"quoted\" /path");
    problem.externalCode = "EXT";
    problem.traceId = "t";
    core::NimbError unwritable(core::NimbErrorCode::internal, "x");
    unwritable.details = platform::Value(platform::Data{{1}});
    const char* notJSON =
        R"({"error":{"code":"INTERNAL","message":"Unknown outcome rawJson was not valid JSON"}})";
    const std::pair<ApnsServiceGetTokenResult, std::string> cases[] = {
        {ApnsServiceGetTokenResult::unknown("C", "42"), R"({"outcome":{"code":"C","data":42}})"},
        {ApnsServiceGetTokenResult::unknown("C", "null"),
         R"({"outcome":{"code":"C","data":null}})"},
        {ApnsServiceGetTokenResult::unknown("C", R"({"k":[1,"\/"]})"),
         R"({"outcome":{"code":"C","data":{"k":[1,"\/"]}}})"},
        {ApnsServiceGetTokenResult::unknown("C", ""), notJSON},
        {ApnsServiceGetTokenResult::unknown("C", "{"), notJSON},
        {ApnsServiceGetTokenResult::failure(problem),
         R"({"error":{"code":"FAILED_PRECONDITION","message":"a \"quoted\" \/path",)"
         R"("externalCode":"EXT","traceId":"t"}})"},
        {ApnsServiceGetTokenResult::failure(unwritable),
         std::string(ApnsOutcomeEnvelope::serialisationFallback)},
    };
    for (const auto& [result, reply] : cases) {
        EXPECT_CALL(*adapter, getToken(_)).WillOnce(Return(result));
        EXPECT_EQ(call("GetToken", "{}"), reply);
    }
    ApnsNotification notification;
    notification.relevanceScore = std::nan("");
    EXPECT_CALL(*adapter, getColdStartNotification(_))
        .WillOnce(Return(ApnsServiceGetColdStartNotificationResult::success({notification})));
    EXPECT_EQ(call("GetColdStartNotification", "{}"),
              R"({"error":{"code":"INTERNAL","message":"invalidValue at \"notification.)"
              R"(relevanceScore\": the number nan cannot be written in JSON"}})");
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
    constexpr int kCalls = 4 * 200;
    std::mutex mutex;
    std::vector<int> enqueued, operations, replies;
    std::atomic<bool> inCallback{false};
    std::atomic<int> violations{0};
    std::promise<void> allAnswered;
    EXPECT_CALL(*adapter, setBadgeCount(_))
        .WillRepeatedly(Invoke([&](APNSServiceSetBadgeCountRequest request) {
            violations += inCallback.load() || !plugin->queue().isCurrent();
            operations.push_back(request.count);
            return ApnsServiceSetBadgeCountResult::success({});
        }));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int id = t * kCalls / 4; id < (t + 1) * kCalls / 4; ++id) {
                // Enqueued under the lock, so that `enqueued` is the true submission order.
                std::lock_guard lock(mutex);
                enqueued.push_back(id);
                plugin->callAsync("SetBadgeCount", "{\"count\":" + std::to_string(id) + "}",
                                  [&, id](std::string reply) {
                                      inCallback = true;
                                      violations += reply != R"({"success":{}})" ||
                                                    !plugin->queue().isCurrent();
                                      replies.push_back(id);
                                      std::this_thread::yield();
                                      inCallback = false;
                                      if (replies.size() == kCalls) {
                                          allAnswered.set_value();
                                      }
                                  });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(allAnswered.get_future().wait_for(std::chrono::seconds(30)),
              std::future_status::ready);
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
