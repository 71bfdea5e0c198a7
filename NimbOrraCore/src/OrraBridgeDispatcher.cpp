#include "NimbOrraCore/OrraBridgeDispatcher.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::core {

namespace {

// Leaked on purpose, like the shared dispatcher that logs through it.
const platform::Logger& bridgeLogger() {
    static const platform::Logger* logger = new platform::Logger("com.nimborra.core", "bridge");
    return *logger;
}

struct Listener {
    Listener(OrraBridgeDispatcher::SubscriptionId listenerId, OrraEventListener function)
        : id(listenerId), call(std::move(function)) {}

    const OrraBridgeDispatcher::SubscriptionId id;
    const OrraEventListener call;
    // Cleared by unsubscribe, so that deliveries in progress skip a listener that has just been
    // removed.
    std::atomic<bool> active{true};
    // Calls in progress or about to start, on any thread; unsubscribe waits for it to reach 0.
    std::atomic<std::uint32_t> running{0};
};

struct Event {
    std::string name;
    std::string payload;
    // 0: every listener subscribed at delivery time. Otherwise the one listener that the event
    // was kept for (the first to subscribe after it was emitted), if it is still subscribed.
    OrraBridgeDispatcher::SubscriptionId addressee = 0;
    std::thread::id emitter;
};

// Listener calls in progress on this thread, for any dispatcher. Plain integers and pointers
// only: nothing thread-local here has a destructor.
thread_local unsigned listenerCallsOnThisThread = 0;

// A delivery running on this thread for one dispatcher. Events that its listeners emit are
// queued here and delivered by the same thread when the event in delivery is done.
struct DeliveryFrame {
    const void* dispatcher;
    // A vector, whose empty state allocates nothing, so that opening a frame cannot fail.
    std::vector<Event> queued;
    DeliveryFrame* outer;
};
thread_local DeliveryFrame* innermostFrame = nullptr;

DeliveryFrame* frameOf(const void* dispatcher) {
    for (DeliveryFrame* frame = innermostFrame; frame != nullptr; frame = frame->outer) {
        if (frame->dispatcher == dispatcher) {
            return frame;
        }
    }
    return nullptr;
}

// Opens a delivery frame for the scope's lifetime.
class FrameScope {
  public:
    explicit FrameScope(const void* dispatcher) : frame_{dispatcher, {}, innermostFrame} {
        innermostFrame = &frame_;
    }
    ~FrameScope() { innermostFrame = frame_.outer; }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;

    DeliveryFrame& frame() { return frame_; }

  private:
    DeliveryFrame frame_;
};

// Calls one listener unless it has been unsubscribed. `running` goes up before `active` is
// read, and unsubscribe clears `active` before it reads `running` (both sequentially
// consistent): either this call sees the listener gone, or unsubscribe sees the call and waits.
void callListener(Listener& listener, const Event& event) {
    listener.running.fetch_add(1);
    if (listener.active.load()) {
        ++listenerCallsOnThisThread;
        try {
            listener.call(event.name, event.payload);
        } catch (const std::exception& error) {
            bridgeLogger().error(
                [&] { return "Event listener failed on \"" + event.name + "\": " + error.what(); });
        } catch (...) {
            bridgeLogger().error([&] { return "Event listener failed on \"" + event.name + "\""; });
        }
        --listenerCallsOnThisThread;
    }
    if (listener.running.fetch_sub(1) == 1) {
        listener.running.notify_all();
    }
}

void logDropped(const std::vector<std::string>& dropped) {
    for (const auto& name : dropped) {
        bridgeLogger().error([&] {
            return "Event backlog full (" + std::to_string(OrraBridgeDispatcher::maximumBacklog) +
                   " events, no listener subscribed); dropped the oldest event \"" + name + "\"";
        });
    }
}

}  // namespace

struct OrraBridgeDispatcher::State {
    mutable std::mutex pluginsMutex;
    std::map<std::string, std::shared_ptr<OrraPlugin>, std::less<>> plugins;

    // Guards everything below.
    std::mutex eventsMutex;
    std::vector<std::shared_ptr<Listener>> listeners;  // in subscription order
    // The events kept while nobody listened, oldest first, until they are handed to the first
    // listener that subscribes.
    std::deque<Event> backlog;
    // How many events of each thread are kept and not yet handed over (a thread absent: none).
    std::map<std::thread::id, std::size_t> keptBy;
    // Signalled whenever a kept event has been handed over, a hand-over ends or the last
    // listener leaves: the moments at which an emitter waiting for its kept events may go on.
    std::condition_variable handedOver;
    // Some thread is handing the backlog over. Whenever there are both listeners and kept
    // events, one is.
    bool handingOver = false;
    SubscriptionId nextId = 1;

    std::size_t keptFrom(std::thread::id emitter) const {
        const auto found = keptBy.find(emitter);
        return found == keptBy.end() ? 0 : found->second;
    }

    void forgetKept(std::thread::id emitter) {
        const auto found = keptBy.find(emitter);
        if (found != keptBy.end() && --found->second == 0) {
            keptBy.erase(found);
        }
    }

    // Keeps `event` for the first listener to come, dropping the oldest kept events to make
    // room; the caller holds the lock. The names of the events dropped go to `dropped`. Should
    // memory run out, the event is lost and the counts stay right.
    void keep(Event event, std::vector<std::string>& dropped) {
        while (backlog.size() >= maximumBacklog) {
            std::string name = std::move(backlog.front().name);
            forgetKept(backlog.front().emitter);
            backlog.pop_front();
            dropped.push_back(std::move(name));
        }
        const std::thread::id emitter = event.emitter;
        backlog.push_back(std::move(event));
        try {
            ++keptBy[emitter];
        } catch (...) {
            backlog.pop_back();
            throw;
        }
    }

    // Delivers one event of this thread to the listeners subscribed now, or keeps it when
    // there are none. Waits first while kept events of the same thread are still being handed
    // over. Called without the lock.
    void dispatch(Event event) {
        std::vector<std::string> dropped;
        std::vector<std::shared_ptr<Listener>> audience;
        {
            std::unique_lock lock(eventsMutex);
            handedOver.wait(lock,
                            [&] { return listeners.empty() || keptFrom(event.emitter) == 0; });
            if (listeners.empty()) {
                keep(std::move(event), dropped);
            } else {
                audience = listeners;
            }
        }
        logDropped(dropped);
        for (const auto& listener : audience) {
            callListener(*listener, event);
        }
        // `audience` is released here, outside the lock: a listener's captures may call back in
        // when they go.
    }

    // Delivers the events queued in `frame` (emitted by listeners on this thread), oldest
    // first, until none is left.
    void deliverQueued(DeliveryFrame& frame) {
        // By index: the listeners may queue more while this runs.
        for (std::size_t next = 0; next < frame.queued.size(); ++next) {
            Event event = std::move(frame.queued[next]);
            dispatch(std::move(event));
        }
        frame.queued.clear();
    }

    // Hands the kept events over, oldest first, each to the listener it was kept for (or, once
    // that one has left, to every listener), until none is left or nobody listens. The caller
    // has set `handingOver`; this clears it.
    void handOver() {
        std::unique_lock lock(eventsMutex);
        while (!backlog.empty() && !listeners.empty()) {
            Event event = std::move(backlog.front());
            backlog.pop_front();
            try {
                std::vector<std::shared_ptr<Listener>> audience;
                for (const auto& listener : listeners) {
                    if (listener->id == event.addressee) {
                        audience.push_back(listener);
                    }
                }
                if (audience.empty()) {
                    audience = listeners;
                }
                lock.unlock();
                for (const auto& listener : audience) {
                    callListener(*listener, event);
                }
                audience.clear();
                lock.lock();
            } catch (...) {
                if (!lock.owns_lock()) {
                    lock.lock();
                }
                bridgeLogger().error("A kept event was lost: out of memory");
            }
            // Only now, once it has been delivered, may its emitter's newer events follow.
            forgetKept(event.emitter);
            handedOver.notify_all();
        }
        handingOver = false;
        handedOver.notify_all();
    }
};

OrraBridgeDispatcher& OrraBridgeDispatcher::shared() {
    // Leaked on purpose: plug-ins and hosts may still reach it during static destruction.
    static OrraBridgeDispatcher* dispatcher = new OrraBridgeDispatcher();
    return *dispatcher;
}

OrraBridgeDispatcher::OrraBridgeDispatcher() : state_(std::make_unique<State>()) {}

OrraBridgeDispatcher::~OrraBridgeDispatcher() = default;

void OrraBridgeDispatcher::registerPlugin(std::string name, std::shared_ptr<OrraPlugin> plugin) {
    if (!plugin) {
        bridgeLogger().error(
            [&] { return "Refused to register an empty plug-in under \"" + name + "\""; });
        return;
    }
    std::shared_ptr<OrraPlugin> replaced;
    try {
        std::lock_guard lock(state_->pluginsMutex);
        auto& slot = state_->plugins[std::move(name)];
        replaced = std::exchange(slot, std::move(plugin));
    } catch (...) {
        bridgeLogger().error("Could not register a plug-in: out of memory");
    }
    // `replaced` is released here, outside the lock: its destructor may use the dispatcher.
}

std::shared_ptr<OrraPlugin> OrraBridgeDispatcher::plugin(std::string_view name) const {
    std::lock_guard lock(state_->pluginsMutex);
    const auto found = state_->plugins.find(name);
    return found == state_->plugins.end() ? nullptr : found->second;
}

void OrraBridgeDispatcher::emitEvent(std::string name, std::string payload) {
    try {
        Event event{std::move(name), std::move(payload), 0, std::this_thread::get_id()};
        if (DeliveryFrame* frame = frameOf(state_.get())) {
            // From inside a listener: delivered by this thread once the current event is done.
            frame->queued.push_back(std::move(event));
            return;
        }
        FrameScope scope(state_.get());
        state_->dispatch(std::move(event));
        state_->deliverQueued(scope.frame());
    } catch (...) {
        bridgeLogger().error("Could not emit an event: out of memory");
    }
}

OrraBridgeDispatcher::SubscriptionId OrraBridgeDispatcher::subscribe(OrraEventListener listener) {
    if (!listener) {
        return 0;
    }
    SubscriptionId id = 0;
    bool handOver = false;
    try {
        std::lock_guard lock(state_->eventsMutex);
        id = state_->nextId++;
        state_->listeners.push_back(std::make_shared<Listener>(id, std::move(listener)));
        if (state_->listeners.size() == 1) {
            // The backlog belongs to this listener alone.
            for (auto& event : state_->backlog) {
                event.addressee = id;
            }
        }
        if (!state_->backlog.empty() && !state_->handingOver) {
            state_->handingOver = true;
            handOver = true;
        }
    } catch (...) {
        bridgeLogger().error("Could not subscribe a listener: out of memory");
        return 0;
    }
    if (handOver) {
        try {
            if (frameOf(state_.get()) != nullptr) {
                // Inside a listener: events that the backlog's listener emits join the queue of
                // the delivery in progress on this thread.
                state_->handOver();
            } else {
                FrameScope scope(state_.get());
                state_->handOver();
                state_->deliverQueued(scope.frame());
            }
        } catch (...) {
            bridgeLogger().error("Could not deliver the kept events: out of memory");
        }
    }
    return id;
}

void OrraBridgeDispatcher::unsubscribe(SubscriptionId subscription) {
    std::shared_ptr<Listener> removed;
    {
        std::lock_guard lock(state_->eventsMutex);
        auto& listeners = state_->listeners;
        for (auto it = listeners.begin(); it != listeners.end(); ++it) {
            if ((*it)->id == subscription) {
                (*it)->active.store(false);
                removed = std::move(*it);
                listeners.erase(it);
                break;
            }
        }
        if (listeners.empty()) {
            state_->handedOver.notify_all();
        }
    }
    if (removed && listenerCallsOnThisThread == 0) {
        // Not inside a listener, so none of the calls waited for runs on this thread.
        for (auto calls = removed->running.load(); calls != 0; calls = removed->running.load()) {
            removed->running.wait(calls);
        }
    }
    // `removed` is released here, outside the lock.
}

void OrraBridgeDispatcher::resetForTesting() {
    std::map<std::string, std::shared_ptr<OrraPlugin>, std::less<>> plugins;
    std::vector<std::shared_ptr<Listener>> listeners;
    std::deque<Event> backlog;
    {
        std::lock_guard lock(state_->pluginsMutex);
        plugins.swap(state_->plugins);
    }
    {
        std::lock_guard lock(state_->eventsMutex);
        listeners.swap(state_->listeners);
        backlog.swap(state_->backlog);
        state_->keptBy.clear();
        for (const auto& listener : listeners) {
            listener->active.store(false);
        }
    }
    // Everything taken out is released here, outside the locks.
}

}  // namespace nimborra::core
