#include "NimbOrraPlatform/Application.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include "NimbOrraPlatform/DispatchQueue.h"

namespace nimborra::platform {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 30s;

class ApplicationTest : public ::testing::Test {
  protected:
    void SetUp() override { application().reset(); }
    void TearDown() override { application().reset(); }

    static UIApplication& application() { return UIApplication::sharedApplication(); }
};

TEST_F(ApplicationTest, CountsRegistrationsAndThoseOnTheMainThread) {
    ASSERT_TRUE(isMainThread()) << "the test program runs its tests on the main thread";
    application().registerForRemoteNotifications();
    std::thread background([] { application().registerForRemoteNotifications(); });
    background.join();
    application().registerForRemoteNotifications();

    EXPECT_EQ(application().registrationCount(), 3u);
    EXPECT_EQ(application().mainThreadRegistrationCount(), 2u);

    application().reset();
    EXPECT_EQ(application().registrationCount(), 0u);
    EXPECT_EQ(application().mainThreadRegistrationCount(), 0u);
}

TEST_F(ApplicationTest, WaitingSeesRegistrationsFromOtherThreads) {
    constexpr std::size_t kThreads = 4;
    const std::size_t before = application().registrationCount();
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([] { application().registerForRemoteNotifications(); });
    }
    EXPECT_TRUE(application().waitForRegistrationCount(before + kThreads, kPatience));
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(application().registrationCount(), before + kThreads);
    EXPECT_EQ(application().mainThreadRegistrationCount(), 0u);
}

TEST_F(ApplicationTest, WaitingGivesUpWhenNothingRegisters) {
    EXPECT_FALSE(application().waitForRegistrationCount(1, 1ms));
    application().registerForRemoteNotifications();
    // Already reached: no waiting at all.
    EXPECT_TRUE(application().waitForRegistrationCount(1, 0ms));
}

TEST_F(ApplicationTest, RegistrationHoppedToTheMainQueueRunsOnTheMainThread) {
    std::thread background([] {
        DispatchQueue::main().async([] { application().registerForRemoteNotifications(); });
    });
    background.join();
    EXPECT_TRUE(DispatchQueue::runMainUntil(
        [] { return application().registrationCount() >= 1; },
        std::chrono::duration_cast<std::chrono::milliseconds>(kPatience)));
    EXPECT_EQ(application().mainThreadRegistrationCount(), 1u);
}

}  // namespace
}  // namespace nimborra::platform
