#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "NimbOrraPushAddonApns/ApnsCompletionBox.h"

namespace nimborra::apns {
namespace {

using namespace std::chrono_literals;
using platform::NSError;
using platform::UNUserNotificationCenter;

// Generous: only reached when an answer that should come never does.
constexpr auto kPatience = 30s;

UNUserNotificationCenter& platformCenter() {
    return UNUserNotificationCenter::currentNotificationCenter();
}

class SystemNotificationCenterTest : public ::testing::Test {
  protected:
    void SetUp() override { platformCenter().reset(); }
    void TearDown() override { platformCenter().reset(); }
};

// The platform answers on a thread of its own; what it wrote is seen by the waiting thread.
TEST_F(SystemNotificationCenterTest, AnswerFromThePlatformThreadReachesTheWaiter) {
    const NSError failure{std::string(platform::UNErrorDomain), 1};
    platformCenter().setAuthorizationAnswer(true, failure);
    using Answer = std::tuple<bool, std::optional<NSError>, std::thread::id>;
    const Answer answer = waitForCompletion(Answer{}, [](auto complete) {
        SystemNotificationCenter{}.requestAuthorization(
            platform::UNAuthorizationOptionAlert,
            [complete](bool granted, std::optional<NSError> error) {
                complete(Answer{granted, std::move(error), std::this_thread::get_id()});
            });
    });
    EXPECT_EQ(answer, (Answer{true, failure, std::get<2>(answer)}));
    EXPECT_NE(std::get<2>(answer), std::this_thread::get_id());
}

TEST_F(SystemNotificationCenterTest, StatusesOutsideZeroToFourAreUnspecified) {
    const std::pair<std::int64_t, UNAuthorizationStatus> cases[] = {
        {0, UNAuthorizationStatus::notDetermined},
        {4, UNAuthorizationStatus::ephemeral},
        {5, UNAuthorizationStatus::unspecified},
        {-1, UNAuthorizationStatus::unspecified},
        {std::numeric_limits<std::int64_t>::min(), UNAuthorizationStatus::unspecified},
        {std::numeric_limits<std::int64_t>::max(), UNAuthorizationStatus::unspecified},
    };
    for (const auto& [raw, expected] : cases) {
        platformCenter().setAuthorizationStatus(raw);
        const std::int64_t passed = waitForCompletion(std::int64_t{12345}, [](auto complete) {
            SystemNotificationCenter{}.getAuthorizationStatus(complete);
        });
        EXPECT_EQ(passed, raw);
        EXPECT_EQ(authorizationStatusFromPlatform(passed), expected) << raw;
    }
}

TEST_F(SystemNotificationCenterTest, WaiterStaysBlockedUntilTheAnswerIsReleased) {
    platformCenter().setHoldsAnswers(true);
    auto answer = std::async(std::launch::async, [] {
        return waitForCompletion(
            std::optional<NSError>(NSError{"never answered", -1}),
            [](auto complete) { SystemNotificationCenter{}.setBadgeCount(9, complete); });
    });
    // Once the request has reached the platform, give the waiter a chance to return wrongly.
    for (auto waited = 0ms; platformCenter().heldAnswerCount() == 0 && waited < kPatience;
         waited += 1ms) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(platformCenter().heldAnswerCount(), 1u);
    EXPECT_EQ(answer.wait_for(50ms), std::future_status::timeout);

    platformCenter().setHoldsAnswers(false);
    if (answer.wait_for(kPatience) != std::future_status::ready) {
        platformCenter().reset();  // releases the waiter, so that the future can be destroyed
        FAIL() << "the released answer never arrived";
    }
    EXPECT_EQ(answer.get(), std::nullopt);
    EXPECT_EQ(platformCenter().lastBadgeCount(), 9);
}

// A handler that fires twice must not race the waiter's read; a start that throws is taken as
// never answered, unless it had answered already.
TEST(WaitForCompletionTest, OnlyTheFirstAnswerCountsAndAFailedStartIsNotWaitedFor) {
    std::thread answering;
    EXPECT_EQ(waitForCompletion(0,
                                [&](auto complete) {
                                    answering = std::thread([complete] {
                                        complete(1);
                                        complete(2);
                                    });
                                }),
              1);
    answering.join();

    EXPECT_EQ(waitForCompletion(7, [](auto) { throw std::runtime_error("no request"); }), 7);
    EXPECT_EQ(waitForCompletion(7,
                                [](auto complete) {
                                    complete(8);
                                    throw std::runtime_error("after the answer");
                                }),
              8);
}

}  // namespace
}  // namespace nimborra::apns
