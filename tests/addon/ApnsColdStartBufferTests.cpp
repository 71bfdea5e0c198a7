#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::apns {
namespace {

using platform::Dictionary;

Dictionary launchPayload(const std::string& body) {
    return Dictionary{{"aps", Dictionary{{"alert", body}}}};
}

TEST(ApnsColdStartBuffer, HoldsTheLastCaptureUntilDrainedOnce) {
    ApnsColdStartBuffer buffer;
    EXPECT_EQ(buffer.drain(), std::nullopt);
    buffer.capture(launchPayload("A"));
    buffer.capture(launchPayload("B"));
    EXPECT_EQ(buffer.drain(), ApnsNotificationMapper::map(launchPayload("B")));
    EXPECT_EQ(buffer.drain(), std::nullopt);
}

TEST(ApnsColdStartBuffer, EveryThreadMeetsTheSameSharedBuffer) {
    // Started together, so that the first use may race between threads.
    std::vector<ApnsColdStartBuffer*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] { seen[i] = ApnsColdStartBuffer::shared().get(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_NE(seen[0], nullptr);
    for (ApnsColdStartBuffer* instance : seen) {
        EXPECT_EQ(instance, ApnsColdStartBuffer::shared().get());
    }
}

// Capturers and drainers race on one buffer. Each capture carries a distinct id in its category
// and a body derived from it, so a torn or invented record shows. "Last capture wins" lets
// undrained captures vanish; what must hold is:
// - every drained record is one that was captured, whole, and no record is delivered twice;
// - a drainer sees each capturer's records in capture order (a record taken out can only be
//   followed by one stored later, and a capturer stores in order);
// - the very last capture (the last one of some capturer) is delivered: either a drainer took
//   it, or it is still pending once everybody has finished.
TEST(ApnsColdStartBuffer, ConcurrentCaptureAndDrainDeliverEachRecordAtMostOnce) {
    constexpr int kCapturers = 4;
    constexpr int kCapturesEach = 2000;
    constexpr int kDrainers = 4;
    auto idOf = [](int capturer, int index) { return capturer * kCapturesEach + index; };

    ApnsColdStartBuffer buffer;
    std::atomic<int> capturersRunning{kCapturers};
    std::vector<std::vector<ApnsNotification>> drainedBy(kDrainers);

    std::vector<std::thread> threads;
    for (int d = 0; d < kDrainers; ++d) {
        threads.emplace_back([&, d] {
            while (capturersRunning.load() > 0) {
                if (auto notification = buffer.drain()) {
                    drainedBy[static_cast<std::size_t>(d)].push_back(std::move(*notification));
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int c = 0; c < kCapturers; ++c) {
        threads.emplace_back([&, c] {
            for (int i = 0; i < kCapturesEach; ++i) {
                const int id = idOf(c, i);
                buffer.capture(
                    Dictionary{{"aps", Dictionary{{"category", std::to_string(id)},
                                                  {"alert", "body " + std::to_string(id)}}}});
            }
            capturersRunning.fetch_sub(1);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const std::optional<ApnsNotification> leftOver = buffer.drain();
    EXPECT_EQ(buffer.drain(), std::nullopt);

    std::set<int> delivered;
    auto deliver = [&](const ApnsNotification& n) {
        EXPECT_EQ(n.body, "body " + n.categoryIdentifier) << "torn record";
        const int id = std::stoi(n.categoryIdentifier);
        EXPECT_TRUE(delivered.insert(id).second) << "record " << id << " delivered twice";
        return id;
    };
    for (const auto& records : drainedBy) {
        std::vector<int> lastIndexOf(kCapturers, -1);
        for (const ApnsNotification& n : records) {
            const int id = deliver(n);
            int& last = lastIndexOf.at(static_cast<std::size_t>(id / kCapturesEach));
            EXPECT_GT(id % kCapturesEach, last) << "capturer " << id / kCapturesEach;
            last = id % kCapturesEach;
        }
    }
    if (leftOver) {
        EXPECT_EQ(deliver(*leftOver) % kCapturesEach, kCapturesEach - 1)
            << "what stays pending must be a capturer's final capture";
    }
    int finalCapturesDelivered = 0;
    for (int c = 0; c < kCapturers; ++c) {
        finalCapturesDelivered += static_cast<int>(delivered.count(idOf(c, kCapturesEach - 1)));
    }
    EXPECT_GE(finalCapturesDelivered, 1) << "the last capture made was lost";
}

}  // namespace
}  // namespace nimborra::apns
