#include "ProviderConnection.h"

#include <event2/buffer.h>
#include <event2/bufferevent_ssl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "NimbOrraPlatform/Uuid.h"
#include "RepeatedLine.h"

namespace nimborra::provider::detail {
namespace {

// Output a connection may hold before it stops reading: answers wait in the HTTP/2 session
// (bounded by its streams and the memory budget) rather than in a buffer for a client that does
// not read. Small, since it is multiplied by the number of connections.
constexpr std::size_t kOutputLimit = 16 * 1024;
// How long a connection that is closing may take to write its last frames.
constexpr auto kClosingGrace = std::chrono::seconds(1);
constexpr std::string_view kBudgetSpent =
    "refused a stream: unfinished and unanswered requests hold the whole memory budget";
// What nghttp2 is told of the stream limit: never reached, so that a stream beyond the
// advertised limit is refused here, alone, where nghttp2 would end the whole connection.
constexpr std::uint32_t kNoStreamLimit = std::numeric_limits<std::uint32_t>::max();

std::string_view text(const std::uint8_t* data, std::size_t length) {
    return {reinterpret_cast<const char*>(data), length};
}

// A response header; `name` is a literal, which nghttp2 need not copy. `indexed`: whether the
// field may enter the HPACK table: not for values that differ on every answer (an apns-id), which
// would only push the useful entries out and cost a table search and insertion each.
nghttp2_nv header(std::string_view name, std::string_view value, bool indexed = true) {
    return {reinterpret_cast<std::uint8_t*>(const_cast<char*>(name.data())),
            reinterpret_cast<std::uint8_t*>(const_cast<char*>(value.data())), name.size(),
            value.size(),
            static_cast<std::uint8_t>(NGHTTP2_NV_FLAG_NO_COPY_NAME |
                                      (indexed ? NGHTTP2_NV_FLAG_NONE : NGHTTP2_NV_FLAG_NO_INDEX))};
}

ProviderConnection* self(void* data) {
    return static_cast<ProviderConnection*>(data);
}

// The server's SETTINGS as nghttp2 wrote them, with the advertised stream limit in place of the
// one nghttp2 was told.
std::string withAdvertisedStreamLimit(const std::uint8_t* data, std::size_t length,
                                      std::uint32_t limit) {
    std::string frame(reinterpret_cast<const char*>(data), length);
    constexpr std::size_t kHeaderLength = 9;
    if (length < kHeaderLength || data[3] != NGHTTP2_SETTINGS) {
        return frame;
    }
    for (std::size_t at = kHeaderLength; at + 6 <= length; at += 6) {
        if (data[at] == 0 && data[at + 1] == NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS) {
            for (std::size_t i = 0; i < 4; ++i) {
                frame[at + 2 + i] = static_cast<char>(limit >> (24 - 8 * i));
            }
        }
    }
    return frame;
}

}  // namespace

std::unique_ptr<ProviderConnection> ProviderConnection::open(ConnectionHost& host, event_base* base,
                                                             evutil_socket_t fd, std::uint64_t id) {
    std::unique_ptr<ProviderConnection> connection(new ProviderConnection(host, id));
    if (!connection->setUp(base, fd)) {
        if (connection->events_ == nullptr) {
            evutil_closesocket(fd);
        }
        connection->closed_ = true;
        return nullptr;
    }
    return connection;
}

bool ProviderConnection::setUp(event_base* base, evutil_socket_t fd) {
    const ProviderServerOptions& options = host_.options();
    // Answers are small and latency matters more than packing them.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    // Deferred callbacks keep libevent from calling back into this object from inside a
    // bufferevent call made by it (an SSL write that completes at once, say).
    const int flags = BEV_OPT_CLOSE_ON_FREE | BEV_OPT_DEFER_CALLBACKS;
    if (options.tls) {
        tls_ = true;
        SSL* ssl = SSL_new(options.tls->native());
        if (ssl == nullptr) {
            ERR_clear_error();
            return false;
        }
        events_ = bufferevent_openssl_socket_new(base, fd, ssl, BUFFEREVENT_SSL_ACCEPTING, flags);
        if (events_ == nullptr) {
            SSL_free(ssl);
        }
    } else {
        events_ = bufferevent_socket_new(base, fd, flags);
    }
    timer_ = evtimer_new(
        base, [](evutil_socket_t, short, void* c) { self(c)->timerFired(); }, this);
    resume_ = event_new(
        base, -1, 0, [](evutil_socket_t, short, void* c) { self(c)->received(); }, this);
    if (events_ == nullptr || timer_ == nullptr || resume_ == nullptr) {
        return false;
    }
    if (options.tokens) {
        tokens_ = std::make_unique<ProviderTokenSession>(options.tokens);
        authentication_.tokens = tokens_.get();
    }

    nghttp2_session_callbacks* callbacks = nullptr;
    nghttp2_option* sessionOptions = nullptr;
    if (nghttp2_session_callbacks_new(&callbacks) != 0) {
        return false;
    }
    nghttp2_session_callbacks_set_on_begin_headers_callback(callbacks, onBeginHeaders);
    nghttp2_session_callbacks_set_on_header_callback(callbacks, onHeader);
    nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, onDataChunk);
    nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, onFrameReceived);
    nghttp2_session_callbacks_set_on_frame_send_callback(callbacks, onFrameSent);
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, onStreamClosed);
    nghttp2_session_callbacks_set_error_callback2(callbacks, onError);
    int result = nghttp2_option_new(&sessionOptions);
    if (result == 0) {
        // Closed streams are kept only for priority bookkeeping this server does not use; not
        // keeping them bounds a connection's memory by its open streams.
        nghttp2_option_set_no_closed_streams(sessionOptions, 1);
        // nghttp2 ends a connection whose client resets many streams (GOAWAY INTERNAL_ERROR).
        // Here a reset stream costs nothing once its request is dropped, and the streams and
        // requests a client may hold are bounded anyway, so resets are not limited.
        nghttp2_option_set_stream_reset_rate_limit(sessionOptions,
                                                   std::numeric_limits<std::uint32_t>::max(),
                                                   std::numeric_limits<std::uint32_t>::max());
        result = nghttp2_session_server_new2(&session_, callbacks, this, sessionOptions);
    }
    nghttp2_option_del(sessionOptions);
    nghttp2_session_callbacks_del(callbacks);
    if (result != 0) {
        return false;
    }
    const std::array<nghttp2_settings_entry, 2> settings{{
        {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, kNoStreamLimit},
        {NGHTTP2_SETTINGS_MAX_HEADER_LIST_SIZE, options.maximumHeaderListSize},
    }};
    if (nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, settings.data(), settings.size()) !=
        0) {
        return false;
    }

    bufferevent_setcb(
        events_, [](bufferevent*, void* c) { self(c)->received(); },
        [](bufferevent*, void* c) {
            self(c)->touch();
            self(c)->flush();
        },
        [](bufferevent*, short what, void* c) {
            auto* connection = self(c);
            if ((what & BEV_EVENT_CONNECTED) != 0) {
                // The TLS handshake is done: the peer's certificate, if asked for, is verified.
                if (connection->host_.options().tls->requiresClientCertificate()) {
                    connection->authentication_.certificateTopic =
                        clientCertificateTopic(bufferevent_openssl_get_ssl(connection->events_));
                }
                return;
            }
            if (connection->tls_ && (what & BEV_EVENT_ERROR) != 0) {
                const unsigned long error = bufferevent_get_openssl_error(connection->events_);
                // A peer that closes without close_notify has simply gone: not a TLS failure.
                if (error != 0 && ERR_GET_REASON(error) != SSL_R_UNEXPECTED_EOF_WHILE_READING) {
                    std::array<char, 256> reason{};
                    ERR_error_string_n(error, reason.data(), reason.size());
                    connection->host_.line(LogLine::tls).write([&] {
                        return std::string("closed a connection whose TLS failed: ") +
                               reason.data();
                    });
                }
            }
            connection->closeNow();
        },
        this);
    // Called when the output has drained to half the limit, so writing resumes in time.
    bufferevent_setwatermark(events_, EV_WRITE, kOutputLimit / 2, 0);
    if (bufferevent_enable(events_, EV_READ | EV_WRITE) != 0) {
        return false;
    }
    touch();
    armTimer(options.handshakeTimeout);
    flush();
    return true;
}

ProviderConnection::~ProviderConnection() {
    closed_ = true;
    if (events_ != nullptr) {
        bufferevent_free(events_);
    }
    for (event* e : {timer_, resume_}) {
        if (e != nullptr) {
            event_free(e);
        }
    }
    nghttp2_session_del(session_);
}

bool ProviderConnection::backlogged() const {
    return ready_.size() >= kReadyLimit || host_.readingPaused();
}

void ProviderConnection::received() {
    if (closed_) {
        return;
    }
    touch();
    evbuffer* input = bufferevent_get_input(events_);
    std::size_t length = evbuffer_get_length(input);
    if (closing_) {
        evbuffer_drain(input, length);
        return;
    }
    // In slices, so that a client with many requests in one read parses no more of them than
    // the server takes on; the rest waits in the input (and, once reading stops, in the
    // client) until they are taken.
    while (length > 0 && !backlogged()) {
        const std::size_t slice = std::min(length, kReceiveSlice);
        const unsigned char* data = evbuffer_pullup(input, static_cast<ssize_t>(slice));
        const ssize_t used = nghttp2_session_mem_recv(session_, data, slice);
        evbuffer_drain(input, slice);
        length -= slice;
        for (const TransportRefusal& refusal : std::exchange(refusals_, {})) {
            host_.refusedRequest(refusal);
        }
        if (used < 0) {
            // Not HTTP/2 (an HTTP/1.1 request, say), or a protocol error: nghttp2 may have
            // queued a GOAWAY saying which; it is sent and the connection closed.
            logProtocolError(nghttp2_strerror(static_cast<int>(used)));
            fail();
            return;
        }
    }
    flush();
    if (!closed_ && !ready_.empty()) {
        host_.requestsReady(id_);
    }
}

bool ProviderConnection::write(const std::uint8_t* data, std::size_t length) {
    if (!settingsWritten_) {
        // The first frame out is the server's SETTINGS (submitted in setUp).
        settingsWritten_ = true;
        const std::string frame =
            withAdvertisedStreamLimit(data, length, host_.options().maximumConcurrentStreams);
        return bufferevent_write(events_, frame.data(), frame.size()) == 0;
    }
    return bufferevent_write(events_, data, length) == 0;
}

void ProviderConnection::flush() {
    if (closed_) {
        return;
    }
    while (!outputBackedUp()) {
        const std::uint8_t* data = nullptr;
        const ssize_t length = nghttp2_session_mem_send(session_, &data);
        if (length < 0) {
            logProtocolError(nghttp2_strerror(static_cast<int>(length)));
            closeNow();
            return;
        }
        if (length == 0) {
            break;
        }
        if (!write(data, static_cast<std::size_t>(length))) {
            closeNow();
            return;
        }
    }
    updateReading();
    closeIfDone();
}

bool ProviderConnection::outputBackedUp() const {
    return evbuffer_get_length(bufferevent_get_output(events_)) >= kOutputLimit;
}

void ProviderConnection::updateReading() {
    if (closed_) {
        return;
    }
    const bool read = !closing_ && !backlogged() && !outputBackedUp();
    if (read != reading_) {
        reading_ = read;
        if (read) {
            bufferevent_enable(events_, EV_READ);
            // What was read before the pause is parsed at once, not when more arrives.
            if (evbuffer_get_length(bufferevent_get_input(events_)) > 0) {
                event_active(resume_, 0, 0);
            }
        } else {
            bufferevent_disable(events_, EV_READ);
        }
    }
}

void ProviderConnection::closeIfDone() {
    if (closed_) {
        return;
    }
    const bool done = closing_ || (nghttp2_session_want_read(session_) == 0 &&
                                   nghttp2_session_want_write(session_) == 0);
    if (done && evbuffer_get_length(bufferevent_get_output(events_)) == 0) {
        closeNow();
    } else if (done && !closing_) {
        closing_ = true;
        armTimer(kClosingGrace);
    }
}

void ProviderConnection::fail() {
    if (!closing_) {
        closing_ = true;
        armTimer(kClosingGrace);
    }
    flush();
}

void ProviderConnection::logProtocolError(const std::string& what) {
    if (!lastError_.empty() && lastError_ != what) {
        lastError_ = what + ": " + lastError_;
    } else {
        lastError_ = what;
    }
    goawayError_ = goawayError_.value_or(NGHTTP2_PROTOCOL_ERROR);
}

void ProviderConnection::closeNow() {
    if (closed_) {
        return;
    }
    closed_ = true;
    if (goawayError_) {
        host_.line(LogLine::protocolError).write([&] {
            return "closed a connection on a protocol error (" +
                   std::string(nghttp2_http2_strerror(*goawayError_)) +
                   "): " + (lastError_.empty() ? std::string("no detail") : lastError_);
        });
    }
    // The socket (and its TLS state) goes at once, and with it what its streams held; the
    // object itself is freed by the server outside this connection's callbacks.
    bufferevent_free(events_);
    events_ = nullptr;
    evtimer_del(timer_);
    event_del(resume_);
    for (auto& [id, stream] : streams_) {
        stream.charged = 0;
    }
    host_.release(*this, held_);
    host_.connectionClosed(id_);
}

void ProviderConnection::armTimer(std::chrono::steady_clock::duration after) {
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(after).count();
    const timeval tv{static_cast<time_t>(micros / 1000000),
                     static_cast<suseconds_t>(micros % 1000000)};
    evtimer_add(timer_, &tv);
}

void ProviderConnection::timerFired() {
    if (closed_) {
        return;
    }
    if (closing_) {
        closeNow();
        return;
    }
    const ProviderServerOptions& options = host_.options();
    if (!established_) {
        host_.line(LogLine::handshake).write([&] {
            return "closed a connection that had not completed its " +
                   std::string(tls_ ? "TLS handshake and " : "") + "HTTP/2 preface within " +
                   std::to_string(options.handshakeTimeout.count()) + " ms";
        });
        closeNow();
        return;
    }
    const auto idle = options.idleTimeout;
    const auto quiet = std::chrono::steady_clock::now() - lastActivity_;
    if (awaitingAnswers_ > 0 || quiet < idle) {
        armTimer(awaitingAnswers_ > 0 ? std::chrono::steady_clock::duration(idle) : idle - quiet);
        return;
    }
    host_.line(LogLine::idle).write([&] {
        return "closing a connection idle for " + std::to_string(idle.count()) + " s";
    });
    nghttp2_submit_goaway(session_, NGHTTP2_FLAG_NONE,
                          nghttp2_session_get_last_proc_stream_id(session_), NGHTTP2_NO_ERROR,
                          nullptr, 0);
    fail();
}

void ProviderConnection::shutDown() {
    if (closed_) {
        return;
    }
    // Streams the client has begun are still served; new ones are refused by the GOAWAY.
    nghttp2_submit_goaway(session_, NGHTTP2_FLAG_NONE,
                          nghttp2_session_get_last_proc_stream_id(session_), NGHTTP2_NO_ERROR,
                          nullptr, 0);
    flush();
}

void ProviderConnection::resetUnfinished() {
    if (closed_) {
        return;
    }
    for (auto& [id, stream] : streams_) {
        if (!stream.handedOver) {
            resetStream(id, stream, NGHTTP2_CANCEL);
        }
    }
    flush();
}

bool ProviderConnection::reclaim() {
    if (closed_) {
        return false;
    }
    for (auto& [id, stream] : streams_) {
        if (!stream.handedOver && !stream.reset) {
            host_.line(LogLine::reclaim).write([&] {
                return "refused an unfinished stream of the connection holding the most of the "
                       "memory budget, to make room for another connection's";
            });
            resetStream(id, stream, NGHTTP2_REFUSED_STREAM);
            flush();
            return true;
        }
    }
    if (!outputBackedUp()) {
        return false;
    }
    host_.line(LogLine::reclaim).write([&] {
        return "closed a connection that holds " + std::to_string(held_) +
               " bytes of the memory budget and does not read its answers, to make room for "
               "another connection's";
    });
    closeNow();
    return true;
}

std::optional<std::pair<std::int32_t, ProviderRequest>> ProviderConnection::takeRequest() {
    while (!ready_.empty()) {
        const std::int32_t id = ready_.front();
        ready_.pop_front();
        Stream* stream = find(id);
        if (stream != nullptr && !stream->answered && !stream->reset) {
            ++awaitingAnswers_;
            if (ready_.size() + 1 == kReadyLimit) {
                updateReading();
            }
            return std::pair{id, std::move(stream->request)};
        }
    }
    return std::nullopt;
}

bool ProviderConnection::answer(std::int32_t id, const ProviderResponse& response) {
    if (awaitingAnswers_ > 0) {
        --awaitingAnswers_;
    }
    if (closed_) {
        return false;
    }
    Stream* stream = find(id);
    // The client may have reset the stream meanwhile; then the answer has nowhere to go.
    if (stream != nullptr && !stream->answered && !stream->reset) {
        respond(id, *stream, response);
    }
    return !std::exchange(answersToFlush_, true);
}

void ProviderConnection::flushAnswers() {
    if (!std::exchange(answersToFlush_, false) || closed_) {
        return;
    }
    touch();
    flush();
}

ProviderConnection::Stream* ProviderConnection::find(std::int32_t id) {
    const auto it = streams_.find(id);
    return it == streams_.end() ? nullptr : &it->second;
}

void ProviderConnection::respond(std::int32_t id, Stream& stream,
                                 const ProviderResponse& response) {
    stream.answered = true;
    stream.responseBody = response.body;
    const std::string status = std::to_string(response.status);
    const std::string length = std::to_string(response.body.size());
    std::array<nghttp2_nv, 4> headers{};
    std::size_t count = 0;
    headers[count++] = header(":status", status);
    if (!response.apnsId.empty()) {
        headers[count++] = header("apns-id", response.apnsId, false);
    }
    nghttp2_data_provider body{};
    body.read_callback = readBody;
    if (!response.body.empty()) {
        headers[count++] = header("content-type", "application/json");
        headers[count++] = header("content-length", length);
    }
    if (nghttp2_submit_response(session_, id, headers.data(), count,
                                response.body.empty() ? nullptr : &body) != 0) {
        // Only a stream nghttp2 has already closed gets here; there is no one left to tell.
        host_.log().debug("could not answer stream " + std::to_string(id));
    }
}

void ProviderConnection::handOver(std::int32_t id, Stream& stream) {
    stream.handedOver = true;
    ready_.push_back(id);
}

void ProviderConnection::resetStream(std::int32_t id, Stream& stream, std::uint32_t error) {
    if (stream.reset) {
        return;
    }
    stream.reset = true;
    // What the request holds goes now; the stream's own cost when nghttp2 closes it.
    if (stream.charged > kStreamCost) {
        host_.release(*this, stream.charged - kStreamCost);
        stream.charged = kStreamCost;
    }
    stream.request = {};
    nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, id, error);
}

bool ProviderConnection::chargeStream(Stream& stream, std::size_t bytes) {
    if (!host_.charge(*this, bytes)) {
        return false;
    }
    stream.charged += bytes;
    return true;
}

int ProviderConnection::onBeginHeaders(nghttp2_session* session, const nghttp2_frame* frame,
                                       void* c) {
    if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_REQUEST) {
        return 0;
    }
    auto* connection = self(c);
    const std::int32_t id = frame->hd.stream_id;
    const ProviderServerOptions& options = connection->host_.options();
    const bool overLimit = connection->streams_.size() >= options.maximumConcurrentStreams;
    if (overLimit || !connection->host_.charge(*connection, kStreamCost)) {
        // Refused before anything of it was read: the client may send it again. Submitted
        // first, the refusal is the stream's only reset (nghttp2 adds none to a closing stream).
        nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, id, NGHTTP2_REFUSED_STREAM);
        connection->host_.line(overLimit ? LogLine::streamLimit : LogLine::budget).write([&] {
            return overLimit ? "refused a stream beyond the " +
                                   std::to_string(options.maximumConcurrentStreams) +
                                   " concurrent streams a connection may open"
                             : std::string(kBudgetSpent);
        });
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }
    connection->streams_[id].charged = kStreamCost;
    return 0;
}

int ProviderConnection::onHeader(nghttp2_session*, const nghttp2_frame* frame,
                                 const std::uint8_t* nameData, std::size_t nameLength,
                                 const std::uint8_t* valueData, std::size_t valueLength,
                                 std::uint8_t, void* c) {
    auto* connection = self(c);
    const std::int32_t id = frame->hd.stream_id;
    Stream* stream = connection->find(id);
    if (stream == nullptr || stream->reset) {
        return 0;
    }
    const ProviderServerOptions& options = connection->host_.options();
    // Counted as SETTINGS_MAX_HEADER_LIST_SIZE counts, trailers included.
    const std::size_t cost = nameLength + valueLength + 32;
    stream->headerListSize += cost;
    if (stream->headerListSize > options.maximumHeaderListSize) {
        // Abandoned at once: returning the failure makes nghttp2 skip every later field of the
        // block, so that HPACK references to large entries cost nothing more.
        if (!stream->handedOver) {
            TransportRefusal refusal;
            for (const auto& [name, value] : stream->request.headers) {
                if (name == "apns-id" && platform::isUuidText(value)) {
                    refusal.apnsId = value;
                }
            }
            refusal.errorCode = NGHTTP2_ENHANCE_YOUR_CALM;
            refusal.detail = "the header list is over the " +
                             std::to_string(options.maximumHeaderListSize) +
                             " bytes this server takes (SETTINGS_MAX_HEADER_LIST_SIZE, counted "
                             "after HPACK decoding); the stream was reset with ENHANCE_YOUR_CALM";
            connection->refusals_.push_back(std::move(refusal));
        }
        connection->host_.line(LogLine::headerList).write([&] {
            return "reset a stream whose header list passed " +
                   std::to_string(options.maximumHeaderListSize) + " bytes";
        });
        connection->resetStream(id, *stream, NGHTTP2_ENHANCE_YOUR_CALM);
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }
    if (frame->headers.cat != NGHTTP2_HCAT_REQUEST || stream->handedOver) {
        return 0;  // trailers: counted, not kept
    }
    if (!connection->chargeStream(*stream, cost)) {
        connection->host_.line(LogLine::budget).write([] { return std::string(kBudgetSpent); });
        connection->resetStream(id, *stream, NGHTTP2_REFUSED_STREAM);
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }
    const std::string_view name = text(nameData, nameLength);
    const std::string_view value = text(valueData, valueLength);
    ProviderRequest& request = stream->request;
    if (name == ":method") {
        request.method = value;
    } else if (name == ":path") {
        request.path = value;
    } else if (name == ":authority") {
        request.authority = value;
    } else if (!name.starts_with(':')) {
        // Pseudo-headers come first, so a "host" header stands in only for a missing authority.
        if (name == "host" && request.authority.empty()) {
            request.authority = value;
        }
        if (request.headers.empty()) {
            // A push carries a handful of headers: one allocation for them all.
            request.headers.reserve(8);
        }
        request.headers.emplace_back(name, value);
    }
    return 0;
}

int ProviderConnection::onDataChunk(nghttp2_session*, std::uint8_t, std::int32_t id,
                                    const std::uint8_t* data, std::size_t length, void* c) {
    auto* connection = self(c);
    Stream* stream = connection->find(id);
    if (stream == nullptr || stream->reset || stream->handedOver) {
        // A body past the limit: the rest is read and dropped (flow control credits it as it
        // arrives) rather than reset: RST_STREAM after an early answer is allowed, but some
        // clients (curl) then discard the answer.
        return 0;
    }
    std::string& body = stream->request.body;
    if (body.size() + length > kVoipPayloadLimit) {
        // No push type allows more: the request goes to the rules now, marked, and none of the
        // rest is held.
        stream->request.bodyTooLarge = true;
        connection->handOver(id, *stream);
        return 0;
    }
    if (!connection->chargeStream(*stream, length)) {
        connection->host_.line(LogLine::budget).write([] { return std::string(kBudgetSpent); });
        connection->resetStream(id, *stream, NGHTTP2_REFUSED_STREAM);
        return 0;
    }
    body.append(reinterpret_cast<const char*>(data), length);
    return 0;
}

int ProviderConnection::onFrameReceived(nghttp2_session*, const nghttp2_frame* frame, void* c) {
    auto* connection = self(c);
    if (frame->hd.type == NGHTTP2_SETTINGS && (frame->hd.flags & NGHTTP2_FLAG_ACK) == 0 &&
        !connection->established_) {
        // The client's preface is complete: from now on only idleness closes the connection.
        connection->established_ = true;
        connection->armTimer(connection->host_.options().idleTimeout);
        return 0;
    }
    const std::int32_t id = frame->hd.stream_id;
    Stream* stream = connection->find(id);
    if (stream == nullptr || stream->reset || stream->handedOver) {
        return 0;
    }
    if ((frame->hd.type == NGHTTP2_HEADERS || frame->hd.type == NGHTTP2_DATA) &&
        (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0) {
        connection->handOver(id, *stream);
    }
    return 0;
}

int ProviderConnection::onFrameSent(nghttp2_session*, const nghttp2_frame* frame, void* c) {
    if (frame->hd.type == NGHTTP2_GOAWAY && frame->goaway.error_code != NGHTTP2_NO_ERROR) {
        // nghttp2 ends the connection on a protocol error it found; the log line on closing
        // says which.
        self(c)->goawayError_ = frame->goaway.error_code;
    }
    return 0;
}

int ProviderConnection::onStreamClosed(nghttp2_session*, std::int32_t id, std::uint32_t, void* c) {
    auto* connection = self(c);
    const auto it = connection->streams_.find(id);
    if (it == connection->streams_.end()) {
        return 0;
    }
    if (!connection->closed_) {
        connection->host_.release(*connection, it->second.charged);
    }
    connection->streams_.erase(it);
    std::erase(connection->ready_, id);
    return 0;
}

int ProviderConnection::onError(nghttp2_session*, int, const char* message, std::size_t length,
                                void* c) {
    // Kept short: the text can quote what the client sent.
    constexpr std::size_t kKept = 200;
    self(c)->lastError_.assign(message, std::min(length, kKept));
    return 0;
}

ssize_t ProviderConnection::readBody(nghttp2_session*, std::int32_t id, std::uint8_t* buffer,
                                     std::size_t length, std::uint32_t* flags, nghttp2_data_source*,
                                     void* c) {
    Stream* stream = self(c)->find(id);
    if (stream == nullptr) {
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }
    const std::string& body = stream->responseBody;
    const std::size_t count = std::min(length, body.size() - stream->responseSent);
    std::copy_n(body.data() + stream->responseSent, count, buffer);
    stream->responseSent += count;
    if (stream->responseSent == body.size()) {
        *flags |= NGHTTP2_DATA_FLAG_EOF;
    }
    return static_cast<ssize_t>(count);
}

}  // namespace nimborra::provider::detail
