// The provider API's transport against real clients: libcurl in cleartext, and a raw
// HTTP/2 client (by hand, over TCP or OpenSSL) for what curl cannot show: ALPN refusals,
// SETTINGS, PING answers while reading is paused, GOAWAY and closed connections.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "CurlExchange.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "NimbOrraProviderApi/AuthKey.h"
#include "NimbOrraProviderApi/ProviderJwt.h"
#include "NimbOrraProviderApi/ProviderServer.h"
#include "NimbOrraProviderApi/ProviderService.h"

namespace nimborra::provider {
namespace {

using namespace std::chrono_literals;

// Records what it is handed; answers as the rules would for the body's size (200, or 413 past
// the limit), or holds the answer for answerHeld(), or leaves the answer to `answer` (a
// handler's bugs, late answers).
class Recorder : public ProviderRequestHandler {
  public:
    using Answer = std::function<void(ProviderResponder&)>;
    explicit Recorder(bool hold = false, Answer answer = {}) : hold_(hold), answer_(answer) {}
    struct Seen {
        ProviderRequest request;
        const ProviderTokenSession* tokens;
        std::optional<std::string> topic;
    };
    void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                ProviderResponder respond) override {
        const ProviderResponse ok =
            request.bodyTooLarge ? ProviderResponse{413, {}, R"({"reason":"PayloadTooLarge"})"}
                                 : ProviderResponse{200, {}, {}};
        std::unique_lock lock(mutex);
        seen.push_back(
            {std::move(request), authentication.tokens, authentication.certificateTopic});
        changed.notify_all();
        if (hold_) {
            return held.push_back(std::move(respond));
        }
        lock.unlock();
        answer_ ? answer_(respond) : respond(ok);
    }
    void refused(const TransportRefusal& refusal) override {
        const std::lock_guard lock(mutex);
        refusals.push_back(refusal);
        changed.notify_all();
    }
    bool waitForCount(std::size_t count, std::chrono::milliseconds timeout = 5s) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, timeout, [&] { return seen.size() >= count; });
    }
    std::size_t count() {
        const std::lock_guard lock(mutex);
        return seen.size();
    }
    void answerHeld() {
        std::vector<ProviderResponder> answers;
        {
            const std::lock_guard lock(mutex);
            answers.swap(held);
        }
        for (auto& respond : answers) {
            respond({200, {}, {}});
        }
    }

    const bool hold_;
    const Answer answer_;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Seen> seen;
    std::vector<TransportRefusal> refusals;
    std::vector<ProviderResponder> held;
};

// A server with the default options but what `configure` changes.
using Configure = std::function<void(ProviderServerOptions&)>;
std::unique_ptr<ProviderServer> startServer(Recorder& handler, const Configure& configure = {}) {
    ProviderServerOptions options;
    if (configure) {
        configure(options);
    }
    auto started = ProviderServer::start(std::move(options), handler);
    if (auto* error = std::get_if<std::string>(&started)) {
        ADD_FAILURE() << *error;
        return nullptr;
    }
    return std::move(std::get<0>(started));
}

std::shared_ptr<TlsServerContext> tlsContext(const TlsOptions& options = {}) {
    auto made = TlsServerContext::create(options);
    EXPECT_TRUE(std::holds_alternative<std::shared_ptr<TlsServerContext>>(made))
        << std::get<std::string>(made);
    return std::get<0>(made);
}

// A POST to `server` in cleartext, sent by libcurl.
testing::HttpReply curlPost(const ProviderServer& server, const std::string& body,
                            const std::vector<std::string>& headers = {}) {
    const auto url = "http://127.0.0.1:" + std::to_string(server.port()) + "/3/device/abcd";
    return testing::sendHttp2({url, "POST", headers, body, {}, {}});
}

// HTTP/2 by hand: frames, and request headers as HPACK literals without indexing.
struct Frame {
    int type = -1;
    int flags = 0;
    std::uint32_t stream = 0;
    std::string payload;
};
enum : int { kData = 0, kHeaders = 1, kReset = 3, kSettings = 4, kPing = 6, kGoaway = 7 };
enum : int { kEndStream = 0x1, kEndHeaders = 0x4 };

// Frame headers and error codes are big-endian integers of 3 or 4 bytes.
std::string bigEndian(std::uint32_t value, int size) {
    std::string bytes;
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
        bytes += char(value >> shift);
    }
    return bytes;
}
std::uint32_t bigEndian(std::string_view bytes) {
    std::uint32_t value = 0;
    for (const char c : bytes) {
        value = value << 8 | std::uint8_t(c);
    }
    return value;
}

std::string frame(int type, int flags, std::uint32_t stream, const std::string& payload) {
    return bigEndian(std::uint32_t(payload.size()), 3) + char(type) + char(flags) +
           bigEndian(stream, 4) + payload;
}

// An HPACK string literal, not Huffman-coded: its length as a 7-bit-prefix integer, then itself.
std::string literal(const std::string& text) {
    std::string bytes;
    std::size_t n = text.size();
    if (n < 127) {
        bytes += char(n);
    } else {
        bytes += char(127);
        for (n -= 127; n >= 128; n >>= 7) {
            bytes += char((n & 0x7f) | 0x80);
        }
        bytes += char(n);
    }
    return bytes + text;
}

// A POST's header block: its fields as HPACK literals without indexing, then `more`.
std::string postFields(const std::string& more = {}) {
    std::string block;
    for (const auto& [name, value] : {std::pair{":method", "POST"},
                                      {":scheme", "https"},
                                      {":path", "/3/device/abcd"},
                                      {":authority", "x"}}) {
        block += '\0' + literal(name) + literal(value);
    }
    return block + more;
}

// A POST with no body, or with one to come when `ended` is false.
std::string request(std::uint32_t stream, bool ended = true, const std::string& more = {}) {
    return frame(kHeaders, kEndHeaders | (ended ? kEndStream : 0), stream, postFields(more));
}

// The error code of a RST_STREAM or GOAWAY frame.
std::uint32_t errorCode(const Frame& f) {
    return bigEndian(std::string_view(f.payload).substr(f.type == kGoaway ? 4 : 0, 4));
}

const std::string kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(kSettings, 0, 0, {});
const std::string kPingFrame = frame(kPing, 0, 0, "12345678");

// A client over TCP, optionally TLS, reading frames with a deadline.
class RawClient {
  public:
    explicit RawClient(std::uint16_t port) : port_(port), fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawClient() {
        if (ssl_ != nullptr) {
            SSL_free(ssl_);
            SSL_CTX_free(context_);
        }
        close(fd_);
    }
    // The handshake's outcome: 0, or the reason of OpenSSL's first error.
    int handshake(const std::string& alpn, const std::string& certificateAndKey = {}) {
        context_ = SSL_CTX_new(TLS_client_method());
        ssl_ = SSL_new(context_);
        if (!alpn.empty()) {
            SSL_set_alpn_protos(ssl_, reinterpret_cast<const unsigned char*>(alpn.data()),
                                static_cast<unsigned>(alpn.size()));
        }
        if (!certificateAndKey.empty()) {
            SSL_use_certificate_file(ssl_, certificateAndKey.c_str(), SSL_FILETYPE_PEM);
            SSL_use_PrivateKey_file(ssl_, certificateAndKey.c_str(), SSL_FILETYPE_PEM);
        }
        SSL_set_fd(ssl_, fd_);
        const int reason = SSL_connect(ssl_) == 1 ? 0 : ERR_GET_REASON(ERR_peek_error());
        ERR_clear_error();
        return reason;
    }
    void send(const std::string& bytes) {
        ASSERT_EQ(ssl_ != nullptr ? SSL_write(ssl_, bytes.data(), int(bytes.size()))
                                  : ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  ssize_t(bytes.size()));
    }
    // The next frame; nothing on timeout or when the server closed (then closed() is true).
    std::optional<Frame> next(std::chrono::milliseconds timeout = 3s) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (buffer_.size() < 9 || buffer_.size() < 9 + frameLength()) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{fd_, POLLIN, 0};
            if (closed_ || left.count() <= 0 ||
                ((ssl_ == nullptr || SSL_pending(ssl_) == 0) &&
                 poll(&p, 1, int(left.count())) == 0)) {
                return std::nullopt;
            }
            char chunk[16384];
            const long n = ssl_ != nullptr ? SSL_read(ssl_, chunk, sizeof chunk)
                                           : recv(fd_, chunk, sizeof chunk, 0);
            closed_ = n <= 0;
            buffer_.append(chunk, n > 0 ? std::size_t(n) : 0);
        }
        Frame f{buffer_[3], static_cast<unsigned char>(buffer_[4]),
                bigEndian(std::string_view(buffer_).substr(5, 4)) & 0x7fffffff,
                buffer_.substr(9, frameLength())};
        buffer_.erase(0, 9 + frameLength());
        goaway = goaway || f.type == kGoaway;
        return f;
    }
    // The next frame of `type` (and `flags`, when given), skipping others; nothing if none comes.
    std::optional<Frame> await(int type, int flags = -1, std::chrono::milliseconds t = 3s) {
        for (auto f = next(t); f; f = next(t)) {
            if (f->type == type && (flags < 0 || f->flags == flags)) {
                return f;
            }
        }
        return std::nullopt;
    }
    bool closedWithin(std::chrono::milliseconds timeout) {
        while (next(timeout)) {
        }
        return closed_;
    }

    std::uint16_t port() const { return port_; }
    bool goaway = false;  // whether a GOAWAY came

  private:
    std::size_t frameLength() const { return bigEndian(std::string_view(buffer_).substr(0, 3)); }
    std::uint16_t port_;
    int fd_;
    SSL_CTX* context_ = nullptr;
    SSL* ssl_ = nullptr;
    std::string buffer_;
    bool closed_ = false;
};

// True when a new, well-behaved client on `port` gets its request answered 200.
bool served(std::uint16_t port, bool tls) {
    RawClient client(port);
    if (tls && client.handshake("\x02h2") != 0) {
        return false;
    }
    client.send(kPreface + request(1));
    const auto answer = client.await(kHeaders, -1, 5s);
    return answer && answer->stream == 1 && answer->payload[0] == '\x88';  // :status 200
}

std::size_t loggedLines(const platform::LogCapture& log, std::string_view text) {
    const auto records = log.records();
    return std::count_if(records.begin(), records.end(), [&](const auto& record) {
        return record.message.find(text) != std::string::npos;
    });
}

// Certificates and keys made by the openssl command, in a directory of this process's own:
// makePki("ca", "") is a self-signed CA, makePki("client", "/UID=x", "ca") one it issued. Each
// file holds the certificate and then its key.
std::string makePki(const std::string& name, const std::string& subject,
                    const std::string& issuer = {}) {
    static const struct Directory {
        std::filesystem::path path =
            std::filesystem::temp_directory_path() / ("nimborra-pki-" + std::to_string(getpid()));
        ~Directory() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    } directory;
    std::filesystem::create_directories(directory.path);
    const auto file = [&](const std::string& n) { return (directory.path / n).string() + ".pem"; };
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -noenc -keyout " +
                            file(name + "-key") + " -subj '/CN=" + name + subject + "'";
    const std::string command =
        issuer.empty() ? "openssl req -x509 -days 1" + key + " -out " + file(name + "-cert")
                       : "openssl req" + key + " | openssl x509 -req -days 1 -CA " + file(issuer) +
                             " -set_serial 2 -out " + file(name + "-cert");
    EXPECT_EQ(std::system(("(" + command + ") 2>/dev/null && cat " + file(name + "-cert") + " " +
                           file(name + "-key") + " > " + file(name))
                              .c_str()),
              0)
        << command;
    return file(name);
}

TEST(TlsServerContext, MadeCertificateNamesLocalAndApnsHostsAndIsFresh) {
    auto first = tlsContext();
    auto second = tlsContext();
    BIO* bio = BIO_new_mem_buf(first->certificatePem().data(), -1);
    X509* cert = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    BIO_free(bio);
    ASSERT_NE(cert, nullptr);
    for (const char* host : {"localhost", "api.push.apple.com", "api.sandbox.push.apple.com",
                             "api.development.push.apple.com"}) {
        EXPECT_EQ(X509_check_host(cert, host, 0, 0, nullptr), 1) << host;
    }
    for (const char* ip : {"127.0.0.1", "::1"}) {
        EXPECT_EQ(X509_check_ip_asc(cert, ip, 0), 1) << ip;
    }
    EXPECT_EQ(first->fingerprint().size(), 32u * 3 - 1);
    EXPECT_NE(first->fingerprint(), second->fingerprint());
    X509_free(cert);
}

TEST(TlsServerContext, LoadsMatchingFilesAndRefusesOthers) {
    const std::filesystem::path server = makePki("server", ""), other = makePki("other", "");
    const struct {
        std::optional<std::filesystem::path> certificate, key;
        const char* error;  // nullptr: accepted
    } rows[] = {
        {server, server, nullptr},
        {server, std::nullopt, "both or neither"},
        {server, other, "does not belong"},
        {"/nonexistent/cert.pem", server, "cannot read the TLS certificate"},
    };
    for (const auto& row : rows) {
        auto made = TlsServerContext::create({row.certificate, row.key, std::nullopt});
        if (row.error == nullptr) {
            EXPECT_EQ(made.index(), 0u) << std::get<1>(made);
        } else {
            ASSERT_EQ(made.index(), 1u);
            EXPECT_NE(std::get<1>(made).find(row.error), std::string::npos) << std::get<1>(made);
        }
    }
}

TEST(ProviderServerTls, AlpnWithoutH2IsRefusedAndNoAlpnIsServedHttp2) {
    Recorder handler;
    platform::LogCapture log;
    auto server = startServer(handler, [](auto& o) {
        o.tls = tlsContext();
        o.maximumHeaderListSize = 9000;
    });
    RawClient refused(server->port());
    EXPECT_EQ(refused.handshake("\x08http/1.1\x06spdy/3"),
              SSL_R_TLSV1_ALERT_NO_APPLICATION_PROTOCOL);
    EXPECT_EQ(loggedLines(log, R"("http/1.1", "spdy/3")"), 1u);

    RawClient plain(server->port());
    ASSERT_EQ(plain.handshake({}), 0);
    plain.send(kPreface);
    const auto settings = plain.await(kSettings, 0);
    ASSERT_TRUE(settings);
    // Identifier 6 (MAX_HEADER_LIST_SIZE) = 9000; the streams limit is an attack's row.
    EXPECT_NE(settings->payload.find(std::string("\0\6\0\0\x23\x28", 6)), std::string::npos);

    // A client that closes without close_notify has not made TLS fail (the refused one did).
    const std::size_t failures = loggedLines(log, "TLS failed");
    {
        RawClient abrupt(server->port());
        ASSERT_EQ(abrupt.handshake("\x02h2"), 0);
    }
    EXPECT_TRUE(served(server->port(), true));
    EXPECT_EQ(loggedLines(log, "TLS failed"), failures);
}

TEST(ProviderServerTls, ClientCertificateUidIsTheTopicAndNoCertificateIsRefused) {
    const std::string ca = makePki("ca", ""),
                      client = makePki("client", "/UID=com.example.app", "ca");
    Recorder handler;
    auto server = startServer(handler, [&](auto& o) { o.tls = tlsContext({{}, {}, ca}); });
    RawClient withCertificate(server->port());
    ASSERT_EQ(withCertificate.handshake({}, client), 0);
    withCertificate.send(kPreface + request(1));
    ASSERT_TRUE(handler.waitForCount(1));
    EXPECT_EQ(handler.seen[0].topic, "com.example.app");
    EXPECT_EQ(handler.seen[0].tokens, nullptr);

    RawClient without(server->port());
    without.handshake({});  // TLS 1.3: the refusal comes after the client's side is done
    EXPECT_FALSE(without.await(kSettings));
    EXPECT_EQ(handler.count(), 1u);
}

// A body past the limit is handed over as soon as it passes, marked, with no more of it held; a
// header list past the limit resets the stream, and the handler hears of it.
TEST(ProviderServerCleartext, BodyAndHeaderLimits) {
    const struct {
        std::size_t bodySize, headerSize;
        long status;  // 0: the stream is reset
        bool handed;
    } rows[] = {
        {kVoipPayloadLimit, 10, 200, true},
        {kVoipPayloadLimit + 1, 10, 413, true},
        {1 << 20, 10, 413, true},
        {10, 20000, 0, false},
    };
    for (const auto& row : rows) {
        Recorder handler;
        auto server = startServer(handler);
        const auto result = curlPost(*server, std::string(row.bodySize, 'x'),
                                     {"x-big: " + std::string(row.headerSize, 'h')});
        EXPECT_EQ(result.status, row.status)
            << row.bodySize << " " << row.headerSize << " " << curl_easy_strerror(result.code);
        EXPECT_EQ(handler.count(), row.handed ? 1u : 0u);
        if (row.handed) {
            const auto& request = handler.seen[0].request;
            EXPECT_EQ(request.bodyTooLarge, row.bodySize > kVoipPayloadLimit);
            EXPECT_LE(request.body.size(), kVoipPayloadLimit);
        } else {
            EXPECT_EQ(result.code, CURLE_HTTP2_STREAM);
            ASSERT_EQ(handler.refusals.size(), 1u);
            EXPECT_NE(handler.refusals[0].detail.find("header list"), std::string::npos);
        }
    }
}

// Hostile clients at small scale, each against a server of its own: each attack gets the answer
// HTTP/2 gives it, never costs the whole connection (no GOAWAY) unless it breaks the protocol,
// and a well-behaved client is still served while the attacker holds on.
TEST(ProviderServer, AttacksGetTheirAnswerAndOthersAreStillServed) {
    const struct {
        const char* name;
        Configure configure;
        std::function<void(RawClient&, Recorder&)> attack;
    } attacks[] = {
        {"a stream over the advertised limit is refused alone",
         [](auto& o) { o.maximumConcurrentStreams = 2; },
         [](RawClient& c, Recorder&) {
             c.send(kPreface);
             const auto settings = c.await(kSettings, 0);
             ASSERT_TRUE(settings);
             EXPECT_NE(settings->payload.find(std::string("\0\3\0\0\0\2", 6)), std::string::npos);
             c.send(frame(kSettings, 1, 0, {}) + request(1, false) + request(3, false) +
                    request(5));
             const auto reset = c.await(kReset);
             ASSERT_TRUE(reset);
             EXPECT_EQ(reset->stream, 5u);
             EXPECT_EQ(errorCode(*reset), 7u);  // REFUSED_STREAM
             c.send(frame(kData, kEndStream, 1, {}));
             const auto answer = c.await(kHeaders);
             ASSERT_TRUE(answer);
             EXPECT_EQ(answer->stream, 1u);
             EXPECT_FALSE(c.goaway);
         }},
        {"HPACK references past the header list limit are abandoned at once", [](auto&) {},
         [](RawClient& c, Recorder& handler) {
             // One 4,000-byte entry added to the dynamic table, then a thousand one-byte
             // references to it: 4 MB decoded from 5 KB sent.
             const std::string bomb = '\x40' + literal("x-bomb") + literal(std::string(4000, 'b')) +
                                      std::string(1000, '\xbe');
             c.send(kPreface + frame(kHeaders, kEndHeaders | kEndStream, 1, postFields(bomb)));
             const auto reset = c.await(kReset);
             ASSERT_TRUE(reset);
             EXPECT_EQ(reset->stream, 1u);
             EXPECT_EQ(errorCode(*reset), 0xbu);  // ENHANCE_YOUR_CALM
             // The connection goes on, its HPACK state intact.
             c.send(request(3));
             const auto answer = c.await(kHeaders);
             ASSERT_TRUE(answer);
             EXPECT_EQ(answer->stream, 3u);
             EXPECT_FALSE(c.goaway);
             EXPECT_EQ(handler.count(), 1u);
             const std::lock_guard lock(handler.mutex);
             ASSERT_EQ(handler.refusals.size(), 1u);
             EXPECT_EQ(handler.refusals[0].errorCode, 0xbu);
         }},
        {"rapid reset does not end the connection", [](auto&) {},
         [](RawClient& c, Recorder&) {
             std::string flood = kPreface;
             for (std::uint32_t stream = 1; stream < 2 * 1500; stream += 2) {
                 flood +=
                     request(stream, false) + frame(kReset, 0, stream, bigEndian(8, 4));  // CANCEL
             }
             c.send(flood + kPingFrame);
             EXPECT_TRUE(c.await(kPing, 1, 5s));
             EXPECT_FALSE(c.goaway);
         }},
        {"a client that does not speak HTTP/2 is closed with one log line saying why",
         [](auto& o) { o.maximumConnections = 2; },
         [](RawClient& c, Recorder& handler) {
             platform::LogCapture log;
             c.send("POST /3/device/abcd HTTP/1.1\r\nHost: x\r\n\r\n");
             EXPECT_TRUE(served(c.port(), false));
             EXPECT_TRUE(c.closedWithin(3s));
             EXPECT_EQ(handler.count(), 1u);
             EXPECT_EQ(loggedLines(log, "protocol error"), 1u);
             EXPECT_EQ(loggedLines(log, "bad client magic"), 1u);
         }},
        {"sockets that never send a byte are closed",
         [](auto& o) {
             o.maximumConnections = 3;
             o.handshakeTimeout = 300ms;
         },
         [](RawClient& c, Recorder&) {
             RawClient second(c.port()), third(c.port());
             EXPECT_TRUE(c.closedWithin(3s));
             EXPECT_TRUE(second.closedWithin(3s));
             EXPECT_TRUE(third.closedWithin(3s));
         }},
        {"unfinished requests past the memory budget are refused, the oldest reclaimed",
         [](auto& o) { o.memoryBudget = 32 * 1024; },
         [](RawClient& c, Recorder&) {
             // Requests like the other client's, so that what is left of the budget cannot
             // hold another.
             std::string streams = kPreface;
             for (std::uint32_t stream = 1; stream < 2 * 100; stream += 2) {
                 streams += request(stream, false);
             }
             c.send(streams);
             const auto refused = c.await(kReset);
             ASSERT_TRUE(refused);
             EXPECT_GT(refused->stream, 1u);
             EXPECT_EQ(errorCode(*refused), 7u);
             // The attacker holds the whole budget; a client holding nothing takes room from it.
             EXPECT_TRUE(served(c.port(), false));
             for (auto f = c.await(kReset); f; f = c.await(kReset)) {
                 if (f->stream == 1) {
                     EXPECT_EQ(errorCode(*f), 7u);
                     EXPECT_FALSE(c.goaway);
                     return;
                 }
             }
             ADD_FAILURE() << "the oldest unfinished stream was not reclaimed";
         }},
    };
    for (const auto& attack : attacks) {
        SCOPED_TRACE(attack.name);
        Recorder handler;
        auto server = startServer(handler, attack.configure);
        RawClient attacker(server->port());
        attack.attack(attacker, handler);
        EXPECT_TRUE(served(server->port(), false));
    }
}

TEST(ProviderServerCleartext, EveryRequestIsAnsweredOnceWhateverTheHandlerDoes) {
    const struct {
        Recorder::Answer answer;
        long status;
        const char* body;
    } rows[] = {
        {[](auto&) {}, 500, R"({"reason":"InternalServerError"})"},
        {[](auto&) { throw std::runtime_error("handler bug"); }, 500,
         R"({"reason":"InternalServerError"})"},
        {[](auto& respond) {
             std::thread([r = std::move(respond)]() mutable {
                 std::this_thread::sleep_for(50ms);
                 r({410, "X", R"({"reason":"Unregistered"})"});
             }).detach();
         },
         410, R"({"reason":"Unregistered"})"},
        {[](auto& respond) {
             respond({201, {}, {}}), respond({202, {}, {}});
         },
         201, ""},
    };
    for (const auto& row : rows) {
        Recorder handler(false, row.answer);
        auto server = startServer(handler);
        const auto result = curlPost(*server, "{}");
        EXPECT_EQ(result.status, row.status);
        EXPECT_EQ(result.body, row.body);
    }
}

TEST(ProviderServerCleartext, ConnectionsBeyondTheLimitAndIdleOnesAreClosed) {
    Recorder handler;
    auto server = startServer(handler, [](auto& o) {
        o.maximumConnections = 1;
        o.idleTimeout = 1s;
    });
    RawClient first(server->port());
    first.send(kPreface);
    ASSERT_TRUE(first.await(kSettings, 0));
    platform::LogCapture log;
    RawClient second(server->port()), third(server->port());
    EXPECT_TRUE(second.closedWithin(1s));
    EXPECT_TRUE(third.closedWithin(1s));
    EXPECT_EQ(loggedLines(log, "refused a connection"), 1u);  // at most one a second
    first.send(kPingFrame);
    EXPECT_TRUE(first.await(kPing, 1));
    EXPECT_TRUE(first.await(kGoaway, -1, 3s));
    EXPECT_TRUE(first.closedWithin(3s));
}

TEST(ProviderServerCleartext, PendingRequestsAtTheLimitStopReadingEverywhere) {
    Recorder handler(true);
    auto server = startServer(handler, [](auto& o) { o.maximumPendingRequests = 2; });
    RawClient a(server->port()), b(server->port());
    b.send(kPreface);
    ASSERT_TRUE(b.await(kSettings, 0));
    a.send(kPreface + request(1) + request(3) + request(5));
    ASSERT_TRUE(handler.waitForCount(2));
    a.send(kPingFrame);
    b.send(kPingFrame);
    EXPECT_FALSE(a.await(kPing, 1, 300ms));
    EXPECT_FALSE(b.await(kPing, 1, 300ms));
    EXPECT_EQ(handler.count(), 2u);

    handler.answerHeld();
    ASSERT_TRUE(handler.waitForCount(3));
    EXPECT_TRUE(b.await(kPing, 1));
    handler.answerHeld();
    std::set<std::uint32_t> answered;
    for (auto f = a.await(kHeaders); f;
         f = answered.size() < 3 ? a.await(kHeaders) : std::nullopt) {
        answered.insert(f->stream);
    }
    EXPECT_EQ(answered, (std::set<std::uint32_t>{1, 3, 5}));
}

TEST(ProviderServerCleartext, StopAnswersHeldRequestsThenSaysGoawayAndCloses) {
    Recorder handler(true);
    auto server = startServer(handler);
    RawClient client(server->port());
    client.send(kPreface + request(1));
    ASSERT_TRUE(handler.waitForCount(1));
    auto stopped = std::async(std::launch::async, [&] { server->stop(); });
    const auto goaway = client.await(kGoaway);
    ASSERT_TRUE(goaway);
    EXPECT_EQ(goaway->payload.substr(0, 4), std::string("\0\0\0\1", 4));  // last stream 1
    EXPECT_EQ(stopped.wait_for(200ms), std::future_status::timeout);
    handler.answerHeld();
    EXPECT_TRUE(client.await(kHeaders));
    EXPECT_TRUE(client.closedWithin(3s));
    EXPECT_EQ(stopped.wait_for(3s), std::future_status::ready);
}

// Clients that hold streams forever cannot keep the server from stopping: an unfinished body is
// reset after the grace period, and an answer a zero flow-control window holds back is given up.
TEST(ProviderServerCleartext, StopEndsWhateverClientsHold) {
    Recorder handler;
    auto server = startServer(handler, [](auto& o) { o.stopGrace = 300ms; });
    RawClient unfinished(server->port()), closedWindow(server->port());
    unfinished.send(kPreface + request(1, false) + frame(kData, 0, 1, "{"));
    // INITIAL_WINDOW_SIZE 0, and a body past the limit: its 413 has a body that cannot be sent.
    closedWindow.send(kPreface + frame(kSettings, 0, 0, std::string("\0\4\0\0\0\0", 6)) +
                      request(1, false) + frame(kData, kEndStream, 1, std::string(6000, 'x')));
    ASSERT_TRUE(closedWindow.await(kHeaders));
    ASSERT_TRUE(unfinished.await(kSettings, 0));
    auto stopped = std::async(std::launch::async, [&] { server->stop(); });
    const auto reset = unfinished.await(kReset);
    ASSERT_TRUE(reset);
    EXPECT_EQ(errorCode(*reset), 8u);  // CANCEL
    EXPECT_TRUE(unfinished.closedWithin(3s));
    EXPECT_TRUE(closedWindow.closedWithin(3s));
    EXPECT_EQ(stopped.wait_for(3s), std::future_status::ready);
}

// An unknown host is among apns-host's start-up errors, tested through the program.
// A device that keeps every notification it is handed, with the service's token for it, until
// it lets go of them all.
class HoldingDevice : public platform::RemoteNotificationReceiver, public ProviderObserver {
  public:
    Taken take(const platform::IncomingRemoteNotification&) override { return Taken::delivered; }
    void present(platform::IncomingRemoteNotification&& notification) override {
        const std::lock_guard lock(mutex);
        ids.push_back(notification.identifier);
        held.push_back(std::move(notification));
        changed.notify_all();
    }
    void requestHandled(const ProviderRecord& record) override {
        const std::lock_guard lock(mutex);
        statuses.push_back(record.status);
    }
    void keptNotificationDelivered(std::string_view, ProviderOutcome) override {}
    bool waitForCount(std::size_t count) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 5s, [&] { return ids.size() >= count; });
    }
    std::size_t count() {
        const std::lock_guard lock(mutex);
        return ids.size();
    }
    void letGo() {
        std::vector<platform::IncomingRemoteNotification> gone;
        const std::lock_guard lock(mutex);
        gone.swap(held);
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> ids;
    std::vector<int> statuses;
    std::vector<platform::IncomingRemoteNotification> held;
};

// What the device has room for is handed over and answered; the rest waits, unanswered, and
// follows in order once the device lets go, or is refused 503 when the service stops first.
TEST(ProviderService, HandsTheDeviceWhatItHasRoomForAndTheRestOnceItLetsGo) {
    for (const bool stopFirst : {false, true}) {
        SCOPED_TRACE(stopFirst ? "stopped" : "let go");
        HoldingDevice holder;
        ProviderService service("com.nimborra.sample",
                                platform::Data{std::vector<std::uint8_t>(32, 1)}, std::nullopt,
                                holder, holder);
        ProviderServerOptions options;
        options.tokens = std::make_shared<ProviderTokenVerifier>(std::nullopt, "", "");
        auto started = ProviderServer::start(options, service);
        ASSERT_TRUE(std::holds_alternative<std::unique_ptr<ProviderServer>>(started));
        const auto& server = std::get<std::unique_ptr<ProviderServer>>(started);

        const std::string token =
            makeProviderToken(AuthKey::generate(), "KEY0000001", "TEAM000001", std::time(nullptr))
                .value_or("");
        std::string device;
        for (int i = 0; i < 32; ++i) {
            device += "01";
        }
        const std::size_t pushes = ProviderService::maximumPresenting + 3;
        std::string bytes = kPreface;
        for (std::size_t i = 0; i < pushes; ++i) {
            const std::string number = std::to_string(i);
            std::string block;
            for (const auto& [name, value] : {
                     std::pair<std::string, std::string>{":method", "POST"},
                     {":scheme", "https"},
                     {":path", "/3/device/" + device},
                     {":authority", "x"},
                     {"apns-topic", "com.nimborra.sample"},
                     {"apns-id",
                      "00000000-0000-0000-0000-" + std::string(12 - number.size(), '0') + number},
                     {"authorization", "bearer " + token},
                 }) {
                block += '\0' + literal(name) + literal(value);
            }
            const auto stream = static_cast<std::uint32_t>(2 * i + 1);
            bytes += frame(kHeaders, kEndHeaders, stream, block) +
                     frame(kData, kEndStream, stream, R"({"aps":{"alert":"x"}})");
        }
        RawClient client(server->port());
        client.send(bytes);

        ASSERT_TRUE(holder.waitForCount(ProviderService::maximumPresenting));
        std::size_t answered = 0;
        while (answered < ProviderService::maximumPresenting && client.await(kHeaders)) {
            ++answered;
        }
        EXPECT_EQ(answered, ProviderService::maximumPresenting);
        EXPECT_FALSE(client.await(kHeaders, -1, 300ms));
        EXPECT_EQ(holder.count(), ProviderService::maximumPresenting);

        if (stopFirst) {
            service.stop();
            std::size_t answers = 0;
            while (answers < 3 && client.await(kHeaders)) {
                ++answers;
            }
            EXPECT_EQ(answers, 3u);
            const std::lock_guard lock(holder.mutex);
            EXPECT_EQ(std::count(holder.statuses.begin(), holder.statuses.end(), 503), 3);
            EXPECT_EQ(holder.ids.size(), ProviderService::maximumPresenting);
            continue;
        }
        holder.letGo();
        ASSERT_TRUE(holder.waitForCount(pushes));
        while (answered < pushes && client.await(kHeaders)) {
            ++answered;
        }
        EXPECT_EQ(answered, pushes);
        const std::lock_guard lock(holder.mutex);
        EXPECT_TRUE(std::is_sorted(holder.ids.begin(), holder.ids.end()));
    }
}

TEST(ProviderServer, StartExplainsThatThePortIsInUse) {
    Recorder handler;
    auto taken = startServer(handler);
    ProviderServerOptions options;
    options.port = taken->port();
    auto started = ProviderServer::start(options, handler);
    ASSERT_EQ(started.index(), 1u);
    EXPECT_NE(std::get<1>(started).find("in use"), std::string::npos) << std::get<1>(started);
}

}  // namespace
}  // namespace nimborra::provider
