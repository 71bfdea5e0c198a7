// Event delivery across threads: each thread delivers its own events, so no emitter waits for
// another's listeners, and an event is seen before its emitEvent returns.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraCore/OrraBridgeDispatcher.h"

namespace nimborra::core {
namespace {

using namespace std::chrono_literals;

TEST(DispatcherFairness, EveryEventIsDeliveredByItsEmitterBeforeEmitReturns) {
    OrraBridgeDispatcher dispatcher;
    const auto mainThread = std::this_thread::get_id();
    std::mutex mutex;
    std::vector<std::pair<std::string, bool>> seen;  // name, seen on the main thread
    std::binary_semaphore held{0};
    std::binary_semaphore release{0};
    dispatcher.subscribe([&](const std::string& name, const std::string&) {
        {
            std::lock_guard lock(mutex);
            seen.emplace_back(name, std::this_thread::get_id() == mainThread);
        }
        if (name == "other:held") {
            held.release();
            release.acquire();
        } else if (name == "main:starts-other") {
            std::thread([&] { dispatcher.emitEvent("other:during", ""); }).join();
        }
    });
    // Another thread's delivery is stuck in the listener: this thread's event does not wait.
    std::thread other([&] { dispatcher.emitEvent("other:held", ""); });
    held.acquire();
    dispatcher.emitEvent("main:1", "");
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(seen.back(), std::pair(std::string("main:1"), true));
    }
    release.release();
    other.join();
    // Another thread emits while this one delivers: it delivers its own event itself.
    dispatcher.emitEvent("main:starts-other", "");
    std::lock_guard lock(mutex);
    const std::vector<std::pair<std::string, bool>> expected = {{"other:held", false},
                                                                {"main:1", true},
                                                                {"main:starts-other", true},
                                                                {"other:during", false}};
    EXPECT_EQ(seen, expected);
}

TEST(DispatcherFairness, UnsubscribeWaitsForCallsRunningOnOtherThreads) {
    OrraBridgeDispatcher dispatcher;
    std::binary_semaphore entered{0};
    std::atomic<bool> finished{false};
    const auto id = dispatcher.subscribe([&](const std::string&, const std::string&) {
        entered.release();
        std::this_thread::sleep_for(50ms);
        finished = true;
    });
    std::thread other([&] { dispatcher.emitEvent("slow", ""); });
    entered.acquire();
    dispatcher.unsubscribe(id);
    EXPECT_TRUE(finished.load());
    other.join();
}

}  // namespace
}  // namespace nimborra::core
