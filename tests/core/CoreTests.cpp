#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <limits>
#include <mutex>
#include <semaphore>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "NimbOrraCore/NimbError.h"
#include "NimbOrraCore/OrraBridgeDispatcher.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"

namespace nimborra::core {
namespace {

enum class Colour : std::int64_t { unspecified, red, green };

struct Inner {
    std::int32_t n = 0;
    static constexpr auto codingFields() { return std::tuple{CodingField{"n", &Inner::n}}; }
    friend bool operator==(const Inner&, const Inner&) = default;
};

struct Sample {
    std::string text;
    std::int32_t small = 0;
    std::int64_t big = 0;
    double real = 0;
    bool flag = false;
    platform::Data bytes;
    std::vector<Colour> colours;
    Inner inner;
    std::vector<Inner> inners;

    static constexpr auto codingFields() {
        return std::tuple{
            CodingField{"text", &Sample::text},       CodingField{"small", &Sample::small},
            CodingField{"big", &Sample::big},         CodingField{"real", &Sample::real},
            CodingField{"flag", &Sample::flag},       CodingField{"bytes", &Sample::bytes},
            CodingField{"colours", &Sample::colours}, CodingField{"inner", &Sample::inner},
            CodingField{"inners", &Sample::inners}};
    }
    friend bool operator==(const Sample&, const Sample&) = default;
};

struct Empty {
    static constexpr auto codingFields() { return std::tuple<>{}; }
};

}  // namespace

template <>
struct WireEnumTraits<Colour> {
    static constexpr std::int64_t caseCount = 3;
};

namespace {

const std::string kSampleJSON =
    R"({"text":"a\/b","small":-3,"big":9007199254740993,"real":0.5,"flag":true,)"
    R"("bytes":"AP8Q","colours":[1,2,0],"inner":{"n":7},"inners":[{"n":1},{"n":2}]})";

Sample sample() {
    const platform::Data bytes{{0x00, 0xff, 0x10}};
    const std::vector colours{Colour::red, Colour::green, Colour::unspecified};
    return Sample{"a/b",   -3,       9007199254740993,    0.5, true, bytes,
                  colours, Inner{7}, {Inner{1}, Inner{2}}};
}

// Members are written in declaration order with the platform's JSON rules, and read back.
TEST(OrraJSONCoding, EncodesMembersInDeclarationOrderAndRoundTrips) {
    auto encoded = OrraJSONCoding::makeEncoder().encode(sample());
    ASSERT_TRUE(encoded.ok()) << encoded.error().description();
    EXPECT_EQ(encoded.value(), kSampleJSON);
    EXPECT_EQ(OrraJSONCoding::makeEncoder().encode(Empty{}).value(), "{}");
    auto decoded = OrraJSONCoding::makeDecoder().decode<Sample>(kSampleJSON);
    ASSERT_TRUE(decoded.ok()) << decoded.error().description();
    EXPECT_EQ(decoded.value(), sample());

    for (const auto& [number, text] :
         {std::pair{std::numeric_limits<double>::quiet_NaN(), "nan"},
          std::pair{std::numeric_limits<double>::infinity(), "inf"},
          std::pair{-std::numeric_limits<double>::infinity(), "-inf"}}) {
        Sample unwritable = sample();
        unwritable.real = number;
        encoded = OrraJSONCoding::makeEncoder().encode(unwritable);
        ASSERT_FALSE(encoded.ok());
        EXPECT_EQ(encoded.error().kind(), CodingErrorKind::invalidValue);
        EXPECT_EQ(encoded.error().description(),
                  std::string("invalidValue at \"real\": the number ") + text +
                      " cannot be written in JSON");
    }
}

std::string replaced(std::string json, const std::string& from, const std::string& to) {
    return json.replace(json.find(from), from.size(), to);
}

// Each failure names its kind, where it happened and what was found instead.
TEST(OrraJSONCoding, DecodingFailuresReportKindPathAndWhatWasFound) {
    // What replaces what in the sample's text, and the failure's description.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {kSampleJSON, "{", "dataCorrupted at the top level: the data is not valid JSON ("},
        {kSampleJSON, "[]", "typeMismatch at the top level: expected an object but found an array"},
        {R"("small":-3,)", "", "keyNotFound at \"small\": no value for key \"small\""},
        {"-3", "null", "valueNotFound at \"small\": expected an integer but found null"},
        {"-3", "\"-3\"", "typeMismatch at \"small\": expected an integer but found a string"},
        {"-3", "true", "typeMismatch at \"small\": expected an integer but found a boolean"},
        {"-3", "2147483648",
         "dataCorrupted at \"small\": the number 2147483648 does not fit in a 32-bit integer"},
        {"-3", "-2147483649",
         "dataCorrupted at \"small\": the number -2147483649 does not fit in a 32-bit integer"},
        {"-3", "2147483648.0",
         "dataCorrupted at \"small\": the number 2147483648 does not fit in a 32-bit integer"},
        {"-3", "-2147483649.0",
         "dataCorrupted at \"small\": the number -2147483649 does not fit in a 32-bit integer"},
        {"-3", "1.5", "dataCorrupted at \"small\": the number 1.5 is not an integer"},
        {"9007199254740993", "9223372036854775808",
         "dataCorrupted at \"big\": the number 9223372036854775808 does not fit in a 64-bit "
         "integer"},
        {"9007199254740993", "1e19",
         "dataCorrupted at \"big\": the number 1e+19 does not fit in a 64-bit integer"},
        {"9007199254740993", "-123456789012345678901234567890",
         "dataCorrupted at \"big\": the number -1.2345678901234568e+29 does not fit in a 64-bit "
         "integer"},
        {"\"a\\/b\"", "[]", "typeMismatch at \"text\": expected a string but found an array"},
        {"\"flag\":true", "\"flag\":1",
         "typeMismatch at \"flag\": expected a boolean but found an integer"},
        {"AP8Q", "AP8", "dataCorrupted at \"bytes\": the string is not valid base64"},
        {"\"AP8Q\"", "7",
         "typeMismatch at \"bytes\": expected a base64 string but found an integer"},
        {"[1,2,0]", "{}", "typeMismatch at \"colours\": expected an array but found an object"},
        {"[1,2,0]", "[1,\"2\"]",
         "typeMismatch at \"colours[1]\": expected an integer but found a string"},
        {"{\"n\":2}", "{}", "keyNotFound at \"inners[1].n\": no value for key \"n\""},
    };
    for (const auto& [from, to, description] : cases) {
        const std::string json = replaced(kSampleJSON, from, to);
        auto decoded = OrraJSONCoding::makeDecoder().decode<Sample>(json);
        ASSERT_FALSE(decoded.ok()) << json;
        EXPECT_EQ(decoded.error().description().substr(0, description.size()), description);
    }
}

// Integers may be written as integral reals, up to the ends of their range; a number beyond 64
// bits reads as the nearest double; an enumeration number that names no case reads as unspecified.
TEST(OrraJSONCoding, IntegerReadsAcceptIntegralRealsAndEnumsFallBackToUnspecified) {
    const auto decode = [](const std::string& from, const std::string& to) {
        auto decoded =
            OrraJSONCoding::makeDecoder().decode<Sample>(replaced(kSampleJSON, from, to));
        EXPECT_TRUE(decoded.ok()) << to << ": " << decoded.error().description();
        return decoded.ok() ? decoded.value() : Sample{};
    };
    EXPECT_EQ(decode("-3", "1e2").small, 100);
    EXPECT_EQ(decode("0.5", "18446744073709551615").real, 18446744073709551615.0);
    EXPECT_EQ(decode("0.5", "123456789012345678901234567890").real,
              123456789012345678901234567890.0);
    EXPECT_EQ(decode("[1,2,0]", "[3.0,-1,99,2]").colours,
              (std::vector{Colour::unspecified, Colour::unspecified, Colour::unspecified,
                           Colour::green}));
    for (const auto& [text, expected] :
         {std::pair{"2147483647", 2147483647}, std::pair{"-2147483648", -2147483647 - 1},
          std::pair{"2147483647.0", 2147483647}, std::pair{"-2.147483648e9", -2147483647 - 1}}) {
        EXPECT_EQ(decode("\"small\":-3", std::string("\"small\":") + text).small, expected) << text;
    }
}

TEST(NimbError, JSONObjectHasCodeMessageThenPresentFieldsInOrder) {
    NimbError error(NimbErrorCode::failedPrecondition, "m/1");
    error.instance = "inst";
    error.details = platform::Value(platform::Dictionary{{"k", 1}});
    error.externalCode = "EXT";
    error.type = "urn:t";
    error.traceId = "tr";
    auto text = platform::JSONSerialization::data(error.toJSONObject());
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(*text, R"({"code":"FAILED_PRECONDITION","message":"m\/1","externalCode":"EXT",)"
                     R"("traceId":"tr","details":{"k":1},"type":"urn:t","instance":"inst"})");
    NimbError bare(NimbErrorCode::internal, "x");
    EXPECT_EQ(platform::JSONSerialization::data(bare.toJSONObject()),
              R"({"code":"INTERNAL","message":"x"})");
}

TEST(NimbErrorCode, WireTextsAreUpperSnakeCaseAndReversible) {
    // Every code's text, in the order of the codes.
    std::istringstream texts(
        "OK CANCELLED UNKNOWN INVALID_ARGUMENT DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS "
        "PERMISSION_DENIED RESOURCE_EXHAUSTED FAILED_PRECONDITION ABORTED OUT_OF_RANGE "
        "UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS UNAUTHENTICATED");
    int i = 0;
    for (std::string text; texts >> text; ++i) {
        EXPECT_EQ(wireText(static_cast<NimbErrorCode>(i)), text);
        EXPECT_EQ(nimbErrorCodeFromWireText(text), static_cast<NimbErrorCode>(i));
    }
    EXPECT_EQ(i, static_cast<int>(NimbErrorCode::unauthenticated) + 1);
    EXPECT_EQ(nimbErrorCodeFromWireText("internal"), std::nullopt);
    EXPECT_EQ(wireText(static_cast<NimbErrorCode>(-1)), "UNKNOWN");
}

using Names = std::vector<std::string>;

// A listener that appends "<tag><name>" (and "=<payload>" unless it is empty) for every event;
// for tests whose events all come from one thread, so it needs no lock.
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
    dispatcher.subscribe([](const std::string&, const std::string&) { throw 42; });
    dispatcher.subscribe(recordInto(calls, "b:"));
    EXPECT_EQ(dispatcher.subscribe(nullptr), 0u);
    platform::LogCapture capture;
    dispatcher.emitEvent("E", "{\"x\":1}");
    // Seen before emitEvent returned.
    EXPECT_EQ(calls, (Names{"a:E={\"x\":1}", "b:E={\"x\":1}"}));
    const auto records = capture.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].message, "Event listener failed on \"E\": nope");
    EXPECT_EQ(records[1].message, "Event listener failed on \"E\"");
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

    // A reset forgets kept events with their emitters: this thread's next event has none to
    // wait for.
    dispatcher.resetForTesting();
    dispatcher.emitEvent("f", "");
    dispatcher.resetForTesting();
    calls.clear();
    dispatcher.subscribe(recordInto(calls, "reset:"));
    dispatcher.emitEvent("g", "");
    EXPECT_EQ(calls, (Names{"reset:g"}));
}

// A listener that leaves while a kept event is handed to it is released outside the
// dispatcher's lock, so that what it owns may still call the dispatcher as it goes (under the
// lock, that call would deadlock).
TEST(OrraBridgeDispatcherTest, AListenerReleasedDuringTheHandOverMayCallTheDispatcher) {
    OrraBridgeDispatcher dispatcher;
    // Subscriptions are numbered in order: the listener below learns its own number before
    // subscribe returns it.
    const auto probe = dispatcher.subscribe([](const std::string&, const std::string&) {});
    dispatcher.unsubscribe(probe);
    dispatcher.emitEvent("kept", "");
    Names calls;
    std::shared_ptr<void> owned(nullptr,
                                [&](void*) { dispatcher.subscribe(recordInto(calls, "later:")); });
    dispatcher.subscribe(
        [&, owned = std::move(owned)](const std::string& name, const std::string&) {
            calls.push_back(name);
            dispatcher.unsubscribe(probe + 1);
        });
    dispatcher.emitEvent("after", "");
    EXPECT_EQ(calls, (Names{"kept", "later:after"}));
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

// An emitter's new event waits for every one of its kept events, not only the first, even when
// it emits while another thread hands them over. The pauses make a wrong order likely to show.
TEST(OrraBridgeDispatcherTest, NewEventsWaitForAllOfTheirEmittersKeptEvents) {
    OrraBridgeDispatcher dispatcher;
    std::promise<void> kept, go;
    std::thread emitter([&] {
        dispatcher.emitEvent("kept 1", ""), dispatcher.emitEvent("kept 2", "");
        kept.set_value(), go.get_future().wait();
        dispatcher.emitEvent("new", "");
    });
    kept.get_future().wait();
    std::mutex mutex;
    Names calls;
    dispatcher.subscribe([&](const std::string& name, const std::string&) {
        if (name != "new") {
            name == "kept 1" ? go.set_value() : void();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        const std::lock_guard lock(mutex);
        calls.push_back(name);
    });
    emitter.join();
    EXPECT_EQ(calls, (Names{"kept 1", "kept 2", "new"}));
}

TEST(OrraBridgeDispatcherTest, ListenersMayReenterTheDispatcher) {
    OrraBridgeDispatcher dispatcher;
    Names calls;
    OrraBridgeDispatcher::SubscriptionId a = 0, c = 0;
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

    // The last listener leaves, another thread emits (kept: nobody listens) and the listener
    // subscribes another, inside its delivery: the newcomer hears the kept event as part of it.
    OrraBridgeDispatcher alone;
    Names heard;
    OrraBridgeDispatcher::SubscriptionId only = 0;
    only = alone.subscribe([&](const std::string& name, const std::string&) {
        if (name == "go") {
            alone.unsubscribe(only);
            std::thread([&] { alone.emitEvent("kept", ""); }).join();
            alone.subscribe(recordInto(heard, "next:"));
        }
    });
    alone.emitEvent("go", "");
    EXPECT_EQ(heard, (Names{"next:kept"}));
}

TEST(OrraBridgeDispatcherTest, ConcurrentEmittersLoseNothingAndKeepTheirOwnOrder) {
    OrraBridgeDispatcher dispatcher;
    constexpr int emitters = 8;
    constexpr int eventsEach = 500;
    // Each emitter delivers its own events, so listeners are called from several threads.
    std::mutex mutex;
    Names received[2];
    for (Names& into : received) {
        dispatcher.subscribe([&mutex, &into](const std::string& name, const std::string&) {
            std::lock_guard lock(mutex);
            into.push_back(name);
        });
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < emitters; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < eventsEach; ++i) {
                dispatcher.emitEvent(std::to_string(t) + ":" + std::to_string(i), "");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    // Every emitEvent has returned, so every event has been delivered.
    for (const Names& names : received) {
        ASSERT_EQ(names.size(), std::size_t{emitters * eventsEach});
        std::vector<int> next(emitters, 0);
        for (const std::string& name : names) {
            const int t = std::stoi(name);
            EXPECT_EQ(name, std::to_string(t) + ":" + std::to_string(next[t]++));
        }
    }
}

// Event delivery across threads: each thread delivers its own events, so no emitter waits for
// another's listeners, and an event is seen before its emitEvent returns.
TEST(DispatcherFairness, EveryEventIsDeliveredByItsEmitterBeforeEmitReturns) {
    OrraBridgeDispatcher dispatcher;
    const auto mainThread = std::this_thread::get_id();
    std::mutex mutex;
    std::vector<std::pair<std::string, bool>> seen;  // name, seen on the main thread
    std::binary_semaphore held{0}, release{0};
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
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
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
