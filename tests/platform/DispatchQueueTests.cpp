#include "NimbOrraPlatform/DispatchQueue.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <iterator>
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
    constexpr std::size_t itemsEach = 500;
    DispatchQueue queue("com.example.ordering");

    // Unguarded on purpose: only the queue's items touch them, one at a time (the thread
    // sanitizer would notice otherwise), and the test reads them after the last one signalled.
    std::vector<std::pair<int, std::size_t>> ran;
    int running = 0;
    bool misplaced = false;  // overlapping another item, or not on the queue's own worker
    std::binary_semaphore finished(0);

    std::vector<std::thread> threads;
    for (int s = 0; s < submitters; ++s) {
        threads.emplace_back([&, s] {
            for (std::size_t i = 0; i < itemsEach; ++i) {
                EXPECT_TRUE(queue.async([&, s, i] {
                    misplaced |= ++running != 1 || !queue.isCurrent() || isMainThread();
                    ran.emplace_back(s, i);
                    --running;
                    if (ran.size() == submitters * itemsEach) {
                        finished.release();
                    }
                }));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(finished.try_acquire_for(patience));
    EXPECT_FALSE(misplaced);
    EXPECT_FALSE(queue.isCurrent());
    std::vector<std::size_t> next(submitters, 0);
    for (const auto& [s, i] : ran) {
        EXPECT_EQ(i, next[s]++) << "submitter " << s;
    }
}

// Items submitted while an item blocks, and items that items submit while the queue closes,
// all run before destruction returns. Items that throw are reported and the queue carries on.
// The worker thread is named after the queue.
TEST(DispatchQueueTest, DestructionRunsEverySubmittedItemFirst) {
    LogCapture capture;
    std::atomic<int> count{0};
    std::binary_semaphore gate(0);
    auto queue = std::make_unique<DispatchQueue>("com.example.draining");
    DispatchQueue* const closing = queue.get();
    std::string workerName;
    ASSERT_TRUE(queue->async([&] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        workerName = name;
        gate.acquire();
        ++count;
    }));
    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(queue->async([&, i] {
            ++count;
            if (i == 99) {
                EXPECT_TRUE(closing->async([&] { ++count; }));
            } else if (i == 10) {
                throw std::runtime_error("disk on fire");
            } else if (i == 20) {
                throw 42;
            }
        }));
    }
    gate.release();
    queue.reset();
    EXPECT_EQ(count.load(), 102);
    // Thread names hold 15 bytes: the worker's is the telling end of the label.
    EXPECT_EQ(workerName, "xample.draining");
    const auto threw = [](const std::string& what) {
        return LogRecord{LogLevel::error, "com.nimborra.platform", "dispatch",
                         "Work item on queue \"com.example.draining\" threw" + what};
    };
    EXPECT_EQ(capture.records(),
              (std::vector{threw(": disk on fire"), threw(" an unknown exception")}));
}

// A queue whose worker thread cannot start (here the kernel refuses every new thread, in a child
// process) refuses its work and says why, instead of keeping work that nobody would run.
TEST(DispatchQueueTest, WithoutItsThreadAQueueRefusesWorkAndSaysWhy) {
#if defined(__x86_64__)
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        sock_filter filter[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone, 2, 0),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_clone3, 1, 0),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAGAIN),
        };
        sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
            _exit(3);
        }
        LogCapture capture;
        DispatchQueue queue("com.example.threadless");
        const bool refused = !queue.async([] {});
        const auto records = capture.records();
        _exit(refused && records.size() == 2 &&
                      records[0].message.starts_with("Could not start the worker thread of queue "
                                                     "\"com.example.threadless\": ") &&
                      records[1].message ==
                          "Queue \"com.example.threadless\" could not take a work item"
                  ? 0
                  : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == 3) {
        GTEST_SKIP() << "this system does not let a process filter its own system calls";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
#else
    GTEST_SKIP() << "the thread-refusing filter is written for x86-64";
#endif
}

// Only the initial thread is main, and only it runs the main queue's items, when it drains them:
// a drain elsewhere or inside an item runs nothing, and what an item submits waits for the next
// drain. (The loop and waiting for a condition are run by the host and the end-to-end tests.)
// Code running elsewhere can report that it should have been on the main thread.
TEST(MainQueueTest, RunsItemsOnlyOnTheMainThreadWhenDrained) {
    ASSERT_TRUE(isMainThread());
    EXPECT_TRUE(DispatchQueue::main().isCurrent());
    DispatchQueue::drainMain();
    std::vector<int> order;  // unguarded on purpose: only ever touched on this thread
    ASSERT_TRUE(DispatchQueue::main().async([&] {
        order.push_back(100 + static_cast<int>(DispatchQueue::drainMain()));
        EXPECT_TRUE(DispatchQueue::main().async([&] { order.push_back(-2); }));
    }));
    LogCapture capture;
    std::thread([&] {
        EXPECT_FALSE(isMainThread() || DispatchQueue::main().isCurrent());
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(
                DispatchQueue::main().async([&, i] { order.push_back(isMainThread() ? i : -1); }));
        }
        EXPECT_EQ(DispatchQueue::drainMain(), 0u) << "drained off the main thread";
        EXPECT_FALSE(DispatchQueue::runMainUntil([] { return true; }, std::chrono::seconds(1)));
        reportMainActorIsolationViolation("NimbOrraExample/Widget", 370);
    }).join();
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].level, LogLevel::error);
    EXPECT_EQ(capture.records()[0].category, "runtime");
    EXPECT_NE(capture.records()[0].message.find("NimbOrraExample/Widget:370"), std::string::npos);
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(DispatchQueue::drainMain(), 4u);
    EXPECT_EQ(order, (std::vector<int>{100, 0, 1, 2}));
    EXPECT_EQ(DispatchQueue::drainMain(), 1u);
}

// The main loop runs items as they come until one stops it, leaving later items queued. Each
// stop ends one loop: a stop made while no loop runs ends the next one before it runs anything,
// and the loop after that runs again.
TEST(MainQueueTest, EachStopEndsOneLoop) {
    std::vector<int> ran;
    for (const int item : {1, 2, 3}) {
        ASSERT_TRUE(DispatchQueue::main().async([&ran, item] {
            ran.push_back(item);
            if (item == 2) {
                DispatchQueue::stopMainLoop();
            }
        }));
    }
    DispatchQueue::runMainLoop();
    EXPECT_EQ(ran, (std::vector{1, 2}));
    DispatchQueue::stopMainLoop();
    DispatchQueue::runMainLoop();
    EXPECT_EQ(ran, (std::vector{1, 2}));
    ASSERT_TRUE(DispatchQueue::main().async([] { DispatchQueue::stopMainLoop(); }));
    DispatchQueue::runMainLoop();
    EXPECT_EQ(ran, (std::vector{1, 2, 3}));
}

}  // namespace
}  // namespace nimborra::platform
