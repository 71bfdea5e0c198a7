// The provider API's transport against real clients: libcurl over TLS and cleartext, and a raw
// HTTP/2 client (by hand, over TCP or OpenSSL) for what curl cannot show: ALPN refusals,
// SETTINGS, PING answers while reading is paused, GOAWAY and closed connections.
#include <arpa/inet.h>
#include <curl/curl.h>
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
#include <fstream>
#include <future>
#include <mutex>
#include <set>
#include <thread>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraProviderApi/ProviderServer.h"

namespace nimborra::provider {
namespace {

using namespace std::chrono_literals;

// Records what it is handed; answers 200 with the request's apns-id, or holds the answer.
class Recorder : public ProviderRequestHandler {
  public:
    enum class Mode { answer, hold, drop, laterFromThread, twice, throwing };
    explicit Recorder(Mode m = Mode::answer) : mode(m) {}
    struct Seen {
        ProviderRequest request;
        const ProviderTokenSession* tokens;
        std::optional<std::string> topic;
    };
    void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                ProviderResponder respond) override {
        std::string id;
        for (const auto& [name, value] : request.headers) {
            id = name == "apns-id" ? value : id;
        }
        std::unique_lock lock(mutex);
        seen.push_back(
            {std::move(request), authentication.tokens, authentication.certificateTopic});
        changed.notify_all();
        lock.unlock();
        switch (mode) {
            case Mode::answer:
                respond({200, id, {}});
                break;
            case Mode::hold:
                lock.lock(), held.push_back(std::move(respond));
                break;
            case Mode::drop:
                break;
            case Mode::laterFromThread:
                std::thread([r = std::move(respond)]() mutable {
                    std::this_thread::sleep_for(50ms);
                    r({410, "X", R"({"reason":"Unregistered"})"});
                }).detach();
                break;
            case Mode::twice:
                respond({201, id, {}}), respond({202, id, {}});
                break;
            case Mode::throwing:
                throw std::runtime_error("handler bug");
        }
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

    const Mode mode;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Seen> seen;
    std::vector<ProviderResponder> held;
};

template <class Set>
ProviderServerOptions with(Set set) {
    ProviderServerOptions options;
    set(options);
    return options;
}

std::unique_ptr<ProviderServer> startServer(Recorder& handler, ProviderServerOptions options = {}) {
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

struct CurlResult {
    CURLcode code = CURLE_OK;
    long status = 0;
    long version = 0;
    std::string body;
    std::string apnsId;
};

CurlResult curlPost(const std::string& url, const std::string& body,
                    const std::vector<std::string>& headers = {}, const std::string& caPem = {}) {
    CurlResult result;
    CURL* curl = curl_easy_init();
    curl_slist* list = nullptr;
    for (const auto& h : headers) {
        list = curl_slist_append(list, h.c_str());
    }
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_HTTP_VERSION,
                     caPem.empty() ? CURL_HTTP_VERSION_2_PRIOR_KNOWLEDGE : CURL_HTTP_VERSION_2TLS);
    curl_blob ca{const_cast<char*>(caPem.data()), caPem.size(), CURL_BLOB_COPY};
    if (!caPem.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO_BLOB, &ca);
    }
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char* p, size_t, size_t n, void* out) {
            static_cast<std::string*>(out)->append(p, n);
            return n;
        });
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &result.apnsId);
    curl_easy_setopt(
        curl, CURLOPT_HEADERFUNCTION, +[](char* p, size_t, size_t n, void* out) {
            const std::string line(p, n);
            if (line.starts_with("apns-id: ")) {
                *static_cast<std::string*>(out) = line.substr(9, line.find('\r') - 9);
            }
            return n;
        });
    result.code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &result.status);
    curl_easy_getinfo(curl, CURLINFO_HTTP_VERSION, &result.version);
    curl_slist_free_all(list);
    curl_easy_cleanup(curl);
    return result;
}

std::string cleartextUrl(const ProviderServer& server) {
    return "http://127.0.0.1:" + std::to_string(server.port()) + "/3/device/abcd";
}

// HTTP/2 by hand: frames, and request headers as HPACK literals without indexing.
struct Frame {
    int type = -1;
    int flags = 0;
    std::uint32_t stream = 0;
    std::string payload;
};
enum : int { kData = 0, kHeaders = 1, kSettings = 4, kPing = 6, kGoaway = 7 };

std::string frame(int type, int flags, std::uint32_t stream, const std::string& payload) {
    const std::size_t n = payload.size();
    std::string bytes{char(n >> 16),      char(n >> 8),      char(n),
                      char(type),         char(flags),       char(stream >> 24),
                      char(stream >> 16), char(stream >> 8), char(stream)};
    return bytes + payload;
}

std::string hpackLength(std::size_t n) {
    std::string out;
    if (n < 127) {
        return std::string(1, char(n));
    }
    out += char(127);
    for (n -= 127; n >= 128; n >>= 7) {
        out += char((n & 127) | 128);
    }
    return out + char(n);
}

std::string request(std::uint32_t stream,
                    const std::vector<std::pair<std::string, std::string>>& extra = {}) {
    std::vector<std::pair<std::string, std::string>> fields{{":method", "POST"},
                                                            {":scheme", "https"},
                                                            {":path", "/3/device/abcd"},
                                                            {":authority", "localhost"}};
    fields.insert(fields.end(), extra.begin(), extra.end());
    std::string block;
    for (const auto& [name, value] : fields) {
        block += '\0' + hpackLength(name.size()) + name + hpackLength(value.size()) + value;
    }
    return frame(kHeaders, 0x5, stream, block);  // END_STREAM | END_HEADERS
}

const std::string kPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + frame(kSettings, 0, 0, {});
const std::string kPingFrame = frame(kPing, 0, 0, "12345678");

// A client over TCP, optionally TLS, reading frames with a deadline.
class RawClient {
  public:
    explicit RawClient(std::uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
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
    int handshake(const std::string& alpn, X509* cert = nullptr, EVP_PKEY* key = nullptr) {
        context_ = SSL_CTX_new(TLS_client_method());
        ssl_ = SSL_new(context_);
        if (!alpn.empty()) {
            SSL_set_alpn_protos(ssl_, reinterpret_cast<const unsigned char*>(alpn.data()),
                                static_cast<unsigned>(alpn.size()));
        }
        if (cert != nullptr) {
            SSL_use_certificate(ssl_, cert);
            SSL_use_PrivateKey(ssl_, key);
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
        Frame f{buffer_[3], static_cast<unsigned char>(buffer_[4]), 0,
                buffer_.substr(9, frameLength())};
        f.stream = (std::uint32_t(std::uint8_t(buffer_[5]) & 0x7f) << 24) |
                   (std::uint32_t(std::uint8_t(buffer_[6])) << 16) |
                   (std::uint32_t(std::uint8_t(buffer_[7])) << 8) | std::uint8_t(buffer_[8]);
        buffer_.erase(0, 9 + frameLength());
        return f;
    }
    // The next frame of `type` (and `flags`, when given), skipping others.
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

  private:
    std::size_t frameLength() const {
        return (std::size_t(std::uint8_t(buffer_[0])) << 16) |
               (std::size_t(std::uint8_t(buffer_[1])) << 8) | std::uint8_t(buffer_[2]);
    }
    int fd_;
    SSL_CTX* context_ = nullptr;
    SSL* ssl_ = nullptr;
    std::string buffer_;
    bool closed_ = false;
};

// A certificate for `key`, signed by `issuer` (itself when null), optionally a CA or with a UID.
X509* makeCertificate(EVP_PKEY* key, const char* cn, const char* uid = nullptr,
                      X509* issuer = nullptr, EVP_PKEY* issuerKey = nullptr) {
    X509* cert = X509_new();
    X509_set_version(cert, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), std::rand());
    X509_gmtime_adj(X509_getm_notBefore(cert), -60);
    X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
    X509_set_pubkey(cert, key);
    X509_NAME* name = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, (const unsigned char*)cn, -1, -1, 0);
    if (uid != nullptr) {
        X509_NAME_add_entry_by_NID(name, NID_userId, MBSTRING_ASC, (const unsigned char*)uid, -1,
                                   -1, 0);
    }
    X509_set_issuer_name(cert, issuer ? X509_get_subject_name(issuer) : name);
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, issuer ? issuer : cert, cert, nullptr, nullptr, 0);
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints,
                                              issuer ? "CA:FALSE" : "critical,CA:TRUE");
    X509_add_ext(cert, ext, -1);
    X509_EXTENSION_free(ext);
    X509_sign(cert, issuerKey ? issuerKey : key, EVP_sha256());
    return cert;
}

std::filesystem::path writePem(const std::string& name, X509* cert, EVP_PKEY* key = nullptr) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("nimborra-provider-" + std::to_string(getpid()) + "-" + name);
    FILE* file = std::fopen(path.c_str(), "w");
    if (cert != nullptr) {
        PEM_write_X509(file, cert);
    }
    if (key != nullptr) {
        PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
    }
    std::fclose(file);
    return path;
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
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(cert), X509_get0_notAfter(cert));
    EXPECT_GE(days, 365);
    unsigned char digest[32];
    unsigned int length = 0;
    X509_digest(cert, EVP_sha256(), digest, &length);
    char expected[8];
    std::snprintf(expected, sizeof expected, "%02X:%02X:", digest[0], digest[1]);
    EXPECT_EQ(first->fingerprint().size(), 32u * 3 - 1);
    EXPECT_TRUE(first->fingerprint().starts_with(expected)) << first->fingerprint();
    EXPECT_NE(first->fingerprint(), second->fingerprint());
    X509_free(cert);
}

TEST(TlsServerContext, LoadsMatchingFilesAndRefusesOthers) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    EVP_PKEY* otherKey = EVP_EC_gen("P-256");
    X509* cert = makeCertificate(key, "server");
    const auto certFile = writePem("cert.pem", cert);
    const auto keyFile = writePem("key.pem", nullptr, key);
    const auto otherKeyFile = writePem("other-key.pem", nullptr, otherKey);
    const struct {
        std::optional<std::filesystem::path> certificate, key;
        const char* error;  // nullptr: accepted
    } rows[] = {
        {certFile, keyFile, nullptr},
        {certFile, std::nullopt, "both or neither"},
        {certFile, otherKeyFile, "does not belong"},
        {"/nonexistent/cert.pem", keyFile, "cannot read the TLS certificate"},
    };
    for (const auto& row : rows) {
        auto made = TlsServerContext::create({row.certificate, row.key, std::nullopt});
        if (row.error == nullptr) {
            ASSERT_EQ(made.index(), 0u) << std::get<1>(made);
            BIO* bio = BIO_new(BIO_s_mem());
            PEM_write_bio_X509(bio, cert);
            char* pem = nullptr;
            const long length = BIO_get_mem_data(bio, &pem);
            EXPECT_EQ(std::get<0>(made)->certificatePem(), std::string(pem, length));
            BIO_free(bio);
        } else {
            ASSERT_EQ(made.index(), 1u);
            EXPECT_NE(std::get<1>(made).find(row.error), std::string::npos) << std::get<1>(made);
        }
    }
    X509_free(cert);
    EVP_PKEY_free(key);
    EVP_PKEY_free(otherKey);
}

TEST(ProviderServerTls, CurlGetsHttp2WithTheRequestAsSent) {
    Recorder handler;
    auto tls = tlsContext();
    auto server = startServer(handler, with([&](auto& o) { o.tls = tls; }));
    const auto url = "https://localhost:" + std::to_string(server->port()) + "/3/device/abcd";
    const auto result =
        curlPost(url, R"({"aps":{}})", {"apns-id: 1-2", "Apns-Topic: t"}, tls->certificatePem());
    ASSERT_EQ(result.code, CURLE_OK) << curl_easy_strerror(result.code);
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.version, CURL_HTTP_VERSION_2_0);
    EXPECT_EQ(result.apnsId, "1-2");
    ASSERT_EQ(handler.count(), 1u);
    const ProviderRequest& seen = handler.seen[0].request;
    EXPECT_EQ(seen.method, "POST");
    EXPECT_EQ(seen.path, "/3/device/abcd");
    EXPECT_EQ(seen.authority, "localhost:" + std::to_string(server->port()));
    EXPECT_EQ(seen.body, R"({"aps":{}})");
    const auto at = [&](const std::string& name) {
        return std::find_if(seen.headers.begin(), seen.headers.end(),
                            [&](auto& h) { return h.first == name; }) -
               seen.headers.begin();
    };
    EXPECT_LT(at("apns-id"), at("apns-topic"));
    EXPECT_LT(at("apns-topic"), std::ptrdiff_t(seen.headers.size()));
}

TEST(ProviderServerTls, AlpnWithoutH2IsRefusedAndNoAlpnIsServedHttp2) {
    Recorder handler;
    platform::LogCapture log;
    auto server = startServer(handler, with([](auto& o) {
                                  o.tls = tlsContext();
                                  o.maximumConcurrentStreams = 7;
                                  o.maximumHeaderListSize = 9000;
                              }));
    RawClient refused(server->port());
    EXPECT_EQ(refused.handshake("\x08http/1.1\x06spdy/3"),
              SSL_R_TLSV1_ALERT_NO_APPLICATION_PROTOCOL);
    bool logged = false;
    for (const auto& record : log.records()) {
        logged |= record.message.find(R"("http/1.1", "spdy/3")") != std::string::npos;
    }
    EXPECT_TRUE(logged);

    RawClient plain(server->port());
    ASSERT_EQ(plain.handshake({}), 0);
    plain.send(kPreface);
    const auto settings = plain.await(kSettings, 0);
    ASSERT_TRUE(settings);
    // Identifier 3 (MAX_CONCURRENT_STREAMS) = 7, identifier 6 (MAX_HEADER_LIST_SIZE) = 9000.
    EXPECT_NE(settings->payload.find(std::string("\0\3\0\0\0\7", 6)), std::string::npos);
    EXPECT_NE(settings->payload.find(std::string("\0\6\0\0\x23\x28", 6)), std::string::npos);
}

TEST(ProviderServerTls, ClientCertificateUidIsTheTopicAndNoCertificateIsRefused) {
    EVP_PKEY* caKey = EVP_EC_gen("P-256");
    EVP_PKEY* clientKey = EVP_EC_gen("P-256");
    X509* ca = makeCertificate(caKey, "test CA");
    X509* client = makeCertificate(clientKey, "push", "com.example.app", ca, caKey);
    Recorder handler;
    auto server = startServer(handler, with([&](auto& o) {
                                  TlsOptions tls;
                                  tls.clientCa = writePem("ca.pem", ca);
                                  o.tls = tlsContext(tls);
                              }));
    RawClient withCertificate(server->port());
    ASSERT_EQ(withCertificate.handshake({}, client, clientKey), 0);
    withCertificate.send(kPreface + request(1));
    ASSERT_TRUE(handler.waitForCount(1));
    EXPECT_EQ(handler.seen[0].topic, "com.example.app");
    EXPECT_EQ(handler.seen[0].tokens, nullptr);

    RawClient without(server->port());
    without.handshake({});  // TLS 1.3: the refusal comes after the client's side is done
    EXPECT_FALSE(without.await(kSettings));
    EXPECT_EQ(handler.count(), 1u);
    for (X509* c : {ca, client})
        X509_free(c);
    for (EVP_PKEY* k : {caKey, clientKey})
        EVP_PKEY_free(k);
}

TEST(ProviderServerCleartext, BodyAndHeaderLimits) {
    const struct {
        std::size_t bodySize, headerSize;
        long status;
        bool handed;
    } rows[] = {
        {kVoipPayloadLimit, 10, 200, true},
        {kVoipPayloadLimit + 1, 10, 413, false},
        {1 << 20, 10, 413, false},
        {10, 20000, 431, false},
    };
    for (const auto& row : rows) {
        Recorder handler;
        auto server = startServer(handler);
        const auto result = curlPost(cleartextUrl(*server), std::string(row.bodySize, 'x'),
                                     {"x-big: " + std::string(row.headerSize, 'h')});
        EXPECT_EQ(result.status, row.status)
            << row.bodySize << " " << row.headerSize << " " << curl_easy_strerror(result.code);
        EXPECT_EQ(handler.count(), row.handed ? 1u : 0u);
        if (row.status == 413) {
            EXPECT_EQ(result.body, R"({"reason":"PayloadTooLarge"})");
        } else if (row.handed) {
            EXPECT_EQ(handler.seen[0].request.body.size(), row.bodySize);
        }
    }
}

TEST(ProviderServerCleartext, EveryRequestIsAnsweredOnceWhateverTheHandlerDoes) {
    using Mode = Recorder::Mode;
    const struct {
        Mode mode;
        long status;
        const char* body;
    } rows[] = {
        {Mode::drop, 500, R"({"reason":"InternalServerError"})"},
        {Mode::throwing, 500, R"({"reason":"InternalServerError"})"},
        {Mode::laterFromThread, 410, R"({"reason":"Unregistered"})"},
        {Mode::twice, 201, ""},
    };
    for (const auto& row : rows) {
        Recorder handler(row.mode);
        auto server = startServer(handler);
        const auto result = curlPost(cleartextUrl(*server), "{}");
        EXPECT_EQ(result.status, row.status);
        EXPECT_EQ(result.body, row.body);
    }
}

TEST(ProviderServerCleartext, NonHttp2ConnectionsCloseWhileOthersGoOn) {
    for (const std::string bytes : {"\x16\x03\x01garbage, not a preface at all",
                                    "POST /3/device/abcd HTTP/1.1\r\nHost: x\r\n\r\n"}) {
        Recorder handler;
        auto server = startServer(handler, with([](auto& o) { o.maximumConnections = 2; }));
        RawClient bad(server->port());
        bad.send(bytes);
        EXPECT_EQ(curlPost(cleartextUrl(*server), "{}").status, 200);
        EXPECT_TRUE(bad.closedWithin(3s));
        EXPECT_EQ(handler.count(), 1u);
    }
}

TEST(ProviderServerCleartext, ConnectionsBeyondTheLimitAndIdleOnesAreClosed) {
    Recorder handler;
    auto server = startServer(handler, with([](auto& o) {
                                  o.maximumConnections = 1;
                                  o.idleTimeout = 1s;
                              }));
    RawClient first(server->port());
    first.send(kPreface);
    ASSERT_TRUE(first.await(kSettings, 0));
    RawClient second(server->port());
    EXPECT_TRUE(second.closedWithin(1s));
    first.send(kPingFrame);
    EXPECT_TRUE(first.await(kPing, 1));
    const auto quiet = std::chrono::steady_clock::now();
    EXPECT_TRUE(first.await(kGoaway, -1, 3s));
    EXPECT_GE(std::chrono::steady_clock::now() - quiet, 900ms);
    EXPECT_TRUE(first.closedWithin(3s));
}

TEST(ProviderServerCleartext, TokenSessionsBelongToConnections) {
    Recorder handler;
    auto server =
        startServer(handler, with([](auto& o) {
                        o.tokens = std::make_shared<ProviderTokenVerifier>(std::nullopt, "K", "T");
                    }));
    RawClient a(server->port()), b(server->port());
    a.send(kPreface + request(1) + request(3));
    ASSERT_TRUE(handler.waitForCount(2));
    b.send(kPreface + request(1));
    ASSERT_TRUE(handler.waitForCount(3));
    EXPECT_NE(handler.seen[0].tokens, nullptr);
    EXPECT_EQ(handler.seen[0].tokens, handler.seen[1].tokens);
    EXPECT_NE(handler.seen[0].tokens, handler.seen[2].tokens);
}

TEST(ProviderServerCleartext, PendingRequestsAtTheLimitStopReadingEverywhere) {
    Recorder handler(Recorder::Mode::hold);
    auto server = startServer(handler, with([](auto& o) { o.maximumPendingRequests = 2; }));
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
    Recorder handler(Recorder::Mode::hold);
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

TEST(ProviderServer, StartExplainsWhyItCannotListen) {
    Recorder handler;
    auto taken = startServer(handler);
    const struct {
        std::string host;
        std::uint16_t port;
        const char* error;
    } rows[] = {
        {"no-such-host.invalid", 0, "host is unknown"},
        {"127.0.0.1", taken->port(), "in use"},
    };
    for (const auto& row : rows) {
        auto started = ProviderServer::start(with([&](auto& o) {
                                                 o.host = row.host;
                                                 o.port = row.port;
                                             }),
                                             handler);
        ASSERT_EQ(started.index(), 1u);
        EXPECT_NE(std::get<1>(started).find(row.error), std::string::npos) << std::get<1>(started);
    }
}

}  // namespace
}  // namespace nimborra::provider
