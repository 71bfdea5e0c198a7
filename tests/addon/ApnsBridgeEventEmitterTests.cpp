#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraCore/JSONDecoder.h"
#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"

namespace nimborra::apns {
namespace {

using Event = std::pair<std::string, std::string>;

class RecordingEmitter : public ApnsEventEmitting {
  public:
    void emit(const std::string& name, const std::string& payload) override {
        std::lock_guard<std::mutex> lock(mutex_);
        events_.emplace_back(name, payload);
    }
    std::vector<Event> events() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Event> events_;
};

class ThrowingEmitter : public ApnsEventEmitting {
  public:
    void emit(const std::string&, const std::string&) override {
        throw std::runtime_error("sink failed");
    }
};

ApnsNotification sampleNotification() {
    ApnsNotification n;
    n.title = "Hi/there";
    n.body = "Line\n";
    n.badge = 3;
    n.sound = "default";
    n.categoryIdentifier = "cat";
    n.threadIdentifier = "t";
    n.interruptionLevel = UNNotificationInterruptionLevel::timeSensitive;
    n.relevanceScore = 0.5;
    n.userInfoJson = R"({"url":"a/b"})";
    return n;
}

// sampleNotification() as the platform serialiser writes it: keys in byte order, "/" escaped.
constexpr const char* kSampleObject =
    R"({"badge":3,"body":"Line\n","categoryIdentifier":"cat","interruptionLevel":3,)"
    R"("launchImageName":"","relevanceScore":0.5,"sound":"default","subtitle":"",)"
    R"("targetContentIdentifier":"","threadIdentifier":"t","title":"Hi\/there",)"
    R"("userInfoJson":"{\"url\":\"a\/b\"}"})";

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

TEST(EmitTokenRefreshedTest, WritesTheSingleMemberCompactly) {
    const struct {
        std::string token;
        std::string payload;
    } cases[] = {
        {"0a1b2c", R"({"newToken":"0a1b2c"})"},
        {"", R"({"newToken":""})"},
        {"a/b\"c", R"({"newToken":"a\/b\"c"})"},
    };
    for (const auto& c : cases) {
        RecordingEmitter emitter;
        emitTokenRefreshed(emitter, c.token);
        EXPECT_EQ(emitter.events(),
                  (std::vector<Event>{{"APNSService.OnTokenRefreshed", c.payload}}))
            << c.token;
    }
}

TEST(EmitTokenRefreshedTest, TokenThatIsNotUTF8IsDroppedAndLogged) {
    platform::LogCapture capture;
    RecordingEmitter emitter;
    emitTokenRefreshed(emitter, "0a\xff");
    EXPECT_TRUE(emitter.events().empty());
    EXPECT_EQ(apnsErrorLines(capture),
              std::vector<std::string>{"OnTokenRefreshed dropped: payload encoding failed"});
}

TEST(MakeNotificationEventPayloadTest, PresentedPayloadIsTheSortedObjectAlone) {
    EXPECT_EQ(makeNotificationEventPayload(sampleNotification(), std::nullopt), kSampleObject);
}

TEST(MakeNotificationEventPayloadTest, OpenedPayloadWrapsWithIdentifierFirst) {
    for (const std::string identifier : {"open", "", "com.example/reply"}) {
        std::string identifierText;
        platform::appendJSONString(identifierText, identifier);
        EXPECT_EQ(makeNotificationEventPayload(sampleNotification(), identifier),
                  R"({"actionIdentifier":)" + identifierText + R"(,"notification":)" +
                      kSampleObject + "}")
            << identifier;
    }
}

TEST(MakeNotificationEventPayloadTest, PayloadDecodesBackToTheSameNotification) {
    ApnsNotification n = sampleNotification();
    n.relevanceScore = 0.1;
    n.badge = -7;
    n.subtitle = "caf\xc3\xa9 \xe2\x9c\x93";
    n.interruptionLevel = UNNotificationInterruptionLevel::critical;
    const auto payload = makeNotificationEventPayload(n, std::nullopt);
    ASSERT_TRUE(payload);
    const auto decoded = core::JSONDecoder{}.decode<ApnsNotification>(*payload);
    ASSERT_TRUE(decoded.ok()) << decoded.error().description();
    EXPECT_EQ(decoded.value(), n);
}

TEST(MakeNotificationEventPayloadTest, UnencodableInputsYieldNothing) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    ApnsNotification badTitle = sampleNotification();
    badTitle.title = "\xc3";
    const struct {
        const char* what;
        double relevanceScore;
        ApnsNotification base;
        std::optional<std::string> identifier;
    } cases[] = {
        {"NaN score", nan, sampleNotification(), std::nullopt},
        {"infinite score", -inf, sampleNotification(), "open"},
        {"title not UTF-8", 0.5, badTitle, std::nullopt},
        {"identifier not UTF-8", 0.5, sampleNotification(), std::string("op\xffn")},
    };
    for (const auto& c : cases) {
        ApnsNotification n = c.base;
        n.relevanceScore = c.relevanceScore;
        EXPECT_EQ(makeNotificationEventPayload(n, c.identifier), std::nullopt) << c.what;
    }
}

TEST(EmitNotificationEventTest, DeliversUnderTheGivenName) {
    RecordingEmitter emitter;
    emitNotificationEvent(emitter, apnsNotificationPresentedEventName, sampleNotification(),
                          std::nullopt);
    emitNotificationEvent(emitter, apnsNotificationOpenedEventName, sampleNotification(), "");
    EXPECT_EQ(emitter.events(),
              (std::vector<Event>{
                  {"APNSService.OnNotificationPresented", kSampleObject},
                  {"APNSService.OnNotificationOpened",
                   std::string(R"({"actionIdentifier":"","notification":)") + kSampleObject + "}"},
              }));
}

TEST(EmitNotificationEventTest, NaNScoreDropsEitherEventWithItsOwnLogLine) {
    ApnsNotification n = sampleNotification();
    n.relevanceScore = std::numeric_limits<double>::quiet_NaN();
    const struct {
        const char* name;
        std::optional<std::string> identifier;
        const char* line;
    } cases[] = {
        {"APNSService.OnNotificationPresented", std::nullopt,
         "APNSService.OnNotificationPresented dropped: payload encoding failed"},
        {"APNSService.OnNotificationOpened", "open",
         "APNSService.OnNotificationOpened dropped: payload encoding failed"},
    };
    for (const auto& c : cases) {
        platform::LogCapture capture;
        RecordingEmitter emitter;
        emitNotificationEvent(emitter, c.name, n, c.identifier);
        EXPECT_TRUE(emitter.events().empty()) << c.name;
        EXPECT_EQ(apnsErrorLines(capture), std::vector<std::string>{c.line});
    }
}

TEST(EmitNotificationEventTest, ThrowingSinkDoesNotReachTheCaller) {
    ThrowingEmitter emitter;
    EXPECT_NO_THROW(emitTokenRefreshed(emitter, "00"));
    EXPECT_NO_THROW(emitNotificationEvent(emitter, apnsNotificationOpenedEventName,
                                          sampleNotification(), "open"));
}

TEST(EmitNotificationEventTest, ConcurrentEmissionsAreIndependent) {
    RecordingEmitter emitter;
    constexpr int kThreads = 4;
    constexpr int kEventsPerThread = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&emitter] {
            for (int i = 0; i < kEventsPerThread; ++i) {
                emitNotificationEvent(emitter, apnsNotificationPresentedEventName,
                                      sampleNotification(), std::nullopt);
                emitTokenRefreshed(emitter, "0a1b2c");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto events = emitter.events();
    ASSERT_EQ(events.size(), std::size_t{kThreads * kEventsPerThread * 2});
    for (const auto& [name, payload] : events) {
        EXPECT_EQ(payload, name == "APNSService.OnTokenRefreshed" ? R"({"newToken":"0a1b2c"})"
                                                                  : kSampleObject);
    }
}

class ApnsBridgeEventEmitterTest : public ::testing::Test {
  protected:
    void SetUp() override { core::OrraBridgeDispatcher::shared().resetForTesting(); }
    void TearDown() override { core::OrraBridgeDispatcher::shared().resetForTesting(); }
};

TEST_F(ApnsBridgeEventEmitterTest, PassesBothTextsUnchangedToTheSharedDispatcher) {
    std::mutex mutex;
    std::vector<Event> received;
    const auto subscription = core::OrraBridgeDispatcher::shared().subscribe(
        [&](const std::string& name, const std::string& payload) {
            std::lock_guard<std::mutex> lock(mutex);
            received.emplace_back(name, payload);
        });
    ASSERT_NE(subscription, 0u);

    ApnsBridgeEventEmitter emitter;
    const std::string oddPayload("not json \0 \xff at all", 20);
    emitter.emit("Any.Name", oddPayload);
    emitter.emit("", "");
    emitNotificationEvent(emitter, apnsNotificationOpenedEventName, sampleNotification(), "open");

    core::OrraBridgeDispatcher::shared().unsubscribe(subscription);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(received, (std::vector<Event>{
                            {"Any.Name", oddPayload},
                            {"", ""},
                            {"APNSService.OnNotificationOpened",
                             *makeNotificationEventPayload(sampleNotification(), "open")},
                        }));
}

}  // namespace
}  // namespace nimborra::apns
