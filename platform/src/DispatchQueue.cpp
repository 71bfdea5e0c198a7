#include "NimbOrraPlatform/DispatchQueue.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <utility>

#include "NimbOrraPlatform/Logger.h"

namespace nimborra::platform {

namespace {

// Leaked on purpose: queues may still run and log while static objects are being destroyed.
const Logger& dispatchLogger() {
    static const Logger* logger = new Logger("com.nimborra.platform", "dispatch");
    return *logger;
}

const Logger& runtimeLogger() {
    static const Logger* logger = new Logger("com.nimborra.platform", "runtime");
    return *logger;
}

// Idle main-queue drains look at their stop condition at least this often.
constexpr std::chrono::milliseconds mainPollInterval{10};

}  // namespace

struct DispatchQueue::State {
    State(std::string queueLabel, DispatchQoS queueQoS, bool mainQueue)
        : label(std::move(queueLabel)), qos(queueQoS), isMain(mainQueue) {}

    const std::string label;
    const DispatchQoS qos;
    const bool isMain;
    // False once the worker thread could not be started: nothing would ever run an item.
    bool accepting = true;  // set before the queue is shared

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> items;  // guarded by mutex
    bool stopping = false;                    // guarded by mutex; worker queues only
    bool stopLoopRequested = false;           // guarded by mutex; main queue only

    // Main queue only, and only ever touched on the main thread: a drain is running, so a
    // nested drain (from inside an item) must not run anything.
    bool draining = false;
};

namespace {

// The queue whose worker is the current thread, if any.
thread_local const void* currentWorkerQueue = nullptr;

// Runs one item, keeping whatever it throws from reaching the queue's loop.
void runItem(const std::string& label, std::function<void()>& work) {
    try {
        work();
    } catch (const std::exception& error) {
        try {
            dispatchLogger().error(
                [&] { return "Work item on queue \"" + label + "\" threw: " + error.what(); });
        } catch (...) {
        }
    } catch (...) {
        try {
            dispatchLogger().error(
                [&] { return "Work item on queue \"" + label + "\" threw an unknown exception"; });
        } catch (...) {
        }
    }
}

// Pops the oldest item; the caller has checked that there is one and, when `items` are the
// queue's own, holds the queue's mutex.
std::function<void()> popFront(std::deque<std::function<void()>>& items) {
    std::function<void()> work = std::move(items.front());
    items.pop_front();
    return work;
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, DispatchQoS qos)
    : state_(std::make_shared<State>(std::move(label), qos, false)) {
    try {
        worker_ = std::thread(&DispatchQueue::runWorker, state_);
    } catch (const std::system_error& error) {
        state_->accepting = false;
        dispatchLogger().error([&] {
            return "Could not start the worker thread of queue \"" + state_->label +
                   "\": " + error.what();
        });
    }
}

DispatchQueue::DispatchQueue(std::string label, RefusingTag)
    : state_(std::make_shared<State>(std::move(label), DispatchQoS::unspecified, false)) {
    state_->accepting = false;
}

std::shared_ptr<DispatchQueue> DispatchQueue::makeRefusingForTesting(std::string label) {
    return std::shared_ptr<DispatchQueue>(new DispatchQueue(std::move(label), RefusingTag{}));
}

DispatchQueue::DispatchQueue(MainQueueTag)
    : state_(std::make_shared<State>("com.nimborra.main-thread", DispatchQoS::userInteractive,
                                     true)) {}

DispatchQueue::~DispatchQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_all();
    if (!worker_.joinable()) {
        return;
    }
    if (currentWorkerQueue == state_.get()) {
        // Destroyed by one of its own items: the worker keeps the shared state alive and runs
        // what is left once that item returns.
        worker_.detach();
    } else {
        worker_.join();
    }
}

const std::string& DispatchQueue::label() const {
    return state_->label;
}

DispatchQoS DispatchQueue::qos() const {
    return state_->qos;
}

bool DispatchQueue::async(std::function<void()>&& work) {
    if (!work) {
        return true;
    }
    bool taken = false;
    try {
        std::lock_guard lock(state_->mutex);
        if (state_->accepting) {
            // On failure push_back changes nothing, so `work` stays with the caller.
            state_->items.push_back(std::move(work));
            taken = true;
        }
    } catch (...) {
    }
    if (!taken) {
        dispatchLogger().error(
            [&] { return "Queue \"" + state_->label + "\" could not take a work item"; });
        return false;
    }
    state_->wake.notify_one();
    return true;
}

bool DispatchQueue::isCurrent() const {
    if (state_->isMain) {
        return isMainThread();
    }
    return currentWorkerQueue == state_.get();
}

DispatchQueue& DispatchQueue::main() {
    // Leaked on purpose, so that work submitted during static destruction finds a live queue.
    static DispatchQueue* queue = new DispatchQueue(MainQueueTag{});
    return *queue;
}

namespace {

// Marks a main-queue drain as running for its lifetime; `entered` is false when draining is
// not allowed here (off the main thread, or nested inside a drain).
class MainDrainScope {
  public:
    explicit MainDrainScope(bool& draining) : draining_(draining) {
        entered_ = isMainThread() && !draining_;
        if (entered_) {
            draining_ = true;
        }
    }
    ~MainDrainScope() {
        if (entered_) {
            draining_ = false;
        }
    }
    MainDrainScope(const MainDrainScope&) = delete;
    MainDrainScope& operator=(const MainDrainScope&) = delete;

    bool entered() const { return entered_; }

  private:
    bool& draining_;
    bool entered_ = false;
};

}  // namespace

std::size_t DispatchQueue::drainMain() {
    State& state = *main().state_;
    MainDrainScope scope(state.draining);
    if (!scope.entered()) {
        return 0;
    }
    std::size_t pending = 0;
    {
        std::lock_guard lock(state.mutex);
        pending = state.items.size();
    }
    std::size_t ran = 0;
    while (ran < pending) {
        std::function<void()> work;
        {
            std::lock_guard lock(state.mutex);
            if (state.items.empty()) {
                break;
            }
            work = popFront(state.items);
        }
        runItem(state.label, work);
        ++ran;
    }
    return ran;
}

bool DispatchQueue::runMainUntil(const std::function<bool()>& done,
                                 std::chrono::milliseconds timeout) {
    State& state = *main().state_;
    MainDrainScope scope(state.draining);
    if (!scope.entered() || !done) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (done()) {
            return true;
        }
        std::function<void()> work;
        {
            std::unique_lock lock(state.mutex);
            const auto now = std::chrono::steady_clock::now();
            if (now >= deadline) {
                break;
            }
            state.wake.wait_until(lock, std::min(deadline, now + mainPollInterval),
                                  [&] { return !state.items.empty(); });
            if (!state.items.empty()) {
                work = popFront(state.items);
            }
        }
        if (work) {
            runItem(state.label, work);
        }
    }
    return done();
}

void DispatchQueue::runMainLoop() {
    State& state = *main().state_;
    MainDrainScope scope(state.draining);
    if (!scope.entered()) {
        return;
    }
    for (;;) {
        std::function<void()> work;
        {
            std::unique_lock lock(state.mutex);
            state.wake.wait(lock, [&] { return state.stopLoopRequested || !state.items.empty(); });
            if (state.stopLoopRequested) {
                state.stopLoopRequested = false;
                return;
            }
            work = popFront(state.items);
        }
        runItem(state.label, work);
    }
}

void DispatchQueue::stopMainLoop() {
    State& state = *main().state_;
    {
        std::lock_guard lock(state.mutex);
        state.stopLoopRequested = true;
    }
    state.wake.notify_all();
}

void DispatchQueue::runWorker(std::shared_ptr<State> state) {
    currentWorkerQueue = state.get();
    // Thread names are limited to 15 bytes; the tail of a reverse-DNS label is the telling part.
    const std::string& label = state->label;
    const std::string shortName = label.size() > 15 ? label.substr(label.size() - 15) : label;
    pthread_setname_np(pthread_self(), shortName.c_str());

    // Items are taken out in batches: everything pending at once, under one lock, so that
    // submitters and the worker meet at the lock once per batch rather than once per item.
    // Items submitted meanwhile (also by the batch's own items) form the next batch, so the
    // submission order is kept.
    std::deque<std::function<void()>> batch;
    std::unique_lock lock(state->mutex);
    for (;;) {
        state->wake.wait(lock, [&] { return state->stopping || !state->items.empty(); });
        if (state->items.empty()) {
            break;  // stopping, and nothing is left to run
        }
        batch.swap(state->items);
        lock.unlock();
        while (!batch.empty()) {
            std::function<void()> work = popFront(batch);
            runItem(label, work);
            // Released before the next item: the item's captures may hold the last owner of
            // this queue, whose destructor must then find the worker outside the lock.
            work = nullptr;
        }
        lock.lock();
    }
}

bool isMainThread() {
    return ::gettid() == ::getpid();
}

void reportMainActorIsolationViolation(std::string_view file, unsigned line) {
    runtimeLogger().error([&] {
        return "Main-actor-isolated code ran off the main thread at " + std::string(file) + ":" +
               std::to_string(line);
    });
}

}  // namespace nimborra::platform
