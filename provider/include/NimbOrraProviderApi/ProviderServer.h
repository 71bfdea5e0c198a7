// The provider API's transport: an HTTP/2 server (TLS, or cleartext with prior knowledge) that
// reads whole requests within fixed limits and hands each to a handler, which answers it once,
// from any thread. It frames requests only: what a request may hold, and every answer to one,
// is the handler's (the rules table); the transport decides only what HTTP/2 leaves to it.
//
// Threads: the server runs its own event-loop thread. The handler is called on that thread, one
// request at a time; a ProviderResponder may be called from any thread. start() and stop() are
// for one owning thread.
//
// Limits, so that no client, nor all of them together within the connection limit, can make the
// server grow or hold up another:
// - connections; a connection that has not completed its TLS handshake and HTTP/2 preface
//   within handshakeTimeout is closed, and so is one idle for idleTimeout;
// - concurrent streams per connection, advertised in SETTINGS: a stream beyond it is refused
//   alone (RST_STREAM REFUSED_STREAM, which clients retry), never the whole connection;
// - the header list, counted after HPACK decoding as SETTINGS_MAX_HEADER_LIST_SIZE counts: past
//   it the stream is reset at once (ENHANCE_YOUR_CALM) and no further field of it is looked at;
//   the handler is told (refused());
// - the body: no more than kVoipPayloadLimit bytes of it are held; a longer one is handed over
//   marked bodyTooLarge as soon as it passes that, and the rest is read and dropped;
// - memory: unfinished and unanswered requests (a fixed cost per stream, header lists as decoded,
//   bodies) share one budget: memoryBudget, less as connections open (memoryLimit less each
//   open connection's own cost, 1 MB at least). A stream that would take the server past it is
//   refused (REFUSED_STREAM) unless its connection holds less than its fair share (the budget
//   divided among the connections holding any); then the oldest unfinished streams of the
//   connection holding the most are refused to make room, or, when that one holds no unfinished
//   stream and does not read its answers, it is closed;
// - answers: at most maximumPendingRequests requests wait for the handler's answer at once;
//   while that many do, the server stops reading from every connection, so HTTP/2 flow control
//   carries the pressure back to the clients. A connection whose client does not read its
//   answers stops being read until it does.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "NimbOrraProviderApi/ProviderRequest.h"
#include "NimbOrraProviderApi/ProviderToken.h"
#include "NimbOrraProviderApi/TlsServerContext.h"

namespace nimborra::provider {

struct ProviderResponse {
    int status = 200;
    // Echoed in the response's "apns-id" header; none when empty.
    std::string apnsId;
    // Empty for 200, else {"reason": ...}.
    std::string body;
};

// Answers one request. Calling it more than once does nothing; dropping it unanswered answers
// 500 "InternalServerError", so every request is answered exactly once. Safe from any thread,
// also after the connection has gone (the answer is then dropped).
class ProviderResponder {
  public:
    struct State;
    explicit ProviderResponder(std::shared_ptr<State> state);
    ProviderResponder(ProviderResponder&&) noexcept;
    ProviderResponder& operator=(ProviderResponder&&) noexcept;
    ProviderResponder(const ProviderResponder&) = delete;
    ProviderResponder& operator=(const ProviderResponder&) = delete;
    ~ProviderResponder();

    void operator()(ProviderResponse response);

  private:
    std::shared_ptr<State> state_;
};

// While one lives, the answers that responders give on its thread are held and reach their
// servers together when it ends: one wake of a server's thread for the batch instead of one per
// answer, and each connection's answers written at once. For a handler that answers many
// requests in a row (a batch of deliveries); the answers wait until the scope ends, so it should
// end as soon as the batch is done. Scopes on one thread may nest (the outermost one posts);
// should holding an answer run out of memory, that answer is posted at once.
class ProviderAnswerBatch {
  public:
    ProviderAnswerBatch() noexcept;
    ~ProviderAnswerBatch();
    ProviderAnswerBatch(const ProviderAnswerBatch&) = delete;
    ProviderAnswerBatch& operator=(const ProviderAnswerBatch&) = delete;
};

// A request the transport refused on its own: its stream was reset instead of answered.
struct TransportRefusal {
    // The request's apns-id when one that is a UUID was read before the refusal, as sent; else
    // empty.
    std::string apnsId;
    // The HTTP/2 error code the stream was reset with.
    std::uint32_t errorCode = 0;
    // Why, for people.
    std::string detail;
};

class ProviderRequestHandler {
  public:
    virtual ~ProviderRequestHandler() = default;
    // A complete request (or one whose body passed kVoipPayloadLimit) and its connection's
    // authentication, on the server's thread.
    virtual void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                        ProviderResponder respond) = 0;
    // A request the transport reset without handing it over, on the server's thread.
    virtual void refused(const TransportRefusal& refusal) = 0;
};

struct ProviderServerOptions {
    // Loopback unless the user names another address.
    std::string host = "127.0.0.1";
    // 0 picks a free port.
    std::uint16_t port = 0;
    // Null: cleartext HTTP/2 with prior knowledge.
    std::shared_ptr<TlsServerContext> tls;
    // Token authentication: each connection gets a ProviderTokenSession over this verifier. Null
    // when connections authenticate with client certificates.
    std::shared_ptr<const ProviderTokenVerifier> tokens;

    std::size_t maximumConnections = 1024;
    std::uint32_t maximumConcurrentStreams = 1000;
    std::uint32_t maximumHeaderListSize = 16 * 1024;
    std::size_t maximumPendingRequests = 1024;
    // Bytes for every unfinished and unanswered request together, at most; and the most the
    // connections and their requests together may take: each open connection's own cost is set
    // aside from memoryLimit first, so that the budget shrinks as connections open and the
    // host stays within its bound at the connection limit.
    std::size_t memoryBudget = 24 * 1024 * 1024;
    std::size_t memoryLimit = 36 * 1024 * 1024;
    std::chrono::milliseconds handshakeTimeout{10000};
    std::chrono::seconds idleTimeout{3600};
    // How long stop() lets clients finish the streams they have begun before it resets them.
    std::chrono::milliseconds stopGrace{2000};
};

class ProviderServer {
  public:
    // Binds, listens and starts the event-loop thread; the reason when it cannot.
    static std::variant<std::unique_ptr<ProviderServer>, std::string> start(
        ProviderServerOptions options, ProviderRequestHandler& handler);
    ~ProviderServer();
    ProviderServer(const ProviderServer&) = delete;
    ProviderServer& operator=(const ProviderServer&) = delete;

    // The port actually bound.
    std::uint16_t port() const;

    // Stops accepting and says GOAWAY to each connection; lets every request already received
    // be answered and clients finish the streams they have begun for stopGrace; then resets the
    // streams still unfinished, closes every connection (at once, if its client does not read)
    // and joins the thread. Returns within about 2 x stopGrace + 1 s whatever clients and the
    // handler do; an answer that comes later has nowhere to go. Called by the destructor too.
    void stop();

    struct Impl;

  private:
    explicit ProviderServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace nimborra::provider
