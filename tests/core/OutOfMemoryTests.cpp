// The dispatcher when memory runs out. Each allocation on an event's way fails in turn (this
// program has its own operator new for that): the event is then delivered once or reported lost
// once, never both and never neither, and the dispatcher goes on working.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraPlatform/Logger.h"

// ThreadSanitizer brings its own operator new, which cannot be replaced.
#if defined(__SANITIZE_THREAD__)
#define NIMBORRA_FAILING_NEW 0
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define NIMBORRA_FAILING_NEW 0
#endif
#endif
#ifndef NIMBORRA_FAILING_NEW
#define NIMBORRA_FAILING_NEW 1
#endif

namespace {
// Allocations this thread makes until the one that fails (1: the next); 0 when none is to fail.
thread_local std::size_t allocationsBeforeFailure = 0;
}  // namespace

#if NIMBORRA_FAILING_NEW
void* operator new(std::size_t size) {
    if (allocationsBeforeFailure != 0 && --allocationsBeforeFailure == 0) {
        throw std::bad_alloc();
    }
    if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return ::operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return ::operator new(size, tag);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
#endif

namespace nimborra::core {
namespace {

// Runs `step` with this thread's nth allocation failing; whether one did (`step` may make fewer).
bool failingAllocation(std::size_t nth, const std::function<void()>& step) {
    allocationsBeforeFailure = nth;
    step();
    const bool failed = allocationsBeforeFailure == 0;
    allocationsBeforeFailure = 0;
    return failed;
}

std::size_t count(const platform::LogCapture& capture, std::string_view message) {
    std::size_t found = 0;
    for (const auto& record : capture.records()) {
        found += record.message == message ? 1 : 0;
    }
    return found;
}

TEST(OutOfMemory, EveryEventIsDeliveredOnceOrReportedLost) {
    if (!NIMBORRA_FAILING_NEW) {
        GTEST_SKIP() << "allocations cannot be made to fail under ThreadSanitizer";
    }
    // The roads of an event: to a listener, or kept until a subscription (failing while it is
    // kept, or while it is handed over).
    enum class Road { toListener, kept, handedOver };
    for (const Road road : {Road::toListener, Road::kept, Road::handedOver}) {
        bool failed = true;
        for (std::size_t nth = 1; failed; ++nth) {
            OrraBridgeDispatcher dispatcher;
            std::atomic<int> delivered{0}, later{0};
            const OrraEventListener listener = [&](const std::string& name, const std::string&) {
                (name == "E" ? delivered : later) += 1;
            };
            OrraEventListener first = listener, second = listener;
            platform::LogCapture capture;
            const auto emit = [&] { dispatcher.emitEvent("E", "{}"); };
            const auto subscribe = [&] { dispatcher.subscribe(std::move(first)); };
            switch (road) {
                case Road::toListener:
                    subscribe();
                    failed = failingAllocation(nth, emit);
                    break;
                case Road::kept:
                    failed = failingAllocation(nth, emit);
                    subscribe();
                    break;
                case Road::handedOver:
                    emit();
                    failed = failingAllocation(nth, subscribe);
                    if (count(capture, "Could not subscribe a listener: out of memory") == 1) {
                        dispatcher.subscribe(std::move(second));  // the event is still kept
                    }
                    break;
            }
            const std::size_t lost = count(capture, "Could not emit an event: out of memory") +
                                     count(capture, "A kept event was lost: out of memory");
            EXPECT_EQ(static_cast<std::size_t>(delivered.load()) + lost, 1u)
                << "road " << static_cast<int>(road) << ", allocation " << nth;
            dispatcher.emitEvent("F", "{}");
            EXPECT_EQ(later.load(), 1)
                << "road " << static_cast<int>(road) << ", allocation " << nth;
        }
    }
}

}  // namespace
}  // namespace nimborra::core
