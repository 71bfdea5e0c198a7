#include <gtest/gtest.h>

#include <atomic>
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

// Capturers and drainers race on one buffer; each capture carries a distinct id in its category
// and a body derived from it, so a torn or invented record shows. "Last capture wins" lets
// undrained captures vanish; what must hold is:
// - every drained record is one that was captured, whole, and no record is delivered twice;
// - a drainer sees each capturer's records in capture order;
// - the very last capture (the last one of some capturer) is delivered, by a drainer or to the
//   drain after everybody has finished, and after that the buffer is empty.
TEST(ApnsColdStartBuffer, ConcurrentCaptureAndDrainDeliverEachRecordAtMostOnce) {
    constexpr int kCapturers = 4;
    constexpr int kEach = 2000;
    ApnsColdStartBuffer buffer;
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::atomic<int> capturersRunning{kCapturers};
    std::vector<std::vector<ApnsNotification>> drainedBy(4);
    std::vector<std::thread> threads;
    for (auto& drained : drainedBy) {
        threads.emplace_back([&] {
            while (capturersRunning.load() > 0) {
                if (auto notification = buffer.drain()) {
                    drained.push_back(std::move(*notification));
                } else {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (int c = 0; c < kCapturers; ++c) {
        threads.emplace_back([&, c] {
            for (int id = c * kEach; id < (c + 1) * kEach; ++id) {
                buffer.capture(
                    Dictionary{{"aps", Dictionary{{"category", std::to_string(id)},
                                                  {"alert", "body " + std::to_string(id)}}}});
            }
            --capturersRunning;
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    if (auto leftOver = buffer.drain()) {
        EXPECT_EQ(std::stoi(leftOver->categoryIdentifier) % kEach, kEach - 1)
            << "what stays pending must be a capturer's final capture";
        drainedBy.push_back({*leftOver});
    }
    EXPECT_EQ(buffer.drain(), std::nullopt);
    std::set<int> delivered;
    for (const auto& records : drainedBy) {
        std::vector<int> last(kCapturers, -1);
        for (const ApnsNotification& n : records) {
            EXPECT_EQ(n.body, "body " + n.categoryIdentifier) << "torn record";
            const int id = std::stoi(n.categoryIdentifier);
            EXPECT_TRUE(delivered.insert(id).second) << "record " << id << " delivered twice";
            EXPECT_GT(id, last[id / kEach]) << "out of capture order";
            last[id / kEach] = id;
        }
    }
    int finalCaptures = 0;
    for (int c = 1; c <= kCapturers; ++c) {
        finalCaptures += static_cast<int>(delivered.count(c * kEach - 1));
    }
    EXPECT_GE(finalCaptures, 1) << "the last capture made was lost";
}

}  // namespace
}  // namespace nimborra::apns
