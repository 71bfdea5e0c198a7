// The provider API's transport: an HTTP/2 server (TLS, or cleartext with prior knowledge) that
// reads whole requests within fixed limits and hands each to a handler, which answers it once,
// from any thread.
//
// Threads: the server runs its own event-loop thread. The handler is called on that thread, one
// request at a time; a ProviderResponder may be called from any thread. start() and stop() are
// for one owning thread.
//
// Limits: connections, concurrent streams per connection (advertised in SETTINGS), header list
// size and body size are bounded; a body over the limit is answered 413 "PayloadTooLarge"
// without holding more than the limit; idle connections are closed. At most
// maximumPendingRequests requests wait for the handler's answer at once: while that many do, the
// server stops reading from every connection, so HTTP/2 flow control carries the pressure back to
// the clients instead of the server growing. A slow or malformed client never holds up another.
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

class ProviderRequestHandler {
  public:
    virtual ~ProviderRequestHandler() = default;
    // A complete request and its connection's authentication, on the server's thread.
    virtual void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                        ProviderResponder respond) = 0;
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
    std::chrono::seconds idleTimeout{3600};
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

    // Stops accepting, lets every request already received be answered, says GOAWAY to each
    // connection, closes them and joins the thread. Called by the destructor too.
    void stop();

    struct Impl;

  private:
    explicit ProviderServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace nimborra::provider
