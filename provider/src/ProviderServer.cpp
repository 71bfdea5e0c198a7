#include "NimbOrraProviderApi/ProviderServer.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/thread.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <span>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ProviderConnection.h"
#include "RepeatedLine.h"

namespace nimborra::provider {
namespace {

const platform::Logger& transportLogger() {
    static const platform::Logger* instance =
        new platform::Logger("com.nimborra.provider", "transport");
    return *instance;
}

}  // namespace

namespace detail {

struct Answer {
    std::uint64_t connection = 0;
    std::int32_t stream = 0;
    ProviderResponse response;
};

// Where answers from any thread meet the event loop: a queue the loop empties when woken. Once
// the loop has gone, `wake` is null and answers are dropped.
struct Mailbox {
    std::mutex mutex;
    std::vector<Answer> answers;
    bool stopRequested = false;
    event* wake = nullptr;

    void post(Answer answer) { post(std::span(&answer, 1)); }

    // The answers are moved from.
    void post(std::span<Answer> batch) {
        const std::lock_guard lock(mutex);
        if (wake != nullptr && !batch.empty()) {
            // Only the first answer of a batch wakes the loop: the ones after it find the wake
            // still pending and are taken with it, so that a busy handler does not contend for
            // the loop's lock once per answer.
            const bool first = answers.empty();
            answers.insert(answers.end(), std::make_move_iterator(batch.begin()),
                           std::make_move_iterator(batch.end()));
            if (first) {
                event_active(wake, 0, 0);
            }
        }
    }
};

// The answers held on this thread by its outermost ProviderAnswerBatch, in the order given.
struct HeldAnswers {
    std::vector<std::pair<std::shared_ptr<Mailbox>, Answer>> answers;
    int depth = 0;

    // Posts what is held, each server's answers in one go, in the order they were given.
    void release() noexcept {
        std::vector<Answer> run;
        std::size_t next = 0;
        try {
            run.reserve(answers.size());
            while (next < answers.size()) {
                Mailbox& box = *answers[next].first;
                run.clear();
                for (std::size_t k = next; k < answers.size() && answers[k].first.get() == &box;
                     ++k) {
                    run.push_back(std::move(answers[k].second));
                }
                box.post(std::span(run));
                next += run.size();
            }
        } catch (...) {
            // No room to gather them (a failed post leaves its run as it was): one at a time.
            for (Answer& answer : run) {
                postOne(*answers[next].first, std::move(answer));
            }
            next += run.size();
            for (; next < answers.size(); ++next) {
                postOne(*answers[next].first, std::move(answers[next].second));
            }
        }
        answers.clear();
    }

    static void postOne(Mailbox& box, Answer answer) noexcept {
        try {
            box.post(std::move(answer));
        } catch (...) {
            // Out of memory: this answer is lost, and its connection's idle timeout applies.
        }
    }
};
thread_local HeldAnswers heldAnswers;

}  // namespace detail

using detail::Answer;
using detail::Mailbox;
using detail::heldAnswers;

struct ProviderResponder::State {
    State(std::shared_ptr<Mailbox> box, std::uint64_t connectionId, std::int32_t streamId)
        : mailbox(std::move(box)), connection(connectionId), stream(streamId) {}
    std::shared_ptr<Mailbox> mailbox;
    const std::uint64_t connection;
    const std::int32_t stream;
    std::atomic<bool> answered{false};

    void answer(ProviderResponse response) {
        if (answered.exchange(true)) {
            return;
        }
        Answer answer{connection, stream, std::move(response)};
        if (heldAnswers.depth > 0) {
            try {
                heldAnswers.answers.emplace_back(mailbox, std::move(answer));
                return;
            } catch (...) {
                // The held list could not grow, which fails before the answer is taken: it is
                // posted at once instead.
            }
        }
        mailbox->post(std::move(answer));
    }
};

ProviderAnswerBatch::ProviderAnswerBatch() noexcept {
    ++heldAnswers.depth;
}

ProviderAnswerBatch::~ProviderAnswerBatch() {
    if (--heldAnswers.depth == 0) {
        heldAnswers.release();
    }
}

ProviderResponder::ProviderResponder(std::shared_ptr<State> state) : state_(std::move(state)) {}
ProviderResponder::ProviderResponder(ProviderResponder&&) noexcept = default;

ProviderResponder& ProviderResponder::operator=(ProviderResponder&& other) noexcept {
    if (this != &other) {
        ProviderResponder dropped(std::move(*this));
        state_ = std::move(other.state_);
    }
    return *this;
}

ProviderResponder::~ProviderResponder() {
    // Answered already (the usual case): nothing to make.
    if (state_ && !state_->answered.load(std::memory_order_acquire)) {
        try {
            state_->answer({500, {}, R"({"reason":"InternalServerError"})"});
        } catch (...) {
            // Out of memory in a destructor: the request stays unanswered rather than the
            // process ending; its connection's idle timeout still applies.
        }
    }
}

void ProviderResponder::operator()(ProviderResponse response) {
    if (state_) {
        state_->answer(std::move(response));
    }
}

struct ProviderServer::Impl final : detail::ConnectionHost {
    Impl(ProviderServerOptions opts, ProviderRequestHandler& requestHandler)
        : options_(std::move(opts)), handler_(requestHandler) {}
    ~Impl() { release(); }

    const ProviderServerOptions& options() const override { return options_; }
    bool readingPaused() const override { return paused_; }
    const platform::Logger& log() const override { return transportLogger(); }
    detail::RepeatedLine& line(detail::LogLine kind) override {
        return *lines_[static_cast<std::size_t>(kind)];
    }
    bool charge(detail::ProviderConnection& connection, std::size_t bytes) override;
    void release(detail::ProviderConnection& connection, std::size_t bytes) override;
    void refusedRequest(const TransportRefusal& refusal) override;

    std::optional<std::string> listen();
    void run();
    void stop();
    void release();

    void requestsReady(std::uint64_t id) override;
    void connectionClosed(std::uint64_t id) override;
    void accepted(evutil_socket_t fd);
    void woken();
    void dispatch();
    void updatePause();
    void stopStep();
    void finishIfDone();
    void add(detail::ProviderConnection& connection, std::size_t bytes);
    std::size_t budget() const;
    detail::ProviderConnection* heaviest(const detail::ProviderConnection* besides);
    detail::ProviderConnection* find(std::uint64_t id) {
        const auto it = connections_.find(id);
        return it == connections_.end() || it->second->closed() ? nullptr : it->second.get();
    }

    ProviderServerOptions options_;
    ProviderRequestHandler& handler_;
    std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>();
    // Answers taken from the mailbox, being written, and the connections they went to (loop
    // thread only).
    std::vector<Answer> taken_;
    std::vector<std::uint64_t> answered_;
    event_base* base_ = nullptr;
    evconnlistener* listener_ = nullptr;
    event* wake_ = nullptr;
    event* reap_ = nullptr;
    event* resumeAccepting_ = nullptr;
    event* stopTimer_ = nullptr;
    std::thread thread_;
    std::uint16_t port_ = 0;

    // Loop thread only from here on.
    std::unordered_map<std::uint64_t, std::unique_ptr<detail::ProviderConnection>> connections_;
    std::vector<std::uint64_t> closed_;
    // Connections with complete requests the handler has not had yet, served in turn.
    std::deque<std::uint64_t> ready_;
    std::uint64_t nextId_ = 0;
    std::size_t open_ = 0;
    std::size_t pending_ = 0;
    // The memory budget: bytes held by every connection's streams, and how many connections
    // hold any.
    std::size_t used_ = 0;
    std::size_t holders_ = 0;
    bool paused_ = false;
    bool stopping_ = false;
    // Stopping goes in steps: 0 GOAWAY said, 1 unfinished streams reset, 2 everything closed.
    int stopStep_ = 0;
    // Protocol errors and refused connections at info level, the rest at debug.
    std::array<std::unique_ptr<detail::RepeatedLine>, detail::kLogLineKinds> lines_ = [] {
        std::array<std::unique_ptr<detail::RepeatedLine>, detail::kLogLineKinds> made;
        for (std::size_t i = 0; i < made.size(); ++i) {
            const auto kind = static_cast<detail::LogLine>(i);
            made[i] = std::make_unique<detail::RepeatedLine>(
                transportLogger(),
                kind == detail::LogLine::protocolError || kind == detail::LogLine::refusedConnection
                    ? platform::LogLevel::info
                    : platform::LogLevel::debug);
        }
        return made;
    }();
};

std::optional<std::string> ProviderServer::Impl::listen() {
    const std::string where = options_.host + ":" + std::to_string(options_.port);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string service = std::to_string(options_.port);
    if (const int error = getaddrinfo(options_.host.c_str(), service.c_str(), &hints, &found);
        error != 0) {
        return "cannot listen on " + where + ": the host is unknown (" + gai_strerror(error) + ")";
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
    const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return "cannot listen on " + where + ": " + std::strerror(errno);
    }
    // A restarted server may take its port back while old connections linger in TIME_WAIT;
    // a port another program listens on still fails.
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, found->ai_addr, found->ai_addrlen) != 0 || ::listen(fd, SOMAXCONN) != 0) {
        const int error = errno;
        close(fd);
        return "cannot listen on " + where + ": " + std::strerror(error);
    }
    sockaddr_storage bound{};
    socklen_t length = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    port_ =
        ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                          : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);

    // Answers arrive from other threads through event_active(), which needs libevent's locks.
    static std::once_flag threads;
    std::call_once(threads, [] { evthread_use_pthreads(); });
    // Reading pauses and resumes often under load (a connection's backlog, the server's limit
    // of unanswered requests); with the change list, a pause undone before the loop polls again
    // costs no system call.
    event_config* config = event_config_new();
    if (config != nullptr) {
        event_config_set_flag(config, EVENT_BASE_FLAG_EPOLL_USE_CHANGELIST);
        base_ = event_base_new_with_config(config);
        event_config_free(config);
    }
    if (base_ == nullptr) {
        close(fd);
        return std::string("cannot make an event loop");
    }
    listener_ = evconnlistener_new(
        base_,
        [](evconnlistener*, evutil_socket_t client, sockaddr*, int, void* impl) {
            static_cast<Impl*>(impl)->accepted(client);
        },
        this, LEV_OPT_CLOSE_ON_FREE, 0, fd);
    if (listener_ == nullptr) {
        close(fd);
        return std::string("cannot listen on ") + where;
    }
    // Out of file descriptors: accepting would fail again at once, so it pauses briefly.
    evconnlistener_set_error_cb(listener_, [](evconnlistener* listener, void* impl) {
        auto* self = static_cast<Impl*>(impl);
        self->log().error(std::string("cannot accept a connection: ") + std::strerror(errno));
        evconnlistener_disable(listener);
        const timeval pause{0, 200000};
        evtimer_add(self->resumeAccepting_, &pause);
    });
    resumeAccepting_ = evtimer_new(
        base_,
        [](evutil_socket_t, short, void* impl) {
            auto* self = static_cast<Impl*>(impl);
            if (self->listener_ != nullptr) {
                evconnlistener_enable(self->listener_);
            }
        },
        this);
    wake_ = event_new(
        base_, -1, 0, [](evutil_socket_t, short, void* impl) { static_cast<Impl*>(impl)->woken(); },
        this);
    stopTimer_ = evtimer_new(
        base_, [](evutil_socket_t, short, void* impl) { static_cast<Impl*>(impl)->stopStep(); },
        this);
    reap_ = event_new(
        base_, -1, 0,
        [](evutil_socket_t, short, void* impl) {
            auto* self = static_cast<Impl*>(impl);
            for (const std::uint64_t id : std::exchange(self->closed_, {})) {
                self->connections_.erase(id);
            }
            self->finishIfDone();
        },
        this);
    if (resumeAccepting_ == nullptr || wake_ == nullptr || reap_ == nullptr ||
        stopTimer_ == nullptr) {
        return std::string("cannot make an event loop");
    }
    const std::lock_guard lock(mailbox_->mutex);
    mailbox_->wake = wake_;
    return std::nullopt;
}

void ProviderServer::Impl::run() {
    // A peer that has gone makes a write raise SIGPIPE; blocked on this thread, which does all
    // the writing, it only turns into EPIPE and leaves the host's signal handling alone.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    event_base_loop(base_, EVLOOP_NO_EXIT_ON_EMPTY);
}

void ProviderServer::Impl::accepted(evutil_socket_t fd) {
    if (stopping_ || open_ >= options_.maximumConnections) {
        line(detail::LogLine::refusedConnection).write([&] {
            return "refused a connection: " + std::to_string(open_) + " are open, the most allowed";
        });
        evutil_closesocket(fd);
        return;
    }
    const std::uint64_t id = ++nextId_;
    auto connection = detail::ProviderConnection::open(*this, base_, fd, id);
    if (connection) {
        connections_.emplace(id, std::move(connection));
        ++open_;
    }
    // The new connection's own cost came out of the budget: what requests hold beyond it now is
    // given back by those holding the most.
    while (used_ > budget()) {
        auto* victim = heaviest(nullptr);
        if (victim == nullptr || !victim->reclaim()) {
            break;
        }
    }
}

void ProviderServer::Impl::add(detail::ProviderConnection& connection, std::size_t bytes) {
    if (connection.held() == 0 && bytes > 0) {
        ++holders_;
    }
    connection.adjustHeld(bytes, 0);
    used_ += bytes;
}

// Each open connection costs memory of its own (its TLS state, its HTTP/2 session, its HPACK
// table, its buffers: measured, with a margin), set aside from memoryLimit before requests get
// any; what is left, up to memoryBudget, is for requests.
std::size_t ProviderServer::Impl::budget() const {
    constexpr std::size_t kTlsConnectionCost = 44 * 1024;
    constexpr std::size_t kCleartextConnectionCost = 20 * 1024;
    constexpr std::size_t kLeast = 1024 * 1024;
    const std::size_t reserved =
        open_ * (options_.tls ? kTlsConnectionCost : kCleartextConnectionCost);
    const std::size_t room = options_.memoryLimit > reserved ? options_.memoryLimit - reserved : 0;
    return std::max(std::min(options_.memoryBudget, room), std::min(options_.memoryBudget, kLeast));
}

bool ProviderServer::Impl::charge(detail::ProviderConnection& connection, std::size_t bytes) {
    const std::size_t limit = budget();
    if (used_ + bytes <= limit) {
        add(connection, bytes);
        return true;
    }
    // The budget is spent. A connection holding less than its fair share takes room from the
    // one holding the most, as long as that one holds more than its share; any other stream is
    // refused.
    const std::size_t holders = holders_ + (connection.held() == 0 ? 1 : 0);
    const std::size_t share = limit / holders;
    if (connection.held() + bytes > share) {
        return false;
    }
    while (used_ + bytes > limit) {
        auto* victim = heaviest(&connection);
        if (victim == nullptr || victim->held() <= share || !victim->reclaim()) {
            return false;
        }
    }
    add(connection, bytes);
    return true;
}

void ProviderServer::Impl::release(detail::ProviderConnection& connection, std::size_t bytes) {
    bytes = std::min(bytes, connection.held());
    connection.adjustHeld(0, bytes);
    used_ -= bytes;
    if (connection.held() == 0 && bytes > 0) {
        --holders_;
    }
}

detail::ProviderConnection* ProviderServer::Impl::heaviest(
    const detail::ProviderConnection* besides) {
    detail::ProviderConnection* found = nullptr;
    for (auto& [id, connection] : connections_) {
        if (connection.get() != besides && !connection->closed() &&
            (found == nullptr || connection->held() > found->held())) {
            found = connection.get();
        }
    }
    return found;
}

void ProviderServer::Impl::refusedRequest(const TransportRefusal& refusal) {
    try {
        handler_.refused(refusal);
    } catch (const std::exception& error) {
        log().error(std::string("the request handler failed: ") + error.what());
    } catch (...) {
        log().error("the request handler failed");
    }
}

void ProviderServer::Impl::requestsReady(std::uint64_t id) {
    if (auto* connection = find(id); connection != nullptr && !connection->queued) {
        connection->queued = true;
        ready_.push_back(id);
    }
    dispatch();
    updatePause();
}

void ProviderServer::Impl::dispatch() {
    const std::size_t limit = std::max<std::size_t>(options_.maximumPendingRequests, 1);
    while (pending_ < limit && !ready_.empty()) {
        const std::uint64_t id = ready_.front();
        ready_.pop_front();
        auto* connection = find(id);
        if (connection == nullptr) {
            continue;
        }
        connection->queued = false;
        auto taken = connection->takeRequest();
        if (connection->hasReadyRequests()) {
            connection->queued = true;
            ready_.push_back(id);
        }
        if (!taken) {
            continue;
        }
        ++pending_;
        ProviderResponder responder(
            std::make_shared<ProviderResponder::State>(mailbox_, id, taken->first));
        try {
            handler_.handle(std::move(taken->second), connection->authentication(),
                            std::move(responder));
        } catch (const std::exception& error) {
            // The responder, dropped on the way out, has answered 500.
            log().error(std::string("the request handler failed: ") + error.what());
        } catch (...) {
            log().error("the request handler failed");
        }
    }
}

void ProviderServer::Impl::updatePause() {
    const bool paused = pending_ >= std::max<std::size_t>(options_.maximumPendingRequests, 1);
    if (paused != paused_) {
        paused_ = paused;
        for (auto& [id, connection] : connections_) {
            connection->updateReading();
        }
    }
}

void ProviderServer::Impl::woken() {
    // The two vectors trade places and keep their room: no allocation per batch of answers.
    std::vector<Answer>& answers = taken_;
    bool stopRequested = false;
    {
        const std::lock_guard lock(mailbox_->mutex);
        answers.swap(mailbox_->answers);
        stopRequested = mailbox_->stopRequested;
    }
    if (stopRequested && !stopping_) {
        stopping_ = true;
        evconnlistener_free(listener_);
        listener_ = nullptr;
        for (auto& [id, connection] : connections_) {
            connection->shutDown();
        }
        const auto grace =
            std::chrono::duration_cast<std::chrono::microseconds>(options_.stopGrace).count();
        const timeval after{static_cast<time_t>(grace / 1000000),
                            static_cast<suseconds_t>(grace % 1000000)};
        evtimer_add(stopTimer_, &after);
    }
    for (Answer& answer : answers) {
        --pending_;
        if (auto* connection = find(answer.connection);
            connection != nullptr && connection->answer(answer.stream, answer.response)) {
            answered_.push_back(answer.connection);
        }
    }
    answers.clear();
    // Each connection writes its answers of the batch at once.
    for (const std::uint64_t id : answered_) {
        if (auto* connection = find(id)) {
            connection->flushAnswers();
        }
    }
    answered_.clear();
    dispatch();
    updatePause();
    finishIfDone();
}

void ProviderServer::Impl::connectionClosed(std::uint64_t id) {
    --open_;
    closed_.push_back(id);
    event_active(reap_, 0, 0);
}

// Clients had stopGrace to finish what they began: the streams still unfinished are reset, and
// the connections close once their answers are written. stopGrace and a second later every
// connection closes whatever is unwritten (a client that does not read, a zero flow-control
// window), and the loop ends even if the handler still owes answers.
void ProviderServer::Impl::stopStep() {
    ++stopStep_;
    for (auto& [id, connection] : connections_) {
        if (stopStep_ == 1) {
            connection->resetUnfinished();
        } else {
            connection->closeNow();
        }
    }
    if (stopStep_ == 1) {
        const auto last = std::chrono::duration_cast<std::chrono::microseconds>(
                              options_.stopGrace + std::chrono::seconds(1))
                              .count();
        const timeval after{static_cast<time_t>(last / 1000000),
                            static_cast<suseconds_t>(last % 1000000)};
        evtimer_add(stopTimer_, &after);
    }
    finishIfDone();
}

void ProviderServer::Impl::finishIfDone() {
    // Stopped once every request handed out has its answer written and every connection has
    // closed after its GOAWAY, or once the last step has closed them all.
    if (stopping_ && open_ == 0 && (pending_ == 0 || stopStep_ >= 2)) {
        event_base_loopbreak(base_);
    }
}

void ProviderServer::Impl::stop() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard lock(mailbox_->mutex);
        mailbox_->stopRequested = true;
        event_active(wake_, 0, 0);
    }
    thread_.join();
    release();
}

void ProviderServer::Impl::release() {
    if (base_ == nullptr) {
        return;
    }
    {
        const std::lock_guard lock(mailbox_->mutex);
        mailbox_->wake = nullptr;
        mailbox_->answers.clear();
    }
    connections_.clear();
    if (listener_ != nullptr) {
        evconnlistener_free(listener_);
    }
    for (event* e : {wake_, reap_, resumeAccepting_, stopTimer_}) {
        if (e != nullptr) {
            event_free(e);
        }
    }
    event_base_free(base_);
    base_ = nullptr;
}

std::variant<std::unique_ptr<ProviderServer>, std::string> ProviderServer::start(
    ProviderServerOptions options, ProviderRequestHandler& handler) {
    auto impl = std::make_unique<Impl>(std::move(options), handler);
    if (auto error = impl->listen()) {
        return std::move(*error);
    }
    try {
        impl->thread_ = std::thread([raw = impl.get()] { raw->run(); });
    } catch (const std::system_error& error) {
        return std::string("cannot start the server's thread: ") + error.what();
    }
    transportLogger().info([&] {
        return "provider API listening on " + impl->options_.host + ":" +
               std::to_string(impl->port_) + (impl->options_.tls ? " (TLS)" : " (cleartext)");
    });
    return std::unique_ptr<ProviderServer>(new ProviderServer(std::move(impl)));
}

ProviderServer::ProviderServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ProviderServer::~ProviderServer() {
    stop();
}
std::uint16_t ProviderServer::port() const {
    return impl_->port_;
}
void ProviderServer::stop() {
    impl_->stop();
}

}  // namespace nimborra::provider
