// How long an event waits before its listener sees it while another emitter floods the bridge.
//
// The listener works 200 us on every event. One thread (the flood) emits an event every 150 us,
// more than the listener can take; another (the caller, in the plug-in's place) emits 20 events
// one after another, 1 ms apart. The time reported is the caller's events' mean latency: from
// the start of its emitEvent to the moment the listener starts on that event. The counters give
// the worst latency, how long the caller spent inside emitEvent and the share of its events that
// the listener had seen before emitEvent returned (the order a reply relies on: an event emitted
// by a call comes before the call's reply). The flood stops once the
// caller is done or after 250 ms, whichever comes first, so that a caller held up by the flood
// still finishes. "quiet" is the same caller with no flood.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "NimbOrraCore/OrraBridgeDispatcher.h"

namespace nimborra::bench {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kListenerWork = 200us;
constexpr auto kFloodInterval = 150us;
constexpr auto kFloodLimit = 250ms;
constexpr auto kCallerPause = 1ms;
constexpr std::size_t kCallerEvents = 20;

void work(std::chrono::nanoseconds duration) {
    const auto until = Clock::now() + duration;
    while (Clock::now() < until) {
    }
}

double seconds(Clock::duration duration) {
    return std::chrono::duration<double>(duration).count();
}

void DispatcherFlood(benchmark::State& state) {
    const bool flood = state.range(0) != 0;
    double worst = 0;
    double insideEmit = 0;
    double seenShare = 0;
    for (auto _ : state) {
        core::OrraBridgeDispatcher dispatcher;
        std::array<std::atomic<Clock::rep>, kCallerEvents> emitted{};
        std::array<std::atomic<Clock::rep>, kCallerEvents> seen{};
        dispatcher.subscribe([&](const std::string& name, const std::string& payload) {
            if (name == "call") {
                seen[std::stoul(payload)] = Clock::now().time_since_epoch().count();
            }
            work(kListenerWork);
        });

        std::atomic<bool> callerDone{false};
        std::thread flooder;
        if (flood) {
            flooder = std::thread([&] {
                const auto start = Clock::now();
                auto next = start;
                while (!callerDone.load() && Clock::now() - start < kFloodLimit) {
                    dispatcher.emitEvent("flood", "{}");
                    // No catching up after a slow emitEvent: at most one event per interval.
                    next = std::max(next + kFloodInterval, Clock::now());
                    std::this_thread::sleep_until(next);
                }
            });
        }
        Clock::duration blocked{};
        std::size_t seenBeforeReturn = 0;
        std::thread caller([&] {
            for (std::size_t i = 0; i < kCallerEvents; ++i) {
                const auto before = Clock::now();
                emitted[i] = before.time_since_epoch().count();
                dispatcher.emitEvent("call", std::to_string(i));
                blocked += Clock::now() - before;
                seenBeforeReturn += seen[i].load() != 0 ? 1 : 0;
                std::this_thread::sleep_for(kCallerPause);
            }
            callerDone = true;
        });
        caller.join();
        if (flooder.joinable()) {
            flooder.join();
        }

        double total = 0;
        for (std::size_t i = 0; i < kCallerEvents; ++i) {
            const double latency = seconds(Clock::duration(seen[i].load() - emitted[i].load()));
            total += latency;
            worst = std::max(worst, latency);
        }
        insideEmit += seconds(blocked) / kCallerEvents;
        seenShare += static_cast<double>(seenBeforeReturn) / kCallerEvents;
        state.SetIterationTime(total / kCallerEvents);
    }
    state.counters["worst_latency_us"] = worst * 1e6;
    state.counters["mean_inside_emit_us"] =
        insideEmit * 1e6 / static_cast<double>(state.iterations());
    state.counters["seen_before_return_pct"] =
        seenShare * 100 / static_cast<double>(state.iterations());
}

BENCHMARK(DispatcherFlood)
    ->Name("DispatcherFlood/flood")
    ->Arg(1)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(DispatcherFlood)
    ->Name("DispatcherFlood/quiet")
    ->Arg(0)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace nimborra::bench
