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
#include <cctype>
#include <string>
#include <string_view>

namespace nimborra::provider::detail {
namespace {

// Output a connection may hold before it stops reading: answers wait in the HTTP/2 session
// (bounded by its streams) rather than in an ever-growing buffer for a client that does not read.
constexpr std::size_t kOutputLimit = 64 * 1024;
// How long a connection that is closing may take to write its last frames.
constexpr auto kClosingGrace = std::chrono::seconds(2);

std::string_view text(const std::uint8_t* data, std::size_t length) {
    return {reinterpret_cast<const char*>(data), length};
}

bool isUuid(std::string_view id) {
    if (id.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < id.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? id[i] != '-' : std::isxdigit(static_cast<unsigned char>(id[i])) == 0) {
            return false;
        }
    }
    return true;
}

// The apns-id of an answer the transport gives itself: the request's own when it is a UUID, as
// APNs echoes it, else a new one.
std::string apnsIdFor(const ProviderRequest& request) {
    for (const auto& [name, value] : request.headers) {
        if (name == "apns-id" && isUuid(value)) {
            std::string id = value;
            std::transform(id.begin(), id.end(), id.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            return id;
        }
    }
    return makeUuid();
}

nghttp2_nv header(std::string_view name, std::string_view value) {
    return {reinterpret_cast<std::uint8_t*>(const_cast<char*>(name.data())),
            reinterpret_cast<std::uint8_t*>(const_cast<char*>(value.data())), name.size(),
            value.size(), NGHTTP2_NV_FLAG_NONE};
}

ProviderConnection* self(void* data) {
    return static_cast<ProviderConnection*>(data);
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
    if (events_ == nullptr || timer_ == nullptr) {
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
    nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, onStreamClosed);
    int result = nghttp2_option_new(&sessionOptions);
    if (result == 0) {
        // Closed streams are kept only for priority bookkeeping this server does not use; not
        // keeping them bounds a connection's memory by its open streams.
        nghttp2_option_set_no_closed_streams(sessionOptions, 1);
        result = nghttp2_session_server_new2(&session_, callbacks, this, sessionOptions);
    }
    nghttp2_option_del(sessionOptions);
    nghttp2_session_callbacks_del(callbacks);
    if (result != 0) {
        return false;
    }
    const std::array<nghttp2_settings_entry, 2> settings{{
        {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, options.maximumConcurrentStreams},
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
                if (error != 0) {
                    std::array<char, 256> reason{};
                    ERR_error_string_n(error, reason.data(), reason.size());
                    connection->host_.log().debug(std::string("TLS connection failed: ") +
                                                  reason.data());
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
    armTimer(options.idleTimeout);
    flush();
    return true;
}

ProviderConnection::~ProviderConnection() {
    if (events_ != nullptr) {
        bufferevent_free(events_);
    }
    if (timer_ != nullptr) {
        event_free(timer_);
    }
    nghttp2_session_del(session_);
}

void ProviderConnection::received() {
    touch();
    evbuffer* input = bufferevent_get_input(events_);
    const std::size_t length = evbuffer_get_length(input);
    if (closing_ || length == 0) {
        evbuffer_drain(input, length);
        return;
    }
    const unsigned char* data = evbuffer_pullup(input, -1);
    const ssize_t used = nghttp2_session_mem_recv(session_, data, length);
    evbuffer_drain(input, length);
    if (used < 0) {
        // Not HTTP/2 (an HTTP/1.1 request, say), or a protocol error: nghttp2 may have queued a
        // GOAWAY saying which; it is sent and the connection closed.
        host_.log().debug([&] {
            return "closing a connection that broke HTTP/2: " +
                   std::string(nghttp2_strerror(static_cast<int>(used)));
        });
        fail();
        return;
    }
    flush();
    if (!closed_ && !ready_.empty()) {
        host_.requestsReady(id_);
    }
}

void ProviderConnection::flush() {
    if (closed_) {
        return;
    }
    evbuffer* output = bufferevent_get_output(events_);
    while (evbuffer_get_length(output) < kOutputLimit) {
        const std::uint8_t* data = nullptr;
        const ssize_t length = nghttp2_session_mem_send(session_, &data);
        if (length < 0) {
            closeNow();
            return;
        }
        if (length == 0) {
            break;
        }
        if (bufferevent_write(events_, data, static_cast<std::size_t>(length)) != 0) {
            closeNow();
            return;
        }
    }
    updateReading();
    closeIfDone();
}

void ProviderConnection::updateReading() {
    if (closed_) {
        return;
    }
    const bool read = !closing_ && !host_.readingPaused() &&
                      evbuffer_get_length(bufferevent_get_output(events_)) < kOutputLimit;
    if (read != reading_) {
        reading_ = read;
        if (read) {
            bufferevent_enable(events_, EV_READ);
        } else {
            bufferevent_disable(events_, EV_READ);
        }
    }
}

void ProviderConnection::closeIfDone() {
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

void ProviderConnection::closeNow() {
    if (closed_) {
        return;
    }
    closed_ = true;
    // The socket (and its TLS state) goes at once; the object itself is freed by the server
    // outside this connection's callbacks.
    bufferevent_free(events_);
    events_ = nullptr;
    evtimer_del(timer_);
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
    const auto idle = host_.options().idleTimeout;
    const auto quiet = std::chrono::steady_clock::now() - lastActivity_;
    if (awaitingAnswers_ > 0 || quiet < idle) {
        armTimer(awaitingAnswers_ > 0 ? std::chrono::steady_clock::duration(idle) : idle - quiet);
        return;
    }
    host_.log().debug("closing a connection idle for " + std::to_string(idle.count()) + " s");
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

std::optional<std::pair<std::int32_t, ProviderRequest>> ProviderConnection::takeRequest() {
    while (!ready_.empty()) {
        const std::int32_t id = ready_.front();
        ready_.pop_front();
        Stream* stream = find(id);
        if (stream != nullptr && !stream->answered) {
            ++awaitingAnswers_;
            return std::pair{id, std::move(stream->request)};
        }
    }
    return std::nullopt;
}

void ProviderConnection::answer(std::int32_t id, const ProviderResponse& response) {
    if (awaitingAnswers_ > 0) {
        --awaitingAnswers_;
    }
    if (closed_) {
        return;
    }
    touch();
    Stream* stream = find(id);
    // The client may have reset the stream meanwhile; then the answer has nowhere to go.
    if (stream != nullptr && !stream->answered) {
        respond(id, *stream, response);
    }
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
        headers[count++] = header("apns-id", response.apnsId);
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

void ProviderConnection::refuse(std::int32_t id, Stream& stream, int status,
                                std::string_view reason) {
    ProviderResponse response;
    response.status = status;
    response.apnsId = apnsIdFor(stream.request);
    if (!reason.empty()) {
        response.body = "{\"reason\":\"" + std::string(reason) + "\"}";
    }
    stream.request = {};
    respond(id, stream, response);
}

int ProviderConnection::onBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* c) {
    if (frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST) {
        self(c)->streams_.try_emplace(frame->hd.stream_id);
    }
    return 0;
}

int ProviderConnection::onHeader(nghttp2_session*, const nghttp2_frame* frame,
                                 const std::uint8_t* nameData, std::size_t nameLength,
                                 const std::uint8_t* valueData, std::size_t valueLength,
                                 std::uint8_t, void* c) {
    auto* connection = self(c);
    Stream* stream = connection->find(frame->hd.stream_id);
    if (stream == nullptr || stream->answered || stream->headersTooLarge) {
        return 0;
    }
    // Counted as SETTINGS_MAX_HEADER_LIST_SIZE counts, trailers included; past the limit the
    // headers are dropped at once and the request refused when its header block ends.
    stream->headerListSize += nameLength + valueLength + 32;
    if (stream->headerListSize > connection->host_.options().maximumHeaderListSize) {
        stream->headersTooLarge = true;
        stream->request.headers = {};
        return 0;
    }
    if (frame->headers.cat != NGHTTP2_HCAT_REQUEST) {
        return 0;
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
        request.headers.emplace_back(name, value);
    }
    return 0;
}

int ProviderConnection::onDataChunk(nghttp2_session*, std::uint8_t, std::int32_t id,
                                    const std::uint8_t* data, std::size_t length, void* c) {
    auto* connection = self(c);
    Stream* stream = connection->find(id);
    if (stream == nullptr || stream->answered || stream->headersTooLarge) {
        return 0;
    }
    std::string& body = stream->request.body;
    if (body.size() + length > kVoipPayloadLimit) {
        // No push type allows more. The rest of the body is read and dropped (flow control
        // credits it as it arrives) rather than reset: RST_STREAM(NO_ERROR) after an early
        // answer is allowed, but some clients (curl) then discard the answer.
        connection->refuse(id, *stream, 413, "PayloadTooLarge");
        return 0;
    }
    body.append(reinterpret_cast<const char*>(data), length);
    return 0;
}

int ProviderConnection::onFrameReceived(nghttp2_session*, const nghttp2_frame* frame, void* c) {
    auto* connection = self(c);
    const std::int32_t id = frame->hd.stream_id;
    Stream* stream = connection->find(id);
    if (stream == nullptr || stream->answered) {
        return 0;
    }
    const bool headers = frame->hd.type == NGHTTP2_HEADERS;
    if (headers && stream->headersTooLarge) {
        connection->refuse(id, *stream, 431, {});
        return 0;
    }
    if ((headers || frame->hd.type == NGHTTP2_DATA) &&
        (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0 && !stream->complete) {
        stream->complete = true;
        connection->ready_.push_back(id);
    }
    return 0;
}

int ProviderConnection::onStreamClosed(nghttp2_session*, std::int32_t id, std::uint32_t, void* c) {
    auto* connection = self(c);
    if (connection->streams_.erase(id) > 0) {
        std::erase(connection->ready_, id);
    }
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
