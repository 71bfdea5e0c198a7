#include "NimbOrraCore/OrraBridgeDispatcher.h"

#include <atomic>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
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
    // Cleared by unsubscribe, so that a delivery in progress skips a listener that has just
    // been removed.
    std::atomic<bool> active{true};
};

struct Event {
    std::string name;
    std::string payload;
    // 0: every listener subscribed at delivery time. Otherwise the one listener that the event
    // was kept for (the first to subscribe after it was emitted), if it is still subscribed.
    OrraBridgeDispatcher::SubscriptionId addressee = 0;
};

void callListener(const Listener& listener, const Event& event) {
    try {
        listener.call(event.name, event.payload);
    } catch (const std::exception& error) {
        bridgeLogger().error(
            [&] { return "Event listener failed on \"" + event.name + "\": " + error.what(); });
    } catch (...) {
        bridgeLogger().error([&] { return "Event listener failed on \"" + event.name + "\""; });
    }
}

}  // namespace

struct OrraBridgeDispatcher::State {
    mutable std::mutex pluginsMutex;
    std::map<std::string, std::shared_ptr<OrraPlugin>, std::less<>> plugins;

    // Guards everything below.
    std::mutex eventsMutex;
    std::vector<std::shared_ptr<Listener>> listeners;  // in subscription order
    // Events not yet delivered: the backlog while nobody listens, and the events queued behind
    // a delivery in progress.
    std::deque<Event> pending;
    // Some thread is in deliver(); events that arrive meanwhile are left to it.
    bool delivering = false;
    SubscriptionId nextId = 1;

    // While nobody listens, trims the backlog to make room for one more event; returns the
    // names of the events dropped.
    std::vector<std::string> makeRoomInBacklog() {
        std::vector<std::string> dropped;
        if (!listeners.empty()) {
            return dropped;
        }
        while (pending.size() >= maximumBacklog) {
            dropped.push_back(std::move(pending.front().name));
            pending.pop_front();
        }
        return dropped;
    }

    // Delivers pending events, oldest first, until none is left or nobody listens. Called with
    // `lock` held and `delivering` false; returns with the lock held. The lock is released
    // around every listener call.
    void deliver(std::unique_lock<std::mutex>& lock) {
        delivering = true;
        try {
            while (!pending.empty() && !listeners.empty()) {
                Event event = std::move(pending.front());
                pending.pop_front();
                std::vector<std::shared_ptr<Listener>> audience;
                if (event.addressee != 0) {
                    for (const auto& listener : listeners) {
                        if (listener->id == event.addressee) {
                            audience.push_back(listener);
                        }
                    }
                }
                if (audience.empty()) {
                    audience = listeners;
                }
                lock.unlock();
                for (const auto& listener : audience) {
                    if (listener->active.load()) {
                        callListener(*listener, event);
                    }
                }
                // Released before relocking: a listener's captures may call back in when they go.
                audience.clear();
                lock.lock();
            }
        } catch (...) {
            if (!lock.owns_lock()) {
                lock.lock();
            }
            bridgeLogger().error("Event delivery stopped: out of memory");
        }
        delivering = false;
    }
};

namespace {

void logDropped(const std::vector<std::string>& dropped) {
    for (const auto& name : dropped) {
        bridgeLogger().error([&] {
            return "Event backlog full (" + std::to_string(OrraBridgeDispatcher::maximumBacklog) +
                   " events, no listener subscribed); dropped the oldest event \"" + name + "\"";
        });
    }
}

}  // namespace

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
    std::vector<std::string> dropped;
    try {
        std::unique_lock lock(state_->eventsMutex);
        dropped = state_->makeRoomInBacklog();
        state_->pending.push_back(Event{std::move(name), std::move(payload), 0});
        if (!state_->delivering) {
            state_->deliver(lock);
        }
    } catch (...) {
        bridgeLogger().error("Could not emit an event: out of memory");
    }
    logDropped(dropped);
}

OrraBridgeDispatcher::SubscriptionId OrraBridgeDispatcher::subscribe(OrraEventListener listener) {
    if (!listener) {
        return 0;
    }
    try {
        std::unique_lock lock(state_->eventsMutex);
        const SubscriptionId id = state_->nextId++;
        const bool first = state_->listeners.empty();
        state_->listeners.push_back(std::make_shared<Listener>(id, std::move(listener)));
        if (first) {
            // The backlog belongs to this listener alone.
            for (auto& event : state_->pending) {
                if (event.addressee == 0) {
                    event.addressee = id;
                }
            }
        }
        if (!state_->delivering) {
            state_->deliver(lock);
        }
        return id;
    } catch (...) {
        bridgeLogger().error("Could not subscribe a listener: out of memory");
        return 0;
    }
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
    }
    // `removed` is released here, outside the lock.
}

void OrraBridgeDispatcher::resetForTesting() {
    std::map<std::string, std::shared_ptr<OrraPlugin>, std::less<>> plugins;
    std::vector<std::shared_ptr<Listener>> listeners;
    std::deque<Event> pending;
    {
        std::lock_guard lock(state_->pluginsMutex);
        plugins.swap(state_->plugins);
    }
    {
        std::lock_guard lock(state_->eventsMutex);
        listeners.swap(state_->listeners);
        pending.swap(state_->pending);
        for (const auto& listener : listeners) {
            listener->active.store(false);
        }
    }
    // Everything taken out is released here, outside the locks.
}

}  // namespace nimborra::core
