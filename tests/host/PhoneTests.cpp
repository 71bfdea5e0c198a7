// The phone wired as apns-host wires it: the real plug-in on a queue the push service delivers on
// too. A notification delivered while a session command holds the phone must not hold up that
// queue (the command's own calls are answered there), and must still reach the application, in
// order, once the phone is released.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>

#include "Application.h"
#include "Bridge.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "NimbOrraPushAddonApns/ApnsServicePlugin.h"
#include "Output.h"
#include "Phone.h"
#include "support/TestSupport.h"

namespace nimborra::host {
namespace {

platform::IncomingRemoteNotification notification(const std::string& id) {
    platform::Dictionary alert;
    alert.set("alert", platform::Value(id));
    platform::Dictionary payload;
    payload.set("aps", platform::Value(std::move(alert)));
    return {id, std::nullopt, "alert", std::move(payload), nullptr};
}

TEST(Phone, DeliveriesWhileTheSessionHoldsThePhoneWaitWithoutHoldingUpTheQueue) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
    ASSERT_TRUE(file);
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    center.reset();
    center.setAuthorizationStatus(2);
    {
        OutputWriter output(file.get());
        auto queue = std::make_shared<platform::DispatchQueue>("phone.tests.plugin");
        Bridge bridge(output,
                      std::make_shared<apns::ApnsServicePlugin>(
                          std::make_shared<apns::ApnsServiceNativeAdapterDefault>(), queue));
        Application application(bridge);
        Phone phone(output, application);
        provider::ProviderService service("com.nimborra.sample", std::nullopt, std::nullopt, phone,
                                          phone, queue);
        phone.attachProviderService(service);

        {
            const auto held = phone.exclusive();
            std::promise<void> passed;
            ASSERT_TRUE(queue->async([&] {
                phone.present(notification("first-kept"));
                phone.present(notification("second-kept"));
            }));
            ASSERT_TRUE(queue->async([&] { passed.set_value(); }));
            ASSERT_EQ(passed.get_future().wait_for(std::chrono::seconds(10)),
                      std::future_status::ready)
                << "the queue waited for the phone";
            output.writeLine("{\"command\":\"done\"}");
        }
        // The next holder comes after the kept roads: they start, in order, and finish first.
        const auto again = phone.exclusive();
        output.drain();
        // As the session does before it ends: the bridge's last replies are done with it.
        bridge.waitForReplies();
    }
    const std::string text =
        nimborra::testing::readFile("/proc/self/fd/" + std::to_string(fileno(file.get())));
    const auto done = text.find("{\"command\":\"done\"}");
    const auto first = text.find("{\"system\":{\"apnsId\":\"first-kept\"");
    const auto second = text.find("{\"system\":{\"apnsId\":\"second-kept\"");
    ASSERT_NE(first, std::string::npos) << text;
    ASSERT_NE(second, std::string::npos) << text;
    EXPECT_LT(done, first) << text;
    EXPECT_LT(first, second) << text;
}

}  // namespace
}  // namespace nimborra::host
