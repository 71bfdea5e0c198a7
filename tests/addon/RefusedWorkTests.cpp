// Every call is answered exactly once, also when the plug-in's queue cannot take it; a plug-in
// without an adapter is never registered.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"
#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

namespace nimborra::apns {
namespace {

TEST(RefusedWork, EveryCallIsAnsweredOnce) {
    platform::LogCapture capture;
    const auto refusing = platform::DispatchQueue::makeRefusingForTesting("test.refusing");

    const std::string fallback(ApnsOutcomeEnvelope::serialisationFallback);
    const auto adapter = std::make_shared<ApnsServiceNativeAdapterDefault>();
    const struct {
        std::shared_ptr<ApnsServiceNativeAdapter> adapter;
        std::shared_ptr<platform::DispatchQueue> queue;
        std::string reply;
    } cases[] = {
        {adapter, refusing, fallback},
        {adapter, nullptr, fallback},
        {nullptr, std::make_shared<platform::DispatchQueue>("test.working"),
         R"({"error":{"code":"INTERNAL","message":"ApnsService has no adapter"}})"},
    };
    for (const auto& c : cases) {
        auto plugin = std::make_shared<ApnsServicePlugin>(c.adapter, c.queue);
        std::promise<std::string> reply;
        std::atomic<int> answers{0};
        plugin->callAsync("SetBadgeCount", R"({"count":1})", [&](std::string text) {
            if (++answers == 1) {
                reply.set_value(std::move(text));
            }
        });
        auto future = reply.get_future();
        ASSERT_EQ(future.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(future.get(), c.reply);
        plugin.reset();  // joins a working queue: every answer has been given
        EXPECT_EQ(answers.load(), 1);
    }

    auto& dispatcher = core::OrraBridgeDispatcher::shared();
    dispatcher.resetForTesting();
    capture.clear();
    ApnsServicePlugin::registerPlugin(nullptr);
    EXPECT_EQ(dispatcher.plugin(ApnsServicePlugin::name), nullptr);
    EXPECT_EQ(capture.records().size(), 1u);
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
    platformCenter.reset();  // delivers what is left
    EXPECT_EQ(answers.load(), 3);
}

}  // namespace
}  // namespace nimborra::apns
