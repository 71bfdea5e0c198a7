#include "NimbOrraCore/OrraBridgeDispatcher.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::core {
namespace {

using Names = std::vector<std::string>;

// A listener that appends "<tag><name>" (and "=<payload>" unless it is empty) for every event;
// deliveries never overlap, so it needs no lock.
OrraEventListener recordInto(Names& into, std::string tag = {}) {
    return [&into, tag](const std::string& name, const std::string& payload) {
        into.push_back(tag + name + (payload.empty() ? "" : "=" + payload));
    };
}

// A listener that throws is logged, and the listeners after it still hear the event.
TEST(OrraBridgeDispatcherTest, DeliversSynchronouslyToEveryListenerInSubscriptionOrder) {
    OrraBridgeDispatcher dispatcher;
    Names calls;
    dispatcher.subscribe(recordInto(calls, "a:"));
    dispatcher.subscribe(
        [](const std::string&, const std::string&) { throw std::runtime_error("nope"); });
    dispatcher.subscribe(recordInto(calls, "b:"));
    EXPECT_EQ(dispatcher.subscribe(nullptr), 0u);
    platform::LogCapture capture;
    dispatcher.emitEvent("E", "{\"x\":1}");
    // Seen before emitEvent returned.
    EXPECT_EQ(calls, (Names{"a:E={\"x\":1}", "b:E={\"x\":1}"}));
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_NE(records[0].message.find("nope"), std::string::npos) << records[0].message;
}

// Events emitted while nobody listens belong to the first subscriber alone, in order, even when
// another listener joins while they are being delivered; once everybody has left, events are
// kept again for the next first subscriber.
TEST(OrraBridgeDispatcherTest, BacklogGoesOnlyToTheFirstSubscriberInOrder) {
    OrraBridgeDispatcher dispatcher;
    for (const char* name : {"a", "b", "c"}) {
        dispatcher.emitEvent(name, "");
    }
    Names calls;
    OrraBridgeDispatcher::SubscriptionId lateId = 0;
    const auto firstId = dispatcher.subscribe([&](const std::string& name, const std::string&) {
        calls.push_back("first:" + name);
        if (name == "a") {
            lateId = dispatcher.subscribe(recordInto(calls, "late:"));
            dispatcher.emitEvent("d", "");
        }
    });
    EXPECT_EQ(calls, (Names{"first:a", "first:b", "first:c", "first:d", "late:d"}));

    dispatcher.unsubscribe(firstId);
    dispatcher.unsubscribe(lateId);
    dispatcher.emitEvent("e", "");
    calls.clear();
    dispatcher.subscribe(recordInto(calls, "next:"));
    EXPECT_EQ(calls, (Names{"next:e"}));
}

TEST(OrraBridgeDispatcherTest, BacklogIsBoundedDroppingTheOldestWithAnError) {
    OrraBridgeDispatcher dispatcher;
    constexpr std::size_t extra = 6;
    platform::LogCapture capture;
    for (std::size_t i = 0; i < OrraBridgeDispatcher::maximumBacklog + extra; ++i) {
        dispatcher.emitEvent("event-" + std::to_string(i), "");
    }
    const auto records = capture.records();
    ASSERT_EQ(records.size(), extra);
    for (std::size_t i = 0; i < extra; ++i) {
        EXPECT_EQ(records[i].level, platform::LogLevel::error);
        EXPECT_NE(records[i].message.find("\"event-" + std::to_string(i) + "\""), std::string::npos)
            << records[i].message;
    }

    Names received;
    dispatcher.subscribe(recordInto(received));
    ASSERT_EQ(received.size(), OrraBridgeDispatcher::maximumBacklog);
    for (std::size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i], "event-" + std::to_string(i + extra));
    }
}

TEST(OrraBridgeDispatcherTest, ListenersMayReenterTheDispatcher) {
    OrraBridgeDispatcher dispatcher;
    Names calls;
    OrraBridgeDispatcher::SubscriptionId a = 0;
    OrraBridgeDispatcher::SubscriptionId c = 0;
    a = dispatcher.subscribe([&](const std::string& name, const std::string&) {
        calls.push_back("A:" + name);
        if (name == "ping") {
            dispatcher.emitEvent("pong", "");  // queued behind "ping", delivered before we return
        } else if (name == "leave") {
            dispatcher.unsubscribe(c);  // C comes later in this very delivery: it is skipped
            dispatcher.unsubscribe(a);
        }
    });
    dispatcher.subscribe(recordInto(calls, "B:"));
    c = dispatcher.subscribe(recordInto(calls, "C:"));

    dispatcher.emitEvent("ping", "");
    EXPECT_EQ(calls, (Names{"A:ping", "B:ping", "C:ping", "A:pong", "B:pong", "C:pong"}));
    dispatcher.emitEvent("leave", "");
    dispatcher.emitEvent("after", "");
    EXPECT_EQ(std::vector(calls.begin() + 6, calls.end()),
              (Names{"A:leave", "B:leave", "B:after"}));
}

TEST(OrraBridgeDispatcherTest, ConcurrentEmittersLoseNothingAndAgreeOnOneOrder) {
    OrraBridgeDispatcher dispatcher;
    constexpr int emitters = 8;
    constexpr int eventsEach = 500;
    // Unguarded on purpose: deliveries never overlap (the thread sanitizer would notice).
    Names first;
    Names second;
    dispatcher.subscribe(recordInto(first));
    dispatcher.subscribe(recordInto(second));

    std::vector<std::thread> threads;
    for (int t = 0; t < emitters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < eventsEach; ++i) {
                dispatcher.emitEvent(std::to_string(t) + ":" + std::to_string(i), "");
                if (t == 0) {  // a third party that comes and goes while events fly
                    dispatcher.unsubscribe(
                        dispatcher.subscribe([](const std::string&, const std::string&) {}));
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    // Every emitEvent has returned, so every event has been delivered.
    ASSERT_EQ(first.size(), std::size_t{emitters * eventsEach});
    EXPECT_EQ(first, second);
    std::vector<int> next(emitters, 0);
    for (const std::string& name : first) {
        const int t = std::stoi(name);
        EXPECT_EQ(name, std::to_string(t) + ":" + std::to_string(next[t]++));
    }
}

}  // namespace
}  // namespace nimborra::core
