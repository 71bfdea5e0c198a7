#include "NimbOrraCore/OrraBridgeDispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::core {
namespace {

using Received = std::vector<std::pair<std::string, std::string>>;

class NamedPlugin : public OrraPlugin {
  public:
    explicit NamedPlugin(std::string name) : name_(std::move(name)) {}
    std::string_view pluginName() const override { return name_; }
    std::string callSync(std::string_view, std::string_view) override { return "{}"; }
    void callAsync(std::string, std::string, OrraCompletion onComplete) override {
        onComplete("{}");
    }
    void cancel(std::int64_t) override {}

  private:
    std::string name_;
};

// A listener that appends what it receives; only ever called by one delivering thread at a time.
OrraEventListener recordInto(Received& received) {
    return [&received](const std::string& name, const std::string& payload) {
        received.emplace_back(name, payload);
    };
}

std::vector<std::string> namesOf(const Received& received) {
    std::vector<std::string> names;
    for (const auto& entry : received) {
        names.push_back(entry.first);
    }
    return names;
}

TEST(OrraBridgeDispatcherTest, LaterRegistrationReplacesEarlierOne) {
    OrraBridgeDispatcher dispatcher;
    auto first = std::make_shared<NamedPlugin>("first");
    std::weak_ptr<NamedPlugin> firstWatch = first;
    dispatcher.registerPlugin("ApnsService", std::move(first));
    ASSERT_NE(dispatcher.plugin("ApnsService"), nullptr);
    EXPECT_EQ(dispatcher.plugin("ApnsService")->pluginName(), "first");

    dispatcher.registerPlugin("ApnsService", std::make_shared<NamedPlugin>("second"));
    EXPECT_EQ(dispatcher.plugin("ApnsService")->pluginName(), "second");
    EXPECT_TRUE(firstWatch.expired());

    // Names match exactly; a null plug-in never replaces a registration.
    EXPECT_EQ(dispatcher.plugin("apnsservice"), nullptr);
    EXPECT_EQ(dispatcher.plugin("ApnsService "), nullptr);
    EXPECT_EQ(dispatcher.plugin(""), nullptr);
    platform::LogCapture capture;
    dispatcher.registerPlugin("ApnsService", nullptr);
    EXPECT_EQ(dispatcher.plugin("ApnsService")->pluginName(), "second");
    EXPECT_EQ(capture.records().size(), 1u);
}

TEST(OrraBridgeDispatcherTest, DeliversSynchronouslyToEveryListenerInSubscriptionOrder) {
    OrraBridgeDispatcher dispatcher;
    std::vector<std::string> calls;
    dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
        calls.push_back("a:" + name + "=" + payload);
    });
    dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
        calls.push_back("b:" + name + "=" + payload);
    });
    dispatcher.emitEvent("E", "{\"x\":1}");
    // Seen before emitEvent returned.
    EXPECT_EQ(calls, (std::vector<std::string>{"a:E={\"x\":1}", "b:E={\"x\":1}"}));
    EXPECT_EQ(dispatcher.subscribe(nullptr), 0u);
}

TEST(OrraBridgeDispatcherTest, BacklogGoesToTheFirstSubscriberInOrder) {
    OrraBridgeDispatcher dispatcher;
    dispatcher.emitEvent("one", "1");
    dispatcher.emitEvent("two", "2");
    dispatcher.emitEvent("three", "3");

    Received first;
    Received second;
    const auto firstId = dispatcher.subscribe(recordInto(first));
    EXPECT_EQ(first, (Received{{"one", "1"}, {"two", "2"}, {"three", "3"}}));

    const auto secondId = dispatcher.subscribe(recordInto(second));
    EXPECT_TRUE(second.empty());
    dispatcher.emitEvent("four", "4");
    EXPECT_EQ(namesOf(first), (std::vector<std::string>{"one", "two", "three", "four"}));
    EXPECT_EQ(namesOf(second), (std::vector<std::string>{"four"}));

    // Once everybody has left, events are kept again for the next first subscriber.
    dispatcher.unsubscribe(firstId);
    dispatcher.unsubscribe(secondId);
    dispatcher.emitEvent("five", "5");
    Received third;
    dispatcher.subscribe(recordInto(third));
    EXPECT_EQ(namesOf(third), (std::vector<std::string>{"five"}));
}

TEST(OrraBridgeDispatcherTest, BacklogIsNotSharedWithListenersWhoJoinDuringItsDelivery) {
    OrraBridgeDispatcher dispatcher;
    for (const char* name : {"a", "b", "c"}) {
        dispatcher.emitEvent(name, "");
    }
    Received first;
    Received late;
    dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
        first.emplace_back(name, payload);
        if (name == "a") {
            dispatcher.subscribe(recordInto(late));
            dispatcher.emitEvent("d", "");
        }
    });
    EXPECT_EQ(namesOf(first), (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_EQ(namesOf(late), (std::vector<std::string>{"d"}));
}

TEST(OrraBridgeDispatcherTest, BacklogIsBoundedDroppingTheOldestWithAnError) {
    OrraBridgeDispatcher dispatcher;
    constexpr std::size_t extra = 6;
    constexpr std::size_t total = OrraBridgeDispatcher::maximumBacklog + extra;
    platform::LogCapture capture;
    for (std::size_t i = 0; i < total; ++i) {
        dispatcher.emitEvent("event-" + std::to_string(i), std::to_string(i));
    }
    const auto records = capture.records();
    ASSERT_EQ(records.size(), extra);
    for (std::size_t i = 0; i < extra; ++i) {
        EXPECT_EQ(records[i].level, platform::LogLevel::error);
        EXPECT_EQ(records[i].subsystem, "com.nimborra.core");
        EXPECT_EQ(records[i].category, "bridge");
        EXPECT_NE(records[i].message.find("\"event-" + std::to_string(i) + "\""), std::string::npos)
            << records[i].message;
    }

    Received received;
    dispatcher.subscribe(recordInto(received));
    ASSERT_EQ(received.size(), OrraBridgeDispatcher::maximumBacklog);
    for (std::size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i].second, std::to_string(i + extra));
    }
}

TEST(OrraBridgeDispatcherTest, ListenersMayReenterTheDispatcher) {
    OrraBridgeDispatcher dispatcher;
    Received seenByA;
    Received seenByC;
    OrraBridgeDispatcher::SubscriptionId a = 0;
    OrraBridgeDispatcher::SubscriptionId c = 0;
    int bCalls = 0;

    a = dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
        seenByA.emplace_back(name, payload);
        if (name == "ping") {
            dispatcher.emitEvent("pong", "");  // queued behind "ping", delivered before we return
        } else if (name == "leave") {
            dispatcher.unsubscribe(c);  // C comes later in this very delivery: it is skipped
            dispatcher.unsubscribe(a);
        }
    });
    dispatcher.subscribe([&](const std::string&, const std::string&) { ++bCalls; });
    c = dispatcher.subscribe(recordInto(seenByC));

    dispatcher.emitEvent("ping", "");
    EXPECT_EQ(namesOf(seenByA), (std::vector<std::string>{"ping", "pong"}));
    EXPECT_EQ(namesOf(seenByC), (std::vector<std::string>{"ping", "pong"}));

    dispatcher.emitEvent("leave", "");
    dispatcher.emitEvent("after", "");
    EXPECT_EQ(namesOf(seenByA), (std::vector<std::string>{"ping", "pong", "leave"}));
    EXPECT_EQ(namesOf(seenByC), (std::vector<std::string>{"ping", "pong"}));
    EXPECT_EQ(bCalls, 4);

    dispatcher.unsubscribe(12345);  // unknown: ignored
}

TEST(OrraBridgeDispatcherTest, ThrowingListenerIsLoggedAndOthersStillHearTheEvent) {
    OrraBridgeDispatcher dispatcher;
    dispatcher.subscribe(
        [](const std::string&, const std::string&) { throw std::runtime_error("nope"); });
    Received received;
    dispatcher.subscribe(recordInto(received));
    platform::LogCapture capture;
    dispatcher.emitEvent("E", "");
    EXPECT_EQ(namesOf(received), (std::vector<std::string>{"E"}));
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_NE(records[0].message.find("nope"), std::string::npos) << records[0].message;
}

TEST(OrraBridgeDispatcherTest, ConcurrentEmittersLoseNothingAndAgreeOnOneOrder) {
    OrraBridgeDispatcher dispatcher;
    constexpr int emitters = 8;
    constexpr int eventsEach = 500;

    // Deliveries never overlap, so the listeners keep plain vectors; a detector flags overlap.
    std::atomic<int> inListener{0};
    std::atomic<bool> overlapped{false};
    Received first;
    Received second;
    auto guarded = [&](Received& into) {
        return [&inListener, &overlapped, target = &into](const std::string& name,
                                                          const std::string& payload) {
            if (inListener.fetch_add(1) != 0) {
                overlapped = true;
            }
            target->emplace_back(name, payload);
            inListener.fetch_sub(1);
        };
    };
    dispatcher.subscribe(guarded(first));
    dispatcher.subscribe(guarded(second));

    // A third party that comes and goes while events fly.
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop) {
            const auto id = dispatcher.subscribe([](const std::string&, const std::string&) {});
            dispatcher.unsubscribe(id);
        }
    });

    std::vector<std::thread> threads;
    for (int t = 0; t < emitters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < eventsEach; ++i) {
                dispatcher.emitEvent("t" + std::to_string(t), std::to_string(i));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    stop = true;
    churn.join();

    // Every emitEvent has returned, so every event has been delivered.
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(first.size(), std::size_t{emitters * eventsEach});
    EXPECT_EQ(first, second);
    std::vector<int> next(emitters, 0);
    for (const auto& [name, payload] : first) {
        const int t = std::stoi(name.substr(1));
        EXPECT_EQ(payload, std::to_string(next[t])) << name;
        ++next[t];
    }
}

TEST(OrraBridgeDispatcherTest, SharedDispatcherIsOneObjectAndCanBeReset) {
    auto& shared = OrraBridgeDispatcher::shared();
    EXPECT_EQ(&shared, &OrraBridgeDispatcher::shared());
    shared.resetForTesting();

    shared.registerPlugin("Probe", std::make_shared<NamedPlugin>("Probe"));
    shared.emitEvent("stale", "");
    Received leftover;
    shared.subscribe(recordInto(leftover));
    shared.resetForTesting();

    EXPECT_EQ(shared.plugin("Probe"), nullptr);
    shared.emitEvent("fresh", "");  // nobody listens any more: kept, not delivered to `leftover`
    EXPECT_EQ(namesOf(leftover), (std::vector<std::string>{"stale"}));
    Received received;
    shared.subscribe(recordInto(received));
    EXPECT_EQ(namesOf(received), (std::vector<std::string>{"fresh"}));
    shared.resetForTesting();
}

}  // namespace
}  // namespace nimborra::core
