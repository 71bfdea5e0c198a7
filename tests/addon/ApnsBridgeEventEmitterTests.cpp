// What the end-to-end tests through the bridge do not reach: the drops and their log lines, sinks
// that throw, and payloads that are not JSON passed through the production sink.
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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

// An event whose payload cannot be written is dropped with one error line under the add-on's
// subsystem and category; the sink never sees it.
TEST(ApnsEventEmission, UnencodableEventsAreDroppedWithOneErrorLine) {
    ApnsNotification nan;
    nan.relevanceScore = std::numeric_limits<double>::quiet_NaN();
    ApnsNotification infinite;
    infinite.relevanceScore = -std::numeric_limits<double>::infinity();
    ApnsNotification badTitle;
    badTitle.title = "\xc3";
    const struct {
        const char* name;
        ApnsNotification notification;
        std::optional<std::string> identifier;
    } cases[] = {
        {apnsNotificationPresentedEventName, nan, std::nullopt},
        {apnsNotificationOpenedEventName, nan, "open"},
        {apnsNotificationOpenedEventName, infinite, ""},
        {apnsNotificationPresentedEventName, badTitle, std::nullopt},
        {apnsNotificationOpenedEventName, {}, std::string("op\xffn")},
        {"OnTokenRefreshed", {}, std::nullopt},  // a token that is not UTF-8, below
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        platform::LogCapture capture;
        RecordingEmitter emitter;
        if (c.name == std::string("OnTokenRefreshed")) {
            emitTokenRefreshed(emitter, "0a\xff");
        } else {
            emitNotificationEvent(emitter, c.name, c.notification, c.identifier);
        }
        EXPECT_TRUE(emitter.events.empty());
        EXPECT_EQ(capture.records(),
                  (std::vector<platform::LogRecord>{
                      {platform::LogLevel::error, "com.nimborra.push.addon.apns", "apns",
                       std::string(c.name) + " dropped: payload encoding failed"}}));
    }
}

}  // namespace
}  // namespace nimborra::apns
