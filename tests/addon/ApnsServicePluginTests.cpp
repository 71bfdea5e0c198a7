#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <future>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsCompletionBox.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"
#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

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

class ApnsServicePluginTest : public ::testing::Test {
  protected:
    // The plug-in is released by the last work item that held it, on its queue's thread, after
    // the reply was delivered: wait for that before the mock is checked.
    void TearDown() override {
        plugin.reset();
        for (int i = 0; i < 10000 && adapter.use_count() > 1; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_EQ(adapter.use_count(), 1);
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
        // A number that no 64-bit integer holds is still JSON.
        {ApnsServiceGetTokenResult::unknown("C", "123456789012345678901234567890"),
         R"({"outcome":{"code":"C","data":1.2345678901234568e+29}})"},
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
    // An adapter that throws breaks its contract; the call is answered all the same.
    EXPECT_CALL(*adapter, setBadgeCount(_))
        .WillOnce(Invoke(
            [](auto) -> ApnsServiceSetBadgeCountResult { throw std::runtime_error("boom"); }));
    EXPECT_EQ(
        call("SetBadgeCount", R"({"count":1})"),
        R"({"error":{"code":"INTERNAL","message":"ApnsService SetBadgeCount failed: boom"}})");
    // A message that is not UTF-8 cannot become reply text.
    EXPECT_EQ(ApnsOutcomeEnvelope::errorReply("INTERNAL", "\xFF"),
              ApnsOutcomeEnvelope::textFallback);
}

// A completion that throws is logged and the queue goes on. A call the plug-in cannot run (no
// shared_ptr owns the plug-in, or its queue refuses the work or is missing) is answered exactly
// once, at once, with the fixed fall-back, and logged; a plug-in without an adapter answers with
// an error and is never registered.
TEST_F(ApnsServicePluginTest, ThrowingCompletionsAndRefusedWorkAreAnsweredOnce) {
    EXPECT_CALL(*adapter, getToken(_))
        .WillRepeatedly(Return(ApnsServiceGetTokenResult::success({"ab"})));
    platform::LogCapture capture;
    plugin->callAsync("GetToken", "{}", [](std::string) { throw std::runtime_error("host"); });
    EXPECT_EQ(call("GetToken", "{}"), R"({"success":{"token":"ab"}})");
    ASSERT_FALSE(capture.records().empty());
    EXPECT_EQ(capture.records().front().message, "ApnsService: a completion callback threw");
    ApnsServicePlugin unowned(adapter, std::make_shared<platform::DispatchQueue>("test.unowned"));
    std::string reply;
    unowned.callAsync("GetToken", "{}", [&](std::string text) { reply = std::move(text); });
    EXPECT_EQ(reply, ApnsOutcomeEnvelope::serialisationFallback);
    EXPECT_EQ(capture.records().back().message,
              "ApnsService: could not prepare a call; answered with the fall-back");

    capture.clear();
    for (auto queue : {platform::DispatchQueue::makeRefusingForTesting("test.refusing"),
                       std::shared_ptr<platform::DispatchQueue>()}) {
        plugin = std::make_shared<ApnsServicePlugin>(adapter, queue);
        EXPECT_EQ(call("SetBadgeCount", R"({"count":1})"),
                  ApnsOutcomeEnvelope::serialisationFallback);
    }
    // Two calls through each refusing plug-in (the one above and the helper's second), each
    // answered with the fall-back and logged.
    std::size_t refusals = 0;
    for (const auto& record : capture.records()) {
        if (record.category == "apns") {
            ++refusals;
            EXPECT_EQ(record.message,
                      "ApnsService: the queue refused a call; answered with the fall-back");
        }
    }
    EXPECT_EQ(refusals, 4u);
    plugin = std::make_shared<ApnsServicePlugin>(
        nullptr, std::make_shared<platform::DispatchQueue>("test.working"));
    EXPECT_EQ(call("SetBadgeCount", R"({"count":1})"),
              R"({"error":{"code":"INTERNAL","message":"ApnsService has no adapter"}})");

    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    dispatcher.resetForTesting();
    capture.clear();
    ApnsServicePlugin::registerPlugin(nullptr);
    EXPECT_EQ(dispatcher.plugin(ApnsServicePlugin::name), nullptr);
    EXPECT_EQ(capture.records().size(), 1u);
}

// Cancel reaches the adapter at once, on the caller's thread, whatever the identifier.
TEST_F(ApnsServicePluginTest, CancelIsForwardedOnTheCallersThread) {
    std::thread::id cancelThread;
    EXPECT_CALL(*adapter, onCancel(987654321987LL)).WillOnce(Invoke([&](std::int64_t) {
        cancelThread = std::this_thread::get_id();
    }));
    plugin->cancel(987654321987LL);
    EXPECT_EQ(cancelThread, std::this_thread::get_id());
    EXPECT_EQ(plugin->pluginName(), "ApnsService");
}

// Calls are answered in the order they were enqueued, one at a time, on the plug-in's queue; the
// next operation starts only after the previous callback returned.
TEST_F(ApnsServicePluginTest, AnswersInEnqueueOrderOneAtATimeOnItsQueue) {
    constexpr int kCalls = 500;
    std::vector<int> operations, replies;  // touched on the plug-in's queue only
    std::atomic<bool> inCallback{false};
    std::atomic<int> violations{0};
    std::promise<void> allAnswered;
    EXPECT_CALL(*adapter, setBadgeCount(_))
        .WillRepeatedly(Invoke([&](APNSServiceSetBadgeCountRequest request) {
            violations += inCallback.load() || !plugin->queue().isCurrent();
            operations.push_back(request.count);
            return ApnsServiceSetBadgeCountResult::success({});
        }));
    for (int id = 0; id < kCalls; ++id) {
        plugin->callAsync(
            "SetBadgeCount", "{\"count\":" + std::to_string(id) + "}", [&, id](std::string reply) {
                inCallback = true;
                violations += reply != R"({"success":{}})" || !plugin->queue().isCurrent();
                replies.push_back(id);
                std::this_thread::yield();
                inCallback = false;
                if (replies.size() == kCalls) {
                    allAnswered.set_value();
                }
            });
    }
    ASSERT_EQ(allAnswered.get_future().wait_for(std::chrono::seconds(30)),
              std::future_status::ready);
    EXPECT_EQ(violations.load(), 0);
    std::vector<int> enqueued(kCalls);
    std::iota(enqueued.begin(), enqueued.end(), 0);
    EXPECT_EQ(operations, enqueued);
    EXPECT_EQ(replies, enqueued);
}

// A handler that fires twice must not race the waiter's read; a start that throws is taken as
// never answered, unless it had answered already.
TEST(WaitForCompletionTest, OnlyTheFirstAnswerCountsAndAFailedStartIsNotWaitedFor) {
    std::thread answering;
    const auto answerTwice = [&](auto complete) {
        answering = std::thread([complete] {
            complete(1);
            complete(2);
        });
    };
    EXPECT_EQ(waitForCompletion(0, answerTwice), 1);
    answering.join();
    EXPECT_EQ(waitForCompletion(7, [](auto) { throw std::runtime_error("no request"); }), 7);
    const auto answerThenThrow = [](auto complete) {
        complete(8);
        throw std::runtime_error("after the answer");
    };
    EXPECT_EQ(waitForCompletion(7, answerThenThrow), 8);
}

using Event = std::pair<std::string, std::string>;

class RecordingEmitter : public ApnsEventEmitting {
  public:
    void emit(const std::string& name, const std::string& payload) override {
        events.emplace_back(name, payload);
    }
    std::vector<Event> events;
};

// An event whose payload cannot be written is dropped with one error line under the add-on's
// subsystem and category; the sink never sees it.
TEST(ApnsEventEmission, UnencodableEventsAreDroppedWithOneErrorLine) {
    ApnsNotification nan;
    nan.relevanceScore = std::nan("");
    ApnsNotification badTitle;
    badTitle.title = "\xc3";
    const std::tuple<const char*, ApnsNotification, std::optional<std::string>> cases[] = {
        {apnsNotificationPresentedEventName, nan, std::nullopt},
        {apnsNotificationOpenedEventName, nan, "open"},
        {apnsNotificationPresentedEventName, badTitle, std::nullopt},
        {apnsNotificationOpenedEventName, {}, std::string("op\xffn")},
        {"OnTokenRefreshed", {}, std::nullopt},  // a token that is not UTF-8, below
    };
    for (const auto& [name, notification, identifier] : cases) {
        SCOPED_TRACE(name);
        platform::LogCapture capture;
        RecordingEmitter emitter;
        if (name == std::string("OnTokenRefreshed")) {
            emitTokenRefreshed(emitter, "0a\xff");
        } else {
            emitNotificationEvent(emitter, name, notification, identifier);
        }
        EXPECT_TRUE(emitter.events.empty());
        EXPECT_EQ(capture.records(),
                  (std::vector<platform::LogRecord>{
                      {platform::LogLevel::error, "com.nimborra.push.addon.apns", "apns",
                       std::string(name) + " dropped: payload encoding failed"}}));
    }
}

// A relevance score of negative zero is written as 0 in the sorted event payload, as the
// platform's serialiser writes it.
TEST(ApnsEventEmission, NegativeZeroRelevanceIsWrittenAsZero) {
    ApnsNotification notification;
    notification.relevanceScore = -0.0;
    const auto payload = makeNotificationEventPayload(notification, std::nullopt);
    ASSERT_TRUE(payload.has_value());
    EXPECT_NE(payload->find("\"relevanceScore\":0,"), std::string::npos) << *payload;
    EXPECT_EQ(payload->find("-0"), std::string::npos) << *payload;
}

// The system center hands each service to the platform's current center and passes the
// platform's answer on, once, from the platform's delivery thread.
TEST(SystemNotificationCenterTest, ForwardsEachServiceAndPassesTheAnswerOn) {
    auto& platformCenter = platform::UNUserNotificationCenter::currentNotificationCenter();
    platformCenter.reset();
    platformCenter.setAuthorizationAnswer(false, platform::NSError{"UNErrorDomain", 1});
    platformCenter.setBadgeError(platform::NSError{"X", 7});
    SystemNotificationCenter center;
    std::atomic<int> answers{0};
    std::promise<std::string> authorization, status, badge;
    center.requestAuthorization(5, [&](bool granted, std::optional<platform::NSError> error) {
        ++answers;
        authorization.set_value(std::to_string(granted) + " " + (error ? error->domain : "-"));
    });
    center.getAuthorizationStatus([&](std::int64_t raw) {
        ++answers;
        status.set_value(std::to_string(raw));
    });
    center.setBadgeCount(4, [&](std::optional<platform::NSError> error) {
        ++answers;
        badge.set_value(error ? error->domain + std::to_string(error->code) : "-");
    });
    // Nobody waits for these answers: they are dropped.
    center.requestAuthorization(1, nullptr);
    center.setBadgeCount(9, nullptr);

    EXPECT_EQ(authorization.get_future().get(), "0 UNErrorDomain");
    // The refused request left the status not determined.
    EXPECT_EQ(status.get_future().get(), "0");
    EXPECT_EQ(badge.get_future().get(), "X7");
    EXPECT_EQ(platformCenter.authorizationRequestCount(), 2u);
    EXPECT_EQ(platformCenter.lastAuthorizationOptions(), 1u);
    EXPECT_EQ(platformCenter.settingsRequestCount(), 1u);
    EXPECT_EQ(platformCenter.badgeRequestCount(), 2u);
    EXPECT_EQ(platformCenter.lastBadgeCount(), 9);
    platformCenter.reset();  // delivers what is left, and forgets what was asked
    EXPECT_EQ(answers.load(), 3);
    EXPECT_EQ(platformCenter.lastAuthorizationOptions(), std::nullopt);
    EXPECT_EQ(platformCenter.lastBadgeCount(), std::nullopt);
    EXPECT_EQ(platformCenter.authorizationRequestCount() + platformCenter.badgeRequestCount() +
                  platformCenter.settingsRequestCount(),
              0u);
}

}  // namespace
}  // namespace nimborra::apns
