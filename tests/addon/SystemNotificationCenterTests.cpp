#include "NimbOrraPushAddonApns/SystemNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "NimbOrraPushAddonApns/ApnsCompletionBox.h"

namespace nimborra::apns {
namespace {

using namespace std::chrono_literals;
using platform::NSError;
using platform::UNUserNotificationCenter;

// Generous: only reached when an answer that should come never does.
constexpr auto kPatience = 30s;

struct AuthorizationAnswer {
    bool granted = false;
    std::optional<NSError> error;
    std::thread::id thread;
};

class SystemNotificationCenterTest : public ::testing::Test {
  protected:
    void SetUp() override { platformCenter().reset(); }
    void TearDown() override { platformCenter().reset(); }

    static UNUserNotificationCenter& platformCenter() {
        return UNUserNotificationCenter::currentNotificationCenter();
    }

    // The adapter's three waits, through the wrapper.
    static AuthorizationAnswer requestAuthorization(platform::UNAuthorizationOptions options) {
        return waitForCompletion(AuthorizationAnswer{}, [options](auto complete) {
            SystemNotificationCenter{}.requestAuthorization(
                options, [complete](bool granted, std::optional<NSError> error) {
                    complete(
                        AuthorizationAnswer{granted, std::move(error), std::this_thread::get_id()});
                });
        });
    }

    static std::pair<std::int64_t, UNAuthorizationStatus> status() {
        using Answer = std::pair<std::int64_t, UNAuthorizationStatus>;
        return waitForCompletion(Answer{0, UNAuthorizationStatus::unspecified}, [](auto complete) {
            SystemNotificationCenter{}.getAuthorizationStatus([complete](std::int64_t raw) {
                complete(Answer{raw, authorizationStatusFromPlatform(raw)});
            });
        });
    }

    static std::optional<NSError> setBadgeCount(std::int64_t count) {
        return waitForCompletion(
            std::optional<NSError>(NSError{"never answered", -1}), [count](auto complete) {
                SystemNotificationCenter{}.setBadgeCount(
                    count,
                    [complete](std::optional<NSError> error) { complete(std::move(error)); });
            });
    }
};

TEST_F(SystemNotificationCenterTest, AuthorizationAnswerIsPassedOnUnchanged) {
    const struct {
        bool granted;
        std::optional<NSError> error;
    } cases[] = {
        {true, std::nullopt},
        {false, std::nullopt},
        {false, NSError{std::string(platform::UNErrorDomain), 1}},
        {true, NSError{"OtherDomain", -42}},
    };
    for (const auto& c : cases) {
        platformCenter().setAuthorizationAnswer(c.granted, c.error);
        const AuthorizationAnswer answer = requestAuthorization(
            platform::UNAuthorizationOptionAlert | platform::UNAuthorizationOptionProvisional);
        EXPECT_EQ(answer.granted, c.granted);
        EXPECT_EQ(answer.error, c.error);
        // Delivered by the platform on a thread of its own, and still seen here.
        EXPECT_NE(answer.thread, std::this_thread::get_id());
    }
    EXPECT_EQ(platformCenter().lastAuthorizationOptions(),
              platform::UNAuthorizationOptionAlert | platform::UNAuthorizationOptionProvisional);
    EXPECT_EQ(platformCenter().authorizationRequestCount(), std::size(cases));
}

TEST_F(SystemNotificationCenterTest, PlatformStatusIsPassedRawAndMappedToTheWireCase) {
    const struct {
        std::int64_t raw;
        UNAuthorizationStatus expected;
    } cases[] = {
        {0, UNAuthorizationStatus::notDetermined},
        {1, UNAuthorizationStatus::denied},
        {2, UNAuthorizationStatus::authorized},
        {3, UNAuthorizationStatus::provisional},
        {4, UNAuthorizationStatus::ephemeral},
        {5, UNAuthorizationStatus::unspecified},
        {7, UNAuthorizationStatus::unspecified},
        {-1, UNAuthorizationStatus::unspecified},
        {std::numeric_limits<std::int64_t>::min(), UNAuthorizationStatus::unspecified},
    };
    for (const auto& c : cases) {
        platformCenter().setAuthorizationStatus(c.raw);
        const auto [raw, mapped] = status();
        EXPECT_EQ(raw, c.raw);
        EXPECT_EQ(mapped, c.expected) << c.raw;
    }
}

TEST_F(SystemNotificationCenterTest, BadgeCountAndErrorArePassedThrough) {
    EXPECT_EQ(setBadgeCount(0), std::nullopt);
    EXPECT_EQ(platformCenter().lastBadgeCount(), 0);

    const NSError failure{std::string(platform::UNErrorDomain), 3};
    platformCenter().setBadgeError(failure);
    EXPECT_EQ(setBadgeCount(-5), failure);
    EXPECT_EQ(platformCenter().lastBadgeCount(), -5);

    // Nobody waits for this answer; the request is made all the same.
    SystemNotificationCenter{}.setBadgeCount(12, {});
    EXPECT_EQ(platformCenter().lastBadgeCount(), 12);
}

TEST_F(SystemNotificationCenterTest, WaiterStaysBlockedWhileTheAnswerIsHeld) {
    platformCenter().setHoldsAnswers(true);
    std::atomic<bool> returned{false};
    std::promise<std::optional<NSError>> result;
    auto future = result.get_future();
    std::thread waiter([&] {
        result.set_value(setBadgeCount(9));
        returned = true;
    });

    // Wait until the request has reached the platform, then give the waiter a chance to return
    // wrongly before releasing the answer.
    for (auto waited = 0ms; platformCenter().heldAnswerCount() == 0 && waited < kPatience;
         waited += 1ms) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(platformCenter().heldAnswerCount(), 1u);
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(returned.load());

    platformCenter().setHoldsAnswers(false);
    const bool answered = future.wait_for(kPatience) == std::future_status::ready;
    if (!answered) {
        platformCenter().reset();  // releases the waiter so that it can be joined
    }
    waiter.join();
    ASSERT_TRUE(answered);
    EXPECT_EQ(future.get(), std::nullopt);
}

TEST(WaitForCompletionTest, ResultFromAnotherThreadIsSeen) {
    std::thread answering;
    const std::string value = waitForCompletion(std::string("initial"), [&](auto complete) {
        answering = std::thread([complete] {
            std::this_thread::sleep_for(10ms);
            complete(std::string("from another thread"));
        });
    });
    answering.join();
    EXPECT_EQ(value, "from another thread");
}

TEST(WaitForCompletionTest, AnswerOnTheCallingThreadDoesNotDeadlock) {
    EXPECT_EQ(waitForCompletion(1, [](auto complete) { complete(2); }), 2);
}

TEST(WaitForCompletionTest, OnlyTheFirstAnswerCounts) {
    std::thread answering;
    const int value = waitForCompletion(0, [&](auto complete) {
        answering = std::thread([complete] {
            complete(1);
            complete(2);
        });
    });
    answering.join();
    EXPECT_EQ(value, 1);
}

TEST(WaitForCompletionTest, StartThatThrowsGivesTheInitialValueOrTheAnswerAlreadyGiven) {
    EXPECT_EQ(waitForCompletion(7, [](auto) { throw std::runtime_error("no request"); }), 7);
    EXPECT_EQ(waitForCompletion(7,
                                [](auto complete) {
                                    complete(8);
                                    throw std::runtime_error("after the answer");
                                }),
              8);

    // A handler that fires after the failed start must not touch the box any more.
    std::optional<ApnsCompletion<int>> kept;
    EXPECT_EQ(waitForCompletion(7,
                                [&](ApnsCompletion<int> complete) {
                                    kept.emplace(complete);
                                    throw std::runtime_error("handler still pending");
                                }),
              7);
    ASSERT_TRUE(kept);
    (*kept)(9);
}

}  // namespace
}  // namespace nimborra::apns
