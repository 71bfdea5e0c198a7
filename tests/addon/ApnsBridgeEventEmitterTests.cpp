// What the plug-in tests through the bridge do not reach: the drops and their log lines, the
// wrapper of an empty action identifier, sinks that throw, and the production sink on its own.
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

#include <gtest/gtest.h>

#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "NimbOrraCore/JSONDecoder.h"
#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Logger.h"

namespace nimborra::apns {
namespace {

using Event = std::pair<std::string, std::string>;

class RecordingEmitter : public ApnsEventEmitting {
  public:
    void emit(const std::string& name, const std::string& payload) override {
        events.emplace_back(name, payload);
    }
    std::vector<Event> events;
};

ApnsNotification sampleNotification() {
    ApnsNotification n;
    n.title = "Hi";
    n.subtitle = "caf\xc3\xa9 \xe2\x9c\x93";
    n.badge = -7;
    n.interruptionLevel = UNNotificationInterruptionLevel::critical;
    n.relevanceScore = 0.1;
    n.userInfoJson = R"({"url":"a/b"})";
    return n;
}

// The error-level lines written under the add-on's subsystem and category.
std::vector<std::string> apnsErrorLines(const platform::LogCapture& capture) {
    std::vector<std::string> lines;
    for (const auto& record : capture.records()) {
        if (record.level == platform::LogLevel::error &&
            record.subsystem == "com.nimborra.push.addon.apns" && record.category == "apns") {
            lines.push_back(record.message);
        }
    }
    return lines;
}

TEST(ApnsEventEmission, UnencodableEventsAreDroppedWithOneErrorLine) {
    ApnsNotification nan = sampleNotification();
    nan.relevanceScore = std::numeric_limits<double>::quiet_NaN();
    ApnsNotification infinite = sampleNotification();
    infinite.relevanceScore = -std::numeric_limits<double>::infinity();
    ApnsNotification badTitle = sampleNotification();
    badTitle.title = "\xc3";
    const struct {
        const char* what;
        const char* name;
        ApnsNotification notification;
        std::optional<std::string> identifier;
    } cases[] = {
        {"NaN score", apnsNotificationPresentedEventName, nan, std::nullopt},
        {"NaN score", apnsNotificationOpenedEventName, nan, "open"},
        {"infinite score", apnsNotificationOpenedEventName, infinite, "open"},
        {"title not UTF-8", apnsNotificationPresentedEventName, badTitle, std::nullopt},
        {"identifier not UTF-8", apnsNotificationOpenedEventName, sampleNotification(),
         std::string("op\xffn")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.what) + ", " + c.name);
        platform::LogCapture capture;
        RecordingEmitter emitter;
        emitNotificationEvent(emitter, c.name, c.notification, c.identifier);
        EXPECT_TRUE(emitter.events.empty());
        EXPECT_EQ(
            apnsErrorLines(capture),
            std::vector<std::string>{std::string(c.name) + " dropped: payload encoding failed"});
    }

    platform::LogCapture capture;
    RecordingEmitter emitter;
    emitTokenRefreshed(emitter, "0a\xff");
    EXPECT_TRUE(emitter.events.empty());
    EXPECT_EQ(apnsErrorLines(capture),
              std::vector<std::string>{"OnTokenRefreshed dropped: payload encoding failed"});
}

TEST(ApnsEventEmission, EmptyActionIdentifierStillWrapsAndThePayloadDecodesBack) {
    const ApnsNotification n = sampleNotification();
    const auto presented = makeNotificationEventPayload(n, std::nullopt);
    ASSERT_TRUE(presented);
    EXPECT_EQ(makeNotificationEventPayload(n, ""),
              R"({"actionIdentifier":"","notification":)" + *presented + "}");
    const auto decoded = core::JSONDecoder{}.decode<ApnsNotification>(*presented);
    ASSERT_TRUE(decoded.ok()) << decoded.error().description();
    EXPECT_EQ(decoded.value(), n);
}

TEST(ApnsEventEmission, SinkThatThrowsDoesNotReachTheCaller) {
    class ThrowingEmitter : public ApnsEventEmitting {
      public:
        void emit(const std::string&, const std::string&) override {
            throw std::runtime_error("sink failed");
        }
    } emitter;
    EXPECT_NO_THROW(emitTokenRefreshed(emitter, "00"));
    EXPECT_NO_THROW(
        emitNotificationEvent(emitter, apnsNotificationOpenedEventName, sampleNotification(), ""));
}

TEST(ApnsBridgeEventEmitter, PassesBothTextsUnchangedToTheSharedDispatcher) {
    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    dispatcher.resetForTesting();
    std::mutex mutex;
    std::vector<Event> received;
    const auto subscription =
        dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
            std::lock_guard<std::mutex> lock(mutex);
            received.emplace_back(name, payload);
        });
    ASSERT_NE(subscription, 0u);

    ApnsBridgeEventEmitter emitter;
    const std::string oddPayload("not json \0 \xff at all", 20);
    emitter.emit("Any.Name", oddPayload);
    emitter.emit("", "");

    dispatcher.unsubscribe(subscription);
    dispatcher.resetForTesting();
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(received, (std::vector<Event>{{"Any.Name", oddPayload}, {"", ""}}));
}

}  // namespace
}  // namespace nimborra::apns
