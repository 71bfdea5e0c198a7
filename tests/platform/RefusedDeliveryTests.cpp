// The notification center calls every handler even when its delivery queue cannot take the
// answer; a caller waiting for one is never left blocked.
#include <gtest/gtest.h>

#include "NimbOrraPlatform/DispatchQueue.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"

namespace nimborra::platform {
namespace {

TEST(RefusedDelivery, CenterAnswersOnTheRequestingThread) {
    auto& center = UNUserNotificationCenter::currentNotificationCenter();
    EXPECT_FALSE(center.holdsAnswers()) << "a centre holds answers only when told to";
    center.reset();
    center.setDeliveryQueueForTesting(DispatchQueue::makeRefusingForTesting("test.refusing"));
    LogCapture quiet;
    int answers = 0;
    // Each answer comes before its request returns.
    center.requestAuthorizationWithOptions(1, [&](bool, std::optional<NSError>) { ++answers; });
    EXPECT_EQ(answers, 1);
    center.getNotificationSettingsWithCompletionHandler([&](UNNotificationSettings) { ++answers; });
    EXPECT_EQ(answers, 2);
    center.setBadgeCount(3, [&](std::optional<NSError>) { ++answers; });
    EXPECT_EQ(answers, 3);
    center.setHoldsAnswers(true);
    center.setBadgeCount(4, [&](std::optional<NSError>) { ++answers; });
    EXPECT_EQ(answers, 3);
    center.setHoldsAnswers(false);
    EXPECT_EQ(answers, 4);
    center.setDeliveryQueueForTesting(nullptr);
    center.reset();
}

}  // namespace
}  // namespace nimborra::platform
