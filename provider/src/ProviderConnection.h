// One client connection of the provider API's server: its bufferevent (TLS or cleartext), its
// HTTP/2 session, the requests it is receiving and the answers it is writing. Private to the
// server; everything here runs on the server's event-loop thread.
#pragma once

#include <event2/bufferevent.h>
#include <event2/event.h>
#include <nghttp2/nghttp2.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <unordered_map>
#include <utility>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraProviderApi/ProviderServer.h"

namespace nimborra::provider::detail {

// What a connection needs of its server.
class ConnectionHost {
  public:
    virtual const ProviderServerOptions& options() const = 0;
    // True while the server has as many unanswered requests out as it allows.
    virtual bool readingPaused() const = 0;
    // The connection has complete requests waiting for the handler.
    virtual void requestsReady(std::uint64_t connection) = 0;
    // The connection has closed itself; the server frees it later, outside its callbacks.
    virtual void connectionClosed(std::uint64_t connection) = 0;
    virtual const platform::Logger& log() const = 0;

  protected:
    ~ConnectionHost() = default;
};

class ProviderConnection {
  public:
    // Serves `fd`; null (and the socket closed) when the connection cannot be set up.
    static std::unique_ptr<ProviderConnection> open(ConnectionHost& host, event_base* base,
                                                    evutil_socket_t fd, std::uint64_t id);
    ~ProviderConnection();
    ProviderConnection(const ProviderConnection&) = delete;
    ProviderConnection& operator=(const ProviderConnection&) = delete;

    std::uint64_t id() const { return id_; }
    bool closed() const { return closed_; }
    const ConnectionAuthentication& authentication() const { return authentication_; }

    // The next complete request for the handler, with its stream; nothing when none is left.
    // The request then counts as awaiting its answer.
    std::optional<std::pair<std::int32_t, ProviderRequest>> takeRequest();
    bool hasReadyRequests() const { return !ready_.empty(); }
    // Set by the server while the connection is in its queue of connections with ready requests.
    bool queued = false;

    // The handler's answer to a request taken from this connection.
    void answer(std::int32_t stream, const ProviderResponse& response);
    // Reads while the server is not paused and the output is not backed up.
    void updateReading();
    // Says GOAWAY; the connection closes once the streams it has already begun are answered.
    void shutDown();

  private:
    struct Stream {
        ProviderRequest request;
        std::size_t headerListSize = 0;
        bool headersTooLarge = false;
        // END_STREAM arrived and the request waits in ready_ or has been taken.
        bool complete = false;
        bool answered = false;
        std::string responseBody;
        std::size_t responseSent = 0;
    };

    ProviderConnection(ConnectionHost& host, std::uint64_t id) : host_(host), id_(id) {}
    bool setUp(event_base* base, evutil_socket_t fd);

    void received();
    void flush();
    void fail();
    void closeNow();
    void closeIfDone();
    void touch() { lastActivity_ = std::chrono::steady_clock::now(); }
    void armTimer(std::chrono::steady_clock::duration after);
    void timerFired();
    void respond(std::int32_t id, Stream& stream, const ProviderResponse& response);
    void refuse(std::int32_t id, Stream& stream, int status, std::string_view reason);
    Stream* find(std::int32_t id);

    static int onBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* self);
    static int onHeader(nghttp2_session*, const nghttp2_frame* frame, const std::uint8_t* name,
                        std::size_t nameLength, const std::uint8_t* value, std::size_t valueLength,
                        std::uint8_t flags, void* self);
    static int onDataChunk(nghttp2_session*, std::uint8_t flags, std::int32_t id,
                           const std::uint8_t* data, std::size_t length, void* self);
    static int onFrameReceived(nghttp2_session*, const nghttp2_frame* frame, void* self);
    static int onStreamClosed(nghttp2_session*, std::int32_t id, std::uint32_t error, void* self);
    static ssize_t readBody(nghttp2_session*, std::int32_t id, std::uint8_t* buffer,
                            std::size_t length, std::uint32_t* flags, nghttp2_data_source*,
                            void* self);

    ConnectionHost& host_;
    const std::uint64_t id_;
    bufferevent* events_ = nullptr;
    event* timer_ = nullptr;
    nghttp2_session* session_ = nullptr;
    std::unique_ptr<ProviderTokenSession> tokens_;
    ConnectionAuthentication authentication_;
    std::unordered_map<std::int32_t, Stream> streams_;
    std::deque<std::int32_t> ready_;
    // Requests taken by the handler and not answered yet: the connection is not idle meanwhile.
    std::size_t awaitingAnswers_ = 0;
    std::chrono::steady_clock::time_point lastActivity_;
    bool tls_ = false;
    bool reading_ = true;
    // Closes as soon as its output is written (or a short grace period ends); reads nothing more.
    bool closing_ = false;
    bool closed_ = false;
};

}  // namespace nimborra::provider::detail
