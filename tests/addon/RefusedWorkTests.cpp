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
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"

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

}  // namespace
}  // namespace nimborra::apns
