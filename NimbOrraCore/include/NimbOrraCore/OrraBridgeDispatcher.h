// The bridge's hub inside the process: it keeps the registered plug-ins, by name, and carries the
// events that plug-ins emit to the listeners that the host subscribes.
//
// Everything here is safe to call from any thread. The dispatcher never calls a listener, nor
// releases a plug-in or a listener, while it holds one of its locks, so listeners may call back
// into the dispatcher (emit, subscribe, unsubscribe). Nothing throws; failures are logged
// (subsystem "com.nimborra.core", category "bridge").
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
    std::shared_ptr<OrraPlugin> plugin(std::string_view name) const;

    // Hands an event to the subscribed listeners, each in subscription order. Events form one
    // total order: every listener sees them in the order in which they were emitted.
    //
    // Delivery: when no other thread is delivering, the events are delivered on this thread
    // before emitEvent returns, so an event emitted inside an operation is seen before the
    // operation's reply. When another thread is delivering at that moment (or this thread is,
    // because a listener emits), the event is queued behind the ones in delivery and that
    // thread delivers it; emitEvent then returns without waiting.
    //
    // With no listener subscribed, events are kept, in order, for the first listener that
    // subscribes; at most maximumBacklog of them: past that the oldest is dropped and an error
    // is logged.
    void emitEvent(std::string name, std::string payload);

    // Adds a listener and returns its subscription. If events were kept while nobody listened,
    // they are delivered to this first listener, in order and before any newer event; when no
    // other thread is delivering, that happens on this thread before subscribe returns (the
    // listener may then be called before it learns its subscription). An empty function is
    // refused: the answer is 0 and nothing is subscribed.
    SubscriptionId subscribe(OrraEventListener listener);

    // Ends a subscription; unknown identifiers are ignored. From then on the listener is not
    // called for further events, except that a delivery already running on another thread may
    // call it once more. A listener may unsubscribe itself or another listener while it runs.
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
