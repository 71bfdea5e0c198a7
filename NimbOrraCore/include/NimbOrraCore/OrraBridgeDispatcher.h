// The bridge's hub inside the process: it keeps the registered plug-ins, by name, and carries the
// events that plug-ins emit to the listeners that the host subscribes.
//
// Everything here is safe to call from any thread. The dispatcher never calls a listener, nor
// releases a plug-in or a listener, while it holds one of its locks, so listeners may call back
// into the dispatcher (emit, subscribe, unsubscribe). Nothing throws; failures are logged
// (subsystem "com.nimborra.core", category "bridge").
//
// How events travel (the rule that plug-ins and hosts may rely on):
// - Each thread delivers its own events. emitEvent calls the listeners subscribed at that moment,
//   in subscription order, on the calling thread, and returns once they have all returned. So an
//   event emitted inside an operation reaches every listener before the operation's reply, and
//   what other threads emit meanwhile, however much, never holds up this thread's emitEvent.
// - Order is kept per emitting thread: the events that one thread emits reach each listener in
//   the order in which that thread emitted them. Events of different threads have no order
//   between them, and a listener may be called for them at the same time on their emitters'
//   threads: a listener must be safe to call from several threads at once (a listener that takes
//   a lock of its own while it runs is).
// - An event that a listener emits is queued on its thread and delivered by that thread as soon
//   as the event in delivery has reached every listener, before the outermost emitEvent (or
//   subscribe) on that thread returns.
// - While no listener is subscribed, events are kept (see emitEvent) for the first listener that
//   subscribes, which receives them on the subscribing thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "NimbOrraCore/Export.h"
#include "NimbOrraCore/OrraPlugin.h"

namespace nimborra::core {

// Receives every event, with its name and its payload (usually a JSON text).
using OrraEventListener = std::function<void(const std::string& name, const std::string& payload)>;

class NIMBORRA_CORE_EXPORT OrraBridgeDispatcher {
  public:
    // Identifies one subscription; never 0.
    using SubscriptionId = std::uint64_t;

    // How many events are kept while no listener is subscribed.
    static constexpr std::size_t maximumBacklog = 1024;

    // The process's dispatcher, through which plug-ins and the host meet. Created on first use
    // and never destroyed, so it may be used during static destruction.
    static OrraBridgeDispatcher& shared();

    // A separate, empty dispatcher (for tests, or a host that embeds more than one bridge).
    OrraBridgeDispatcher();
    ~OrraBridgeDispatcher();
    OrraBridgeDispatcher(const OrraBridgeDispatcher&) = delete;
    OrraBridgeDispatcher& operator=(const OrraBridgeDispatcher&) = delete;

    // Keeps `plugin` under `name` from now on. A later registration under the same name
    // replaces the earlier one (the earlier plug-in is released; calls already running on it
    // finish). A null plug-in is refused and logged.
    void registerPlugin(std::string name, std::shared_ptr<OrraPlugin> plugin);

    // The plug-in registered under exactly `name`, or nullptr when there is none.
    [[nodiscard]] std::shared_ptr<OrraPlugin> plugin(std::string_view name) const;

    // Delivers an event to the subscribed listeners, by the rule above: on this thread, before
    // emitEvent returns (an emitEvent from inside a listener returns at once; its event follows
    // when the current one has been delivered).
    //
    // With no listener subscribed, events are kept, in order, for the first listener that
    // subscribes; at most maximumBacklog of them: past that the oldest is dropped and an error
    // is logged. While kept events of this thread are still being handed to that listener (on
    // the subscribing thread), emitEvent waits until they have been, so that this thread's
    // order holds; it never waits for the events of other threads.
    void emitEvent(std::string name, std::string payload);

    // Adds a listener and returns its subscription. If events were kept while nobody listened,
    // they are delivered to this first listener alone (to every listener once it has left), in
    // order, on this thread before subscribe returns (the listener may then be called before it
    // learns its subscription); should another thread still be handing kept events over, that
    // thread delivers them instead. An empty function is refused: the answer is 0 and nothing
    // is subscribed.
    SubscriptionId subscribe(OrraEventListener listener);

    // Ends a subscription; unknown identifiers are ignored. From then on no delivery calls the
    // listener. Called from outside any listener, unsubscribe also waits until the listener's
    // calls still running on other threads have returned, so whatever the listener uses may be
    // released as soon as unsubscribe returns (do not call it while holding a lock that the
    // listener takes). Called from inside a listener, it does not wait: a call running on
    // another thread may then still be finishing. A listener may unsubscribe itself or another
    // listener while it runs; one later in the delivery in progress is then skipped.
    void unsubscribe(SubscriptionId subscription);

    // For tests only: forgets every plug-in, every listener and the kept events, so that each
    // test starts from an empty dispatcher. Call it only while no other thread uses this
    // dispatcher and no delivery is running.
    void resetForTesting();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace nimborra::core
