#include "NimbOrraPlatform/UserNotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <future>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace nimborra::platform {
namespace {

using namespace std::chrono_literals;

// Generous: only reached when an answer that should come never does.
constexpr auto kPatience = 30s;

struct AuthorizationAnswer {
    bool granted = false;
    std::optional<NSError> error;
    std::thread::id thread;
};

class UserNotificationCenterTest : public ::testing::Test {
  protected:
    void SetUp() override { center().reset(); }
    void TearDown() override { center().reset(); }

    static UNUserNotificationCenter& center() {
        return UNUserNotificationCenter::currentNotificationCenter();
    }

    static AuthorizationAnswer requestAuthorization(UNAuthorizationOptions options) {
        std::promise<AuthorizationAnswer> promise;
        auto future = promise.get_future();
        center().requestAuthorizationWithOptions(
            options, [&promise](bool granted, std::optional<NSError> error) {
                promise.set_value({granted, std::move(error), std::this_thread::get_id()});
            });
        EXPECT_EQ(future.wait_for(kPatience), std::future_status::ready);
        return future.get();
    }

    static std::int64_t settingsStatus() {
        std::promise<std::int64_t> promise;
        auto future = promise.get_future();
        center().getNotificationSettingsWithCompletionHandler(
            [&promise](UNNotificationSettings settings) {
                promise.set_value(settings.authorizationStatus);
            });
        EXPECT_EQ(future.wait_for(kPatience), std::future_status::ready);
        return future.get();
    }

    static std::optional<NSError> badgeAnswer(std::int64_t count) {
        std::promise<std::optional<NSError>> promise;
        auto future = promise.get_future();
        center().setBadgeCount(count, [&promise](std::optional<NSError> error) {
            promise.set_value(std::move(error));
        });
        EXPECT_EQ(future.wait_for(kPatience), std::future_status::ready);
        return future.get();
    }
};

TEST_F(UserNotificationCenterTest, HandlersRunOnTheCentersOwnThread) {
    const auto answer = requestAuthorization(UNAuthorizationOptionAlert);
    EXPECT_NE(answer.thread, std::this_thread::get_id());

    // The same delivery thread serves every kind of request.
    std::promise<std::thread::id> settingsThread;
    center().getNotificationSettingsWithCompletionHandler(
        [&](UNNotificationSettings) { settingsThread.set_value(std::this_thread::get_id()); });
    auto future = settingsThread.get_future();
    ASSERT_EQ(future.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(future.get(), answer.thread);
}

TEST_F(UserNotificationCenterTest, AuthorizationAnswersAreDeliveredAsProgrammed) {
    struct Case {
        bool granted;
        std::optional<NSError> error;
    };
    const Case cases[] = {
        {true, std::nullopt},
        {false, std::nullopt},
        {false, NSError{std::string(UNErrorDomain), UNErrorCodeNotificationsNotAllowed}},
        {false, NSError{"NSCocoaErrorDomain", -42}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.error ? c.error->domain : "no error");
        center().setAuthorizationAnswer(c.granted, c.error);
        const auto answer = requestAuthorization(UNAuthorizationOptionBadge);
        EXPECT_EQ(answer.granted, c.granted);
        EXPECT_EQ(answer.error, c.error);
    }
}

TEST_F(UserNotificationCenterTest, SettingsReportAnyRawStatus) {
    const std::int64_t statuses[] = {UNAuthorizationStatusDenied,
                                     UNAuthorizationStatusAuthorized,
                                     UNAuthorizationStatusEphemeral,
                                     7,
                                     -1,
                                     std::numeric_limits<std::int64_t>::max()};
    for (const std::int64_t status : statuses) {
        center().setAuthorizationStatus(status);
        EXPECT_EQ(settingsStatus(), status);
    }
}

TEST_F(UserNotificationCenterTest, BadgeAnswersWithTheProgrammedError) {
    const NSError failure{std::string(UNErrorDomain), 5};
    center().setBadgeError(failure);
    EXPECT_EQ(badgeAnswer(1), failure);
    center().setBadgeError(std::nullopt);
    EXPECT_FALSE(badgeAnswer(1).has_value());
}

TEST_F(UserNotificationCenterTest, RecordsWhatItWasAsked) {
    EXPECT_FALSE(center().lastAuthorizationOptions().has_value());
    EXPECT_FALSE(center().lastBadgeCount().has_value());

    requestAuthorization(UNAuthorizationOptionAlert | UNAuthorizationOptionSound);
    requestAuthorization(UNAuthorizationOptionProvisional);
    settingsStatus();
    badgeAnswer(-7);
    badgeAnswer(0);
    // Requests without a handler are still recorded.
    center().setBadgeCount(12, {});

    EXPECT_EQ(center().lastAuthorizationOptions(), UNAuthorizationOptionProvisional);
    EXPECT_EQ(center().lastBadgeCount(), 12);
    EXPECT_EQ(center().authorizationRequestCount(), 2u);
    EXPECT_EQ(center().settingsRequestCount(), 1u);
    EXPECT_EQ(center().badgeRequestCount(), 3u);

    center().reset();
    EXPECT_FALSE(center().lastAuthorizationOptions().has_value());
    EXPECT_FALSE(center().lastBadgeCount().has_value());
    EXPECT_EQ(center().authorizationRequestCount(), 0u);
    EXPECT_EQ(center().settingsRequestCount(), 0u);
    EXPECT_EQ(center().badgeRequestCount(), 0u);
}

TEST_F(UserNotificationCenterTest, ResetRestoresDefaultAnswers) {
    center().setAuthorizationAnswer(false, NSError{"D", 9});
    center().setAuthorizationStatus(UNAuthorizationStatusDenied);
    center().setBadgeError(NSError{"D", 1});
    center().reset();
    const auto answer = requestAuthorization(0);
    EXPECT_TRUE(answer.granted);
    EXPECT_FALSE(answer.error.has_value());
    EXPECT_EQ(settingsStatus(), UNAuthorizationStatusNotDetermined);
    EXPECT_FALSE(badgeAnswer(0).has_value());
}

// Runs on a blocked caller's behalf: counts answers as they arrive and lets the test wait for them.
class AnswerLog {
  public:
    void add(std::string entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::move(entry));
        changed_.notify_all();
    }
    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, kPatience, [&] { return entries_.size() >= count; });
    }
    std::vector<std::string> entries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return entries_;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> entries_;
};

TEST_F(UserNotificationCenterTest, HeldAnswersAreReleasedInOrderWithTheAnswerOfTheirRequest) {
    AnswerLog log;
    center().setHoldsAnswers(true);
    EXPECT_TRUE(center().holdsAnswers());

    center().setAuthorizationAnswer(false, std::nullopt);
    center().requestAuthorizationWithOptions(
        1, [&](bool granted, std::optional<NSError>) { log.add(granted ? "granted" : "denied"); });
    center().setAuthorizationStatus(UNAuthorizationStatusAuthorized);
    center().getNotificationSettingsWithCompletionHandler([&](UNNotificationSettings settings) {
        log.add("status " + std::to_string(settings.authorizationStatus));
    });
    center().setBadgeCount(
        4, [&](std::optional<NSError> error) { log.add(error ? "badge failed" : "badge set"); });
    // Answers programmed after a request do not change what that request receives.
    center().setAuthorizationAnswer(true, std::nullopt);
    center().setAuthorizationStatus(UNAuthorizationStatusDenied);
    center().setBadgeError(NSError{"D", 1});

    EXPECT_EQ(center().heldAnswerCount(), 3u);
    EXPECT_TRUE(log.entries().empty());
    // Recording does not wait for the answers.
    EXPECT_EQ(center().lastBadgeCount(), 4);

    center().setHoldsAnswers(false);
    ASSERT_TRUE(log.waitFor(3));
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"denied", "status 2", "badge set"}));
    EXPECT_EQ(center().heldAnswerCount(), 0u);
}

TEST_F(UserNotificationCenterTest, ReleasingHoldingFreesABlockedCaller) {
    center().setHoldsAnswers(true);
    std::atomic<bool> returned{false};
    std::thread caller([&] {
        // The waiting pattern of a synchronous caller: block until the handler signals.
        std::promise<bool> granted;
        center().requestAuthorizationWithOptions(
            UNAuthorizationOptionAlert,
            [&granted](bool value, std::optional<NSError>) { granted.set_value(value); });
        EXPECT_TRUE(granted.get_future().get());
        returned.store(true);
    });
    // Wait until the request is in, then check the caller is still blocked on it.
    while (center().heldAnswerCount() == 0) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(returned.load());
    center().setHoldsAnswers(false);
    caller.join();
    EXPECT_TRUE(returned.load());
}

TEST_F(UserNotificationCenterTest, ResetReleasesHeldAnswers) {
    AnswerLog log;
    center().setHoldsAnswers(true);
    center().setBadgeCount(1, [&](std::optional<NSError>) { log.add("badge"); });
    center().reset();
    EXPECT_FALSE(center().holdsAnswers());
    EXPECT_EQ(center().heldAnswerCount(), 0u);
    ASSERT_TRUE(log.waitFor(1));
}

TEST_F(UserNotificationCenterTest, HandlersRunOneAtATimeAcrossRequestingThreads) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 50;
    // Unguarded on purpose: handlers never overlap, so plain state is safe (and the thread
    // sanitizer would notice if they did).
    std::vector<int> delivered;
    int inFlight = 0;
    int overlaps = 0;
    AnswerLog done;

    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i) {
                center().setBadgeCount(t, [&, t](std::optional<NSError>) {
                    if (++inFlight != 1) {
                        ++overlaps;
                    }
                    delivered.push_back(t);
                    --inFlight;
                    done.add({});
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(done.waitFor(kThreads * kPerThread));
    EXPECT_EQ(overlaps, 0);
    EXPECT_EQ(delivered.size(), static_cast<std::size_t>(kThreads * kPerThread));
    EXPECT_EQ(center().badgeRequestCount(), static_cast<std::size_t>(kThreads * kPerThread));
}

TEST_F(UserNotificationCenterTest, HandlerMayCallTheCenterAgain) {
    AnswerLog log;
    center().getNotificationSettingsWithCompletionHandler([&](UNNotificationSettings) {
        log.add("settings");
        center().setBadgeCount(0, [&](std::optional<NSError>) { log.add("badge"); });
    });
    ASSERT_TRUE(log.waitFor(2));
    EXPECT_EQ(log.entries(), (std::vector<std::string>{"settings", "badge"}));
}

}  // namespace
}  // namespace nimborra::platform
