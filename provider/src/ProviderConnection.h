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
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraProviderApi/ProviderServer.h"

namespace nimborra::provider::detail {

class ProviderConnection;
class RepeatedLine;

// The kinds of log line a client can cause at will; each is written at most once a second.
enum class LogLine {
    streamLimit,
    budget,
    reclaim,
    headerList,
    protocolError,
    tls,
    handshake,
    idle,
    refusedConnection,
};
inline constexpr std::size_t kLogLineKinds = 9;

// What a connection needs of its server.
class ConnectionHost {
  public:
    virtual const ProviderServerOptions& options() const = 0;
    // True while the server has as many unanswered requests out as it allows.
    virtual bool readingPaused() const = 0;
    // Takes `bytes` of the memory budget for a stream of `connection`, making room at another
    // connection's expense when `connection` holds less than its share; false when it cannot.
    virtual bool charge(ProviderConnection& connection, std::size_t bytes) = 0;
    virtual void release(ProviderConnection& connection, std::size_t bytes) = 0;
    // The connection has complete requests waiting for the handler.
    virtual void requestsReady(std::uint64_t connection) = 0;
    // The connection reset a request without handing it over; called outside nghttp2's
    // callbacks.
    virtual void refusedRequest(const TransportRefusal& refusal) = 0;
    // The connection has closed itself; the server frees it later, outside its callbacks.
    virtual void connectionClosed(std::uint64_t connection) = 0;
    virtual const platform::Logger& log() const = 0;
    virtual RepeatedLine& line(LogLine kind) = 0;

  protected:
    ~ConnectionHost() = default;
};

class ProviderConnection {
  public:
    // The memory budget's charge for one stream before any of its headers: what nghttp2 and this
    // class keep for it (a little more than measured, so that the budget errs on the safe side).
    static constexpr std::size_t kStreamCost = 768;
    // Complete requests a connection may have waiting for the handler before it stops parsing
    // its input, and how much input it parses at a time.
    static constexpr std::size_t kReadyLimit = 8;
    static constexpr std::size_t kReceiveSlice = 1024;

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

    // The handler's answer to a request taken from this connection, submitted to the session;
    // flushAnswers() writes it, so that a batch of answers is written at once. True when it is
    // the first answer since the last flushAnswers().
    bool answer(std::int32_t stream, const ProviderResponse& response);
    void flushAnswers();
    // Reads while the server is not paused and the output is not backed up.
    void updateReading();

    // Bytes of the memory budget this connection's streams hold; kept by the server.
    std::size_t held() const { return held_; }
    void adjustHeld(std::size_t add, std::size_t remove) { held_ = held_ + add - remove; }
    // Gives budget back for another connection: resets the oldest stream whose request is
    // still arriving, or, when there is none and the client does not read its answers, closes
    // the connection. Answers whether anything was given back.
    bool reclaim();

    // Stopping, step 1: says GOAWAY; the connection closes once the streams it has already
    // begun are answered.
    void shutDown();
    // Stopping, step 2: resets the streams whose requests are still arriving (CANCEL); the
    // connection closes once its answers are written, or a short grace period ends.
    void resetUnfinished();
    // Stopping, step 3: closes at once, whatever is unwritten.
    void closeNow();

  private:
    struct Stream {
        ProviderRequest request;
        // Bytes charged to the memory budget for this stream.
        std::size_t charged = 0;
        std::size_t headerListSize = 0;
        // In ready_ or with the handler: the request is complete, or its body passed the limit.
        bool handedOver = false;
        bool answered = false;
        // Reset by this side; nghttp2 closes it once the RST_STREAM is out.
        bool reset = false;
        std::string responseBody;
        std::size_t responseSent = 0;
    };

    ProviderConnection(ConnectionHost& host, std::uint64_t id) : host_(host), id_(id) {}
    bool setUp(event_base* base, evutil_socket_t fd);

    void received();
    // Too many complete requests wait, here or everywhere: parse no more for now.
    bool backlogged() const;
    void flush();
    bool write(const std::uint8_t* data, std::size_t length);
    void fail();
    void closeIfDone();
    void closeAfterGrace();
    bool outputBackedUp() const;
    void touch() { lastActivity_ = std::chrono::steady_clock::now(); }
    void armTimer(std::chrono::steady_clock::duration after);
    void timerFired();
    void respond(std::int32_t id, Stream& stream, const ProviderResponse& response);
    void handOver(std::int32_t id, Stream& stream);
    // Resets a stream of this connection with `error`, giving back what its request holds.
    void resetStream(std::int32_t id, Stream& stream, std::uint32_t error);
    bool chargeStream(Stream& stream, std::size_t bytes);
    void logProtocolError(const std::string& what);
    Stream* find(std::int32_t id);

    static int onBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* self);
    static int onHeader(nghttp2_session*, const nghttp2_frame* frame, const std::uint8_t* name,
                        std::size_t nameLength, const std::uint8_t* value, std::size_t valueLength,
                        std::uint8_t flags, void* self);
    static int onDataChunk(nghttp2_session*, std::uint8_t flags, std::int32_t id,
                           const std::uint8_t* data, std::size_t length, void* self);
    static int onFrameReceived(nghttp2_session*, const nghttp2_frame* frame, void* self);
    static int onFrameSent(nghttp2_session*, const nghttp2_frame* frame, void* self);
    static int onStreamClosed(nghttp2_session*, std::int32_t id, std::uint32_t error, void* self);
    static int onError(nghttp2_session*, int code, const char* message, std::size_t length,
                       void* self);
    static ssize_t readBody(nghttp2_session*, std::int32_t id, std::uint8_t* buffer,
                            std::size_t length, std::uint32_t* flags, nghttp2_data_source*,
                            void* self);

    ConnectionHost& host_;
    const std::uint64_t id_;
    bufferevent* events_ = nullptr;
    event* timer_ = nullptr;
    // Parses what waits in the input once a backlog has cleared.
    event* resume_ = nullptr;
    nghttp2_session* session_ = nullptr;
    std::unique_ptr<ProviderTokenSession> tokens_;
    ConnectionAuthentication authentication_;
    // By stream identifier: the oldest stream first.
    std::map<std::int32_t, Stream> streams_;
    std::deque<std::int32_t> ready_;
    // Requests reset without being handed over, reported once nghttp2's callbacks are done.
    std::vector<TransportRefusal> refusals_;
    // Requests taken by the handler and not answered yet: the connection is not idle meanwhile.
    std::size_t awaitingAnswers_ = 0;
    std::size_t held_ = 0;
    std::chrono::steady_clock::time_point lastActivity_;
    // The last error nghttp2 reported, and the GOAWAY it sent for one: what a protocol error's
    // log line says.
    std::string lastError_;
    std::optional<std::uint32_t> goawayError_;
    bool tls_ = false;
    bool reading_ = true;
    // The client's connection preface (and, with TLS, the handshake) has arrived.
    bool established_ = false;
    // The server's SETTINGS have been written, with the advertised stream limit.
    bool settingsWritten_ = false;
    // Closes as soon as its output is written (or a short grace period ends); reads nothing more.
    bool closing_ = false;
    bool closed_ = false;
    // Answers submitted and not written yet.
    bool answersToFlush_ = false;
};

}  // namespace nimborra::provider::detail
