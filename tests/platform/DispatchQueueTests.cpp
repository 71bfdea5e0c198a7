#include "NimbOrraPlatform/DispatchQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::platform {
namespace {

using namespace std::chrono_literals;

// Generous bound for waiting on something that should happen; never an assertion about speed.
constexpr auto patience = 30s;

TEST(DispatchQueueTest, RunsItemsFromManySubmittersOneAtATimeInSubmissionOrder) {
    constexpr int submitters = 4;
    constexpr int itemsEach = 500;
    DispatchQueue queue("com.example.ordering");

    // Touched only by the queue's items; read after the last one has signalled.
    std::vector<std::pair<int, int>> ran;
    std::vector<std::thread::id> ranOn;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> notCurrent{false};
    std::counting_semaphore<submitters * itemsEach> finished(0);

    std::vector<std::thread::id> submitterIds(submitters);
    std::vector<std::thread> threads;
    for (int s = 0; s < submitters; ++s) {
        threads.emplace_back([&, s] {
            submitterIds[s] = std::this_thread::get_id();
            for (int i = 0; i < itemsEach; ++i) {
                queue.async([&, s, i] {
                    if (running.fetch_add(1) != 0) {
                        overlapped = true;
                    }
                    if (!queue.isCurrent()) {
                        notCurrent = true;
                    }
                    ran.emplace_back(s, i);
                    ranOn.push_back(std::this_thread::get_id());
                    running.fetch_sub(1);
                    finished.release();
                });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (int n = 0; n < submitters * itemsEach; ++n) {
        ASSERT_TRUE(finished.try_acquire_for(patience));
    }

    EXPECT_FALSE(overlapped);
    EXPECT_FALSE(notCurrent);
    EXPECT_FALSE(queue.isCurrent());
    ASSERT_EQ(ran.size(), std::size_t{submitters * itemsEach});
    std::vector<int> next(submitters, 0);
    for (const auto& [s, i] : ran) {
        EXPECT_EQ(i, next[s]) << "submitter " << s;
        next[s] = i + 1;
    }
    for (const auto& id : ranOn) {
        EXPECT_EQ(id, ranOn.front());
        for (const auto& submitter : submitterIds) {
            EXPECT_NE(id, submitter);
        }
        EXPECT_NE(id, std::this_thread::get_id());
    }
}

TEST(DispatchQueueTest, SubmissionDoesNotWaitForRunningWork) {
    DispatchQueue queue("com.example.blocked");
    std::binary_semaphore gate(0);
    std::binary_semaphore secondRan(0);
    queue.async([&] { gate.acquire(); });
    // The first item is blocked; submitting more must still return.
    queue.async([&] { secondRan.release(); });
    gate.release();
    EXPECT_TRUE(secondRan.try_acquire_for(patience));
}

TEST(DispatchQueueTest, DestructionRunsEverySubmittedItemFirst) {
    std::atomic<int> count{0};
    std::binary_semaphore gate(0);
    auto queue = std::make_unique<DispatchQueue>("com.example.draining");
    DispatchQueue* const closing = queue.get();
    queue->async([&] {
        gate.acquire();
        ++count;
    });
    for (int i = 0; i < 100; ++i) {
        queue->async([&, i] {
            // Items submitted by items while the queue is closing run too.
            if (i == 99) {
                closing->async([&] { ++count; });
            }
            ++count;
        });
    }
    gate.release();
    queue.reset();
    EXPECT_EQ(count.load(), 102);
}

// The last owner of a queue lets go on the queue's own worker: either while an item runs, or
// when the item's captures are released after it returned. Neither may deadlock, and the items
// behind it still run.
TEST(DispatchQueueTest, LastOwnerReleasedOnItsOwnWorker) {
    for (const bool insideItem : {true, false}) {
        SCOPED_TRACE(insideItem ? "released inside the item" : "released with the item");
        auto queue = std::make_shared<DispatchQueue>("com.example.self-owned");
        std::binary_semaphore ownerDropped(0);
        std::binary_semaphore laterItemsRan(0);
        std::atomic<int> later{0};

        queue->async([keep = queue, &ownerDropped, insideItem]() mutable {
            ownerDropped.acquire();
            if (insideItem) {
                keep.reset();
            }
        });
        queue->async([&] { ++later; });
        queue->async([&] {
            ++later;
            laterItemsRan.release();
        });
        queue.reset();
        ownerDropped.release();

        ASSERT_TRUE(laterItemsRan.try_acquire_for(patience));
        EXPECT_EQ(later.load(), 2);
    }
}

TEST(DispatchQueueTest, ThrowingItemIsReportedAndTheQueueCarriesOn) {
    LogCapture capture;
    DispatchQueue queue("com.example.throwing");
    std::binary_semaphore done(0);
    queue.async([] { throw std::runtime_error("disk on fire"); });
    queue.async([] { throw 42; });
    queue.async([&] { done.release(); });
    ASSERT_TRUE(done.try_acquire_for(patience));

    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    for (const auto& record : records) {
        EXPECT_EQ(record.level, LogLevel::error);
        EXPECT_EQ(record.subsystem, "com.nimborra.platform");
        EXPECT_NE(record.message.find("com.example.throwing"), std::string::npos) << record.message;
    }
    EXPECT_NE(records[0].message.find("disk on fire"), std::string::npos) << records[0].message;
}

TEST(MainThreadTest, OnlyTheInitialThreadIsMain) {
    EXPECT_TRUE(isMainThread());
    EXPECT_TRUE(DispatchQueue::main().isCurrent());

    std::atomic<bool> otherIsMain{true};
    std::atomic<bool> otherSeesMainCurrent{true};
    std::thread([&] {
        otherIsMain = isMainThread();
        otherSeesMainCurrent = DispatchQueue::main().isCurrent();
    }).join();
    EXPECT_FALSE(otherIsMain);
    EXPECT_FALSE(otherSeesMainCurrent);

    DispatchQueue queue("com.example.worker");
    DispatchQueue otherQueue("com.example.other");
    std::binary_semaphore done(0);
    std::atomic<bool> workerIsMain{true};
    std::atomic<bool> otherQueueCurrent{true};
    queue.async([&] {
        workerIsMain = isMainThread();
        otherQueueCurrent = otherQueue.isCurrent();
        done.release();
    });
    ASSERT_TRUE(done.try_acquire_for(patience));
    EXPECT_FALSE(workerIsMain);
    EXPECT_FALSE(otherQueueCurrent);
}

TEST(MainThreadTest, IsolationViolationIsLoggedWithItsLocation) {
    LogCapture capture;
    reportMainActorIsolationViolation("NimbOrraExample/Widget", 370);
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].level, LogLevel::error);
    EXPECT_EQ(records[0].subsystem, "com.nimborra.platform");
    EXPECT_EQ(records[0].category, "runtime");
    EXPECT_NE(records[0].message.find("NimbOrraExample/Widget:370"), std::string::npos)
        << records[0].message;
    EXPECT_NE(records[0].message.find("main thread"), std::string::npos) << records[0].message;
}

class MainQueueTest : public ::testing::Test {
  protected:
    // The main queue is process-wide: start from an empty one.
    void SetUp() override { DispatchQueue::drainMain(); }
    void TearDown() override { DispatchQueue::drainMain(); }
};

TEST_F(MainQueueTest, ItemsRunOnlyWhenDrainedAndOnTheMainThread) {
    std::vector<int> order;
    std::atomic<bool> allOnMain{true};
    std::thread([&] {
        for (int i = 0; i < 3; ++i) {
            DispatchQueue::main().async([&, i] {
                order.push_back(i);
                if (!isMainThread()) {
                    allOnMain = false;
                }
            });
        }
    }).join();
    EXPECT_TRUE(order.empty());

    // Draining from another thread runs nothing.
    std::size_t ranElsewhere = 1;
    std::thread([&] { ranElsewhere = DispatchQueue::drainMain(); }).join();
    EXPECT_EQ(ranElsewhere, 0u);
    EXPECT_TRUE(order.empty());

    EXPECT_EQ(DispatchQueue::drainMain(), 3u);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(allOnMain);
    EXPECT_EQ(DispatchQueue::drainMain(), 0u);
}

TEST_F(MainQueueTest, DrainRunsOnlyWhatWasPendingAndNeverNests) {
    int runs = 0;
    std::size_t nestedDrain = 1;
    DispatchQueue::main().async([&] {
        ++runs;
        nestedDrain = DispatchQueue::drainMain();
        DispatchQueue::main().async([&] { ++runs; });
    });
    EXPECT_EQ(DispatchQueue::drainMain(), 1u);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(nestedDrain, 0u);
    EXPECT_EQ(DispatchQueue::drainMain(), 1u);
    EXPECT_EQ(runs, 2);
}

TEST_F(MainQueueTest, RunUntilRunsItemsAsTheyArrive) {
    std::atomic<bool> flag{false};
    std::thread producer([&] {
        DispatchQueue::main().async([] {});
        DispatchQueue::main().async([&] { flag = isMainThread(); });
    });
    EXPECT_TRUE(DispatchQueue::runMainUntil([&] { return flag.load(); }, patience));
    producer.join();

    // A condition set by another thread without any main-queue item is noticed too.
    std::atomic<bool> external{false};
    std::thread setter([&] { external = true; });
    EXPECT_TRUE(DispatchQueue::runMainUntil([&] { return external.load(); }, patience));
    setter.join();

    EXPECT_FALSE(DispatchQueue::runMainUntil([] { return false; }, 1ms));
}

TEST_F(MainQueueTest, MainLoopRunsUntilStopped) {
    std::vector<int> order;
    std::thread producer([&] {
        for (int i = 0; i < 50; ++i) {
            DispatchQueue::main().async([&, i] { order.push_back(i); });
        }
        DispatchQueue::main().async([] { DispatchQueue::stopMainLoop(); });
        DispatchQueue::main().async([&] { order.push_back(-1); });
    });
    DispatchQueue::runMainLoop();
    producer.join();
    ASSERT_EQ(order.size(), 50u);
    EXPECT_EQ(order.back(), 49);
    // The item behind the stop request waits for the next drain.
    EXPECT_EQ(DispatchQueue::drainMain(), 1u);
    EXPECT_EQ(order.back(), -1);

    // A stop requested from another thread while the loop sleeps ends it.
    std::thread stopper([] { DispatchQueue::stopMainLoop(); });
    DispatchQueue::runMainLoop();
    stopper.join();
}

}  // namespace
}  // namespace nimborra::platform
