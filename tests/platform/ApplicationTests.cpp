#include "NimbOrraPlatform/Application.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "NimbOrraPlatform/DispatchQueue.h"

namespace nimborra::platform {
namespace {

using namespace std::chrono_literals;

UIApplication& application() {
    return UIApplication::sharedApplication();
}

// Registrations on the main thread (the test's), on another thread, and hopped from there back
// to the main queue are all counted; only the first and the last count as on the main thread.
TEST(ApplicationTest, CountsRegistrationsAndThoseOnTheMainThread) {
    application().reset();
    application().registerForRemoteNotifications();
    std::thread([] {
        application().registerForRemoteNotifications();
        DispatchQueue::main().async([] { application().registerForRemoteNotifications(); });
    }).join();
    EXPECT_TRUE(
        DispatchQueue::runMainUntil([] { return application().registrationCount() >= 3; }, 30s));
    EXPECT_EQ(application().registrationCount(), 3u);
    EXPECT_EQ(application().mainThreadRegistrationCount(), 2u);
}

TEST(ApplicationTest, WaitingSeesARegistrationFromAnotherThreadAndGivesUpWithout) {
    application().reset();
    EXPECT_FALSE(application().waitForRegistrationCount(1, 1ms));
    std::thread registering([] { application().registerForRemoteNotifications(); });
    EXPECT_TRUE(application().waitForRegistrationCount(1, 30s));
    registering.join();
    application().reset();
    EXPECT_EQ(application().registrationCount() + application().mainThreadRegistrationCount(), 0u);
}

}  // namespace
}  // namespace nimborra::platform
