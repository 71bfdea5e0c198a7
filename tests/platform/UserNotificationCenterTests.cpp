#include "NimbOrraPlatform/UserNotificationCenter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace nimborra::platform {
namespace {

UNUserNotificationCenter& center() {
    return UNUserNotificationCenter::currentNotificationCenter();
}

// What the handlers report, in order; an entry made on the thread that asked is marked, since
// handlers must never run inside the request.
class AnswerLog {
  public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::this_thread::get_id() == owner_ ? entry + " (inline)" : entry);
        changed_.notify_all();
    }
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(30), [&] { return entries_.size() >= count; });
        return entries_;
    }

  private:
    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> entries_;
};

// Held answers keep what was programmed when they were asked for: reset() delivers them (so
// nobody stays blocked) before it restores the defaults that later requests receive.
TEST(UserNotificationCenterTest, HeldAnswersKeepWhatWasProgrammedAndResetReleasesThem) {
    center().reset();
    AnswerLog log;
    const auto askEverything = [&] {
        center().requestAuthorizationWithOptions(
            UNAuthorizationOptionAlert, [&](bool granted, std::optional<NSError> error) {
                log.add(std::string(granted ? "granted" : "denied") +
                        (error ? " " + error->domain : ""));
            });
        center().getNotificationSettingsWithCompletionHandler([&](UNNotificationSettings s) {
            log.add("status " + std::to_string(s.authorizationStatus));
        });
        center().setBadgeCount(4, [&](std::optional<NSError> error) {
            log.add(error ? "badge " + error->domain : "badge set");
        });
    };
    center().setHoldsAnswers(true);
    center().setAuthorizationAnswer(false, NSError{"AuthDomain", 1});
    center().setAuthorizationStatus(-7);  // any raw value is passed on
    center().setBadgeError(NSError{"BadgeDomain", 5});
    askEverything();
    EXPECT_EQ(center().heldAnswerCount(), 3u);
    EXPECT_EQ(center().lastBadgeCount(), 4);
    EXPECT_EQ(center().lastAuthorizationOptions(), UNAuthorizationOptionAlert);
    EXPECT_TRUE(log.waitFor(0).empty());

    center().reset();
    EXPECT_FALSE(center().holdsAnswers());
    EXPECT_FALSE(center().lastBadgeCount().has_value());
    EXPECT_FALSE(center().lastAuthorizationOptions().has_value());
    EXPECT_EQ(center().badgeRequestCount(), 0u);
    askEverything();
    EXPECT_EQ(log.waitFor(6),
              (std::vector<std::string>{"denied AuthDomain", "status -7", "badge BadgeDomain",
                                        "granted", "status 0", "badge set"}));
}

}  // namespace
}  // namespace nimborra::platform
