// One provider-API request from any bytes, judged twice: by the rules alone, and through the
// transport.
//
// The input is text: a first line "METHOD PATH", header lines "name: value" up to an empty line,
// then the body. Two lines are directions, not headers: "x-certificate: TOPIC" makes the rules'
// connection a certificate one with that topic (otherwise it uses tokens, checked without a key,
// so that any well-formed ES256 token passes and the rows after authentication are reached), and
// "x-body-times: N" repeats the body N times (up to 64), so that bodies past the limit come up.
//
// The rules: the request is checked twice on one connection (the second time 21 minutes later,
// so that token updates are allowed again). Every answer must be one APNs gives, with a JSON
// body, and an accepted request must hold only what the checks allow.
//
// The transport: the request is sent as HTTP/2 by nghttp2's client to a provider-API server on
// loopback (a small header list limit, so that inputs cross it), whose handler answers by the
// same rules. The server must hand over exactly what was sent, the body cut at the limit and
// marked when longer; or reset the stream at once when the header list passes its limit, and
// tell the handler; or reset it when nghttp2 finds the request malformed. The answer must carry
// the rules' status and echo their apns-id as sent. Anything else (no answer, a refused stream,
// a closed connection) is a fault.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <nghttp2/nghttp2.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Text.h"
#include "NimbOrraPlatform/Uuid.h"
#include "NimbOrraProviderApi/ProviderRequest.h"
#include "NimbOrraProviderApi/ProviderServer.h"
#include "NimbOrraProviderApi/ProviderToken.h"

namespace {

using namespace nimborra;
using namespace nimborra::provider;

constexpr std::int64_t kNow = 1'700'000'000;
constexpr std::uint32_t kHeaderListLimit = 2048;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

std::string_view nextLine(std::string_view& text) {
    const auto end = text.find('\n');
    const auto line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

ProviderDestination destinationFor(const ProviderRequest& request) {
    return {"com.example.app", std::string(64, 'a'),
            request.path.ends_with("0") ? std::optional<std::int64_t>(1650000000000) : std::nullopt,
            ApnsEnvironment::development};
}

void checkVerdict(const ProviderVerdict& verdict) {
    static const std::set<std::string_view> reasons = {"MethodNotAllowed",
                                                       "BadPath",
                                                       "DuplicateHeaders",
                                                       "BadMessageId",
                                                       "MissingProviderToken",
                                                       "InvalidProviderToken",
                                                       "ExpiredProviderToken",
                                                       "TooManyProviderTokenUpdates",
                                                       "MissingDeviceToken",
                                                       "BadDeviceToken",
                                                       "MissingTopic",
                                                       "BadTopic",
                                                       "InvalidPushType",
                                                       "TopicDisallowed",
                                                       "BadPriority",
                                                       "BadExpirationDate",
                                                       "BadCollapseId",
                                                       "PayloadTooLarge",
                                                       "PayloadEmpty",
                                                       "BadPayload",
                                                       "DeviceTokenNotForTopic",
                                                       "Unregistered"};
    if (const auto* accepted = std::get_if<PushNotificationRequest>(&verdict)) {
        require(platform::isUuidText(accepted->apnsId));
        require(accepted->priority == 10 || accepted->priority == 5 || accepted->priority == 1);
        require(accepted->expiration >= 0);
        require(!accepted->collapseId || accepted->collapseId->size() <= kCollapseIdLimit);
        require(accepted->topic.ends_with(topicSuffix(accepted->pushType)));
        require(accepted->deviceToken.size() >= 64 && accepted->deviceToken.size() <= 200);
        return;
    }
    const auto& refusal = std::get<ProviderRefusal>(verdict);
    require(platform::isUuidText(refusal.apnsId));
    require(reasons.count(refusal.reason) == 1);
    static const std::set<int> statuses = {400, 403, 404, 405, 410, 413, 429};
    require(statuses.count(refusal.status) == 1);
    require(refusal.timestamp.has_value() == (refusal.reason == "Unregistered"));
    require(!refusal.detail.empty() && platform::isValidUTF8(refusal.detail));
    const auto body = platform::JSONSerialization::jsonObject(refusalBody(refusal));
    require(body && body->dictionary() && body->find("reason") &&
            *body->find("reason")->text() == refusal.reason);
}

// What the transport should hand over for the request being sent, and what the handler did.
struct Exchange {
    std::mutex mutex;
    ProviderRequest sent;
    std::size_t handled = 0;
    std::size_t refused = 0;
    int status = 0;
    std::string apnsId;
};

Exchange& exchange() {
    static Exchange* instance = new Exchange;
    return *instance;
}

// Answers by the rules, after checking that the transport handed over what was sent.
class RulesHandler final : public ProviderRequestHandler {
  public:
    void handle(ProviderRequest request, const ConnectionAuthentication& authentication,
                ProviderResponder respond) override {
        Exchange& e = exchange();
        const std::lock_guard lock(e.mutex);
        const ProviderRequest& sent = e.sent;
        require(request.method == sent.method && request.path == sent.path);
        require(request.headers == sent.headers);
        require(request.bodyTooLarge == (sent.body.size() > kVoipPayloadLimit));
        require(request.body == sent.body.substr(0, request.body.size()));
        require(request.bodyTooLarge || request.body.size() == sent.body.size());
        require(request.body.size() <= kVoipPayloadLimit);
        const auto verdict =
            checkProviderRequest(request, destinationFor(request), authentication, kNow);
        if (const auto* refusal = std::get_if<ProviderRefusal>(&verdict)) {
            e.status = refusal->status;
            e.apnsId = refusal->apnsId;
        } else {
            e.status = 200;
            e.apnsId = std::get<PushNotificationRequest>(verdict).apnsId;
        }
        ++e.handled;
        respond({e.status, e.apnsId, {}});
    }
    void refused(const TransportRefusal& refusal) override {
        require(refusal.errorCode == NGHTTP2_ENHANCE_YOUR_CALM && !refusal.detail.empty());
        Exchange& e = exchange();
        const std::lock_guard lock(e.mutex);
        ++e.refused;
    }
};

std::uint16_t serverPort() {
    static const std::uint16_t port = [] {
        static RulesHandler handler;
        ProviderServerOptions options;
        options.maximumHeaderListSize = kHeaderListLimit;
        options.tokens =
            std::make_shared<ProviderTokenVerifier>(std::nullopt, "KEY1234567", "TEAM123456");
        auto started = ProviderServer::start(std::move(options), handler);
        require(started.index() == 0);
        // Serves until the process ends.
        static ProviderServer* server = std::get<0>(started).release();
        return server->port();
    }();
    return port;
}

// The client's side of one exchange: what came back on stream 1.
struct Reply {
    int fd = -1;
    std::string body;
    std::size_t sent = 0;
    int status = 0;
    std::string apnsId;
    std::optional<std::uint32_t> resetCode;
    bool closed = false;
};

ssize_t readBody(nghttp2_session*, std::int32_t, std::uint8_t* buffer, std::size_t length,
                 std::uint32_t* flags, nghttp2_data_source*, void* data) {
    auto* reply = static_cast<Reply*>(data);
    const std::size_t count = std::min(length, reply->body.size() - reply->sent);
    std::copy_n(reply->body.data() + reply->sent, count, buffer);
    reply->sent += count;
    if (reply->sent == reply->body.size()) {
        *flags |= NGHTTP2_DATA_FLAG_EOF;
    }
    return static_cast<ssize_t>(count);
}

// Sends `request` on a new connection and returns what came back.
Reply sendThroughTransport(const ProviderRequest& request) {
    Reply reply;
    reply.body = request.body;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(serverPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0);

    nghttp2_session_callbacks* callbacks = nullptr;
    nghttp2_session_callbacks_new(&callbacks);
    nghttp2_session_callbacks_set_on_header_callback(
        callbacks, [](nghttp2_session*, const nghttp2_frame* frame, const std::uint8_t* name,
                      std::size_t nameLength, const std::uint8_t* value, std::size_t valueLength,
                      std::uint8_t, void* data) {
            auto* r = static_cast<Reply*>(data);
            const std::string_view n(reinterpret_cast<const char*>(name), nameLength);
            const std::string_view v(reinterpret_cast<const char*>(value), valueLength);
            if (frame->hd.stream_id == 1 && n == ":status") {
                r->status = std::atoi(std::string(v).c_str());
            } else if (frame->hd.stream_id == 1 && n == "apns-id") {
                r->apnsId = v;
            }
            return 0;
        });
    nghttp2_session_callbacks_set_on_stream_close_callback(
        callbacks, [](nghttp2_session*, std::int32_t id, std::uint32_t error, void* data) {
            auto* r = static_cast<Reply*>(data);
            if (id == 1) {
                r->closed = true;
                if (error != NGHTTP2_NO_ERROR) {
                    r->resetCode = error;
                }
            }
            return 0;
        });
    nghttp2_session* session = nullptr;
    nghttp2_session_client_new(&session, callbacks, &reply);
    nghttp2_session_callbacks_del(callbacks);
    nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, nullptr, 0);

    std::vector<nghttp2_nv> fields;
    const auto add = [&](std::string_view name, std::string_view value) {
        fields.push_back({reinterpret_cast<std::uint8_t*>(const_cast<char*>(name.data())),
                          reinterpret_cast<std::uint8_t*>(const_cast<char*>(value.data())),
                          name.size(), value.size(), NGHTTP2_NV_FLAG_NONE});
    };
    add(":method", request.method);
    add(":scheme", "https");
    add(":path", request.path);
    add(":authority", request.authority);
    for (const auto& [name, value] : request.headers) {
        add(name, value);
    }
    nghttp2_data_provider body{};
    body.read_callback = readBody;
    require(nghttp2_submit_request(session, nullptr, fields.data(), fields.size(),
                                   request.body.empty() ? nullptr : &body, nullptr) == 1);

    // Both directions at once until stream 1 is closed: a server that neither answers nor
    // resets within two seconds has lost the request.
    std::string pending;
    while (!reply.closed) {
        const std::uint8_t* data = nullptr;
        for (ssize_t n;
             pending.size() < 65536 && (n = nghttp2_session_mem_send(session, &data)) > 0;) {
            pending.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(n));
        }
        pollfd p{fd, static_cast<short>(POLLIN | (pending.empty() ? 0 : POLLOUT)), 0};
        require(poll(&p, 1, 2000) > 0);
        if ((p.revents & POLLOUT) != 0) {
            const ssize_t n = send(fd, pending.data(), pending.size(), MSG_NOSIGNAL);
            require(n > 0);
            pending.erase(0, static_cast<std::size_t>(n));
        }
        if ((p.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            char chunk[16384];
            const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            require(n > 0);  // the server never closes a connection over one request
            require(nghttp2_session_mem_recv(session, reinterpret_cast<std::uint8_t*>(chunk),
                                             static_cast<std::size_t>(n)) == n);
        }
    }
    nghttp2_session_del(session);
    close(fd);
    return reply;
}

// The header fields as the server's nghttp2 passes them on: nghttp2's client sends names in
// lower case, and the server drops those that are not HTTP tokens (rather than refusing the
// request), so the transport never sees them.
ProviderRequest asPassedOn(ProviderRequest request) {
    for (auto& header : request.headers) {
        header.first = platform::asciiLowercased(header.first);
    }
    std::erase_if(request.headers, [](const auto& header) {
        const auto& name = header.first;
        return (name.empty() || name[0] != ':') &&
               nghttp2_check_header_name(reinterpret_cast<const std::uint8_t*>(name.data()),
                                         name.size()) == 0;
    });
    return request;
}

// The header list as SETTINGS_MAX_HEADER_LIST_SIZE counts it.
std::size_t headerListSize(const ProviderRequest& request) {
    std::size_t size = 7 + request.method.size() + 32 + 7 + 5 + 32 + 5 + request.path.size() + 32 +
                       10 + request.authority.size() + 32;
    for (const auto& [name, value] : request.headers) {
        size += name.size() + value.size() + 32;
    }
    return size;
}

void checkTransport(const ProviderRequest& request) {
    Exchange& e = exchange();
    const ProviderRequest passedOn = asPassedOn(request);
    {
        const std::lock_guard lock(e.mutex);
        e.sent = passedOn;
        e.handled = e.refused = 0;
    }
    const Reply reply = sendThroughTransport(request);
    const std::lock_guard lock(e.mutex);
    if (e.handled == 1) {
        require(headerListSize(passedOn) <= kHeaderListLimit);
        require(reply.status == e.status && reply.apnsId == e.apnsId);
        // A body past the limit is handed over before it ends; a content-length it then
        // contradicts is nghttp2's to reset.
        const bool declared =
            std::any_of(request.headers.begin(), request.headers.end(),
                        [](const auto& h) { return h.first == "content-length"; });
        require(!reply.resetCode || (declared && reply.resetCode == NGHTTP2_PROTOCOL_ERROR));
    } else if (e.refused == 1) {
        require(headerListSize(passedOn) > kHeaderListLimit);
        require(reply.resetCode == NGHTTP2_ENHANCE_YOUR_CALM);
    } else {
        // Malformed HTTP (a name in upper case, a forbidden character): nghttp2's own checks.
        require(e.handled == 0 && e.refused == 0 && reply.resetCode == NGHTTP2_PROTOCOL_ERROR);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    ProviderRequest request;
    request.authority = "localhost";
    const auto requestLine = nextLine(text);
    const auto space = requestLine.find(' ');
    request.method = requestLine.substr(0, space);
    if (space != std::string_view::npos) {
        request.path = requestLine.substr(space + 1);
    }
    ConnectionAuthentication authentication;
    std::size_t bodyTimes = 1;
    while (!text.empty()) {
        const auto line = nextLine(text);
        if (line.empty()) {
            break;
        }
        const auto colon = line.find(": ");
        const auto name = line.substr(0, colon);
        const auto value = colon == std::string_view::npos ? "" : line.substr(colon + 2);
        if (name == "x-certificate") {
            authentication.certificateTopic = std::string(value);
        } else if (name == "x-body-times") {
            bodyTimes = std::clamp<std::size_t>(
                std::strtoul(std::string(value).c_str(), nullptr, 10), 1, 64);
        } else {
            request.headers.emplace_back(name, value);
        }
    }
    std::string body;
    for (std::size_t i = 0; i < bodyTimes; ++i) {
        body += text;
    }

    // The rules alone.
    ProviderRequest judged = request;
    judged.bodyTooLarge = body.size() > kVoipPayloadLimit;
    judged.body = body.substr(0, kVoipPayloadLimit);
    ProviderTokenSession session(
        std::make_shared<ProviderTokenVerifier>(std::nullopt, "KEY1234567", "TEAM123456"));
    if (!authentication.certificateTopic) {
        authentication.tokens = &session;
    }
    const ProviderDestination destination = destinationFor(judged);
    checkVerdict(checkProviderRequest(judged, destination, authentication, kNow));
    checkVerdict(checkProviderRequest(judged, destination, authentication, kNow + 21 * 60));

    // Through the transport. Pseudo-header fields nghttp2's client would send twice, and empty
    // methods or paths, are the transport's to refuse and nghttp2's to check: sent as they are.
    request.body = std::move(body);
    checkTransport(request);
    return 0;
}
