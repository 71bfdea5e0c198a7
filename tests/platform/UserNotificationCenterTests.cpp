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

using namespace std::chrono_literals;

// Generous: only reached when an answer that should come never does.
constexpr auto kPatience = 30s;

UNUserNotificationCenter& center() {
    return UNUserNotificationCenter::currentNotificationCenter();
}

// Collects what the handlers report and lets the test wait for it. Handlers must never run inside
// the request, so an entry added on the thread that made the log is marked.
class AnswerLog {
  public:
    void add(const std::string& entry) {
        std::lock_guard<std::mutex> lock(mutex_);
        entries_.push_back(std::this_thread::get_id() == owner_ ? entry + " (inline)" : entry);
        changed_.notify_all();
    }
    // Waits for `count` entries and returns them all (fewer only after running out of patience).
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, kPatience, [&] { return entries_.size() >= count; });
        return entries_;
    }

    // Asks all three services once, logging their answers.
    void askEverything() {
        center().requestAuthorizationWithOptions(
            UNAuthorizationOptionAlert, [this](bool granted, std::optional<NSError> error) {
                add(std::string(granted ? "granted" : "denied") +
                    (error ? " " + error->domain : ""));
            });
        center().getNotificationSettingsWithCompletionHandler([this](UNNotificationSettings s) {
            add("status " + std::to_string(s.authorizationStatus));
        });
        center().setBadgeCount(4, [this](std::optional<NSError> error) {
            add(error ? "badge " + error->domain : "badge set");
        });
    }

  private:
    const std::thread::id owner_ = std::this_thread::get_id();
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> entries_;
};

class UserNotificationCenterTest : public ::testing::Test {
  protected:
    void SetUp() override { center().reset(); }
    void TearDown() override { center().reset(); }
};

// Held answers were fixed when they were asked for: reset() delivers them (so nobody stays
// blocked) before it restores the defaults that later requests receive. The granted request is
// remembered: the settings asked after it report authorized.
TEST_F(UserNotificationCenterTest, HeldAnswersKeepWhatWasProgrammedAndResetReleasesThem) {
    AnswerLog log;
    center().setHoldsAnswers(true);
    center().setAuthorizationAnswer(false, NSError{"AuthDomain", 1});
    center().setAuthorizationStatus(-7);  // any raw value is passed on
    center().setBadgeError(NSError{"BadgeDomain", 5});
    log.askEverything();
    EXPECT_EQ(center().heldAnswerCount(), 3u);
    EXPECT_EQ(center().lastBadgeCount(), 4);
    EXPECT_TRUE(log.waitFor(0).empty());

    center().reset();
    EXPECT_FALSE(center().holdsAnswers());
    EXPECT_FALSE(center().lastBadgeCount().has_value());
    EXPECT_EQ(center().badgeRequestCount(), 0u);
    log.askEverything();
    EXPECT_EQ(log.waitFor(6),
              (std::vector<std::string>{"denied AuthDomain", "status -7", "badge BadgeDomain",
                                        "granted", "status 2", "badge set"}));
}

// Handlers may also call the center again: they never run under its lock.
TEST_F(UserNotificationCenterTest, HandlersRunOneAtATimeAcrossRequestingThreads) {
    constexpr std::size_t kRequests = 4 * 50;
    // Unguarded on purpose: handlers must never overlap, and the thread sanitizer would notice.
    int inFlight = 0;
    AnswerLog log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (std::size_t i = 0; i < kRequests / 4; ++i) {
                center().setBadgeCount(1, [&](std::optional<NSError>) {
                    ++inFlight;
                    center().setBadgeCount(0, {});
                    log.add(std::to_string(inFlight--));
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(log.waitFor(kRequests), std::vector<std::string>(kRequests, "1"));
    EXPECT_EQ(center().badgeRequestCount(), 2 * kRequests);
}

}  // namespace
}  // namespace nimborra::platform
