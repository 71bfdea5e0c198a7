// One provider-API request from any bytes, checked twice on one connection (the second time 21
// minutes later, so that token updates are allowed again). The input is text: a first line
// "METHOD PATH", header lines "name: value" up to an empty line, then the body. A header
// "x-certificate: TOPIC" makes the connection a certificate one with that topic; otherwise it
// uses tokens, checked without a key so that any well-formed ES256 token passes and the checks
// after authentication are reached. Every answer must be one APNs gives, with a JSON body, and
// an accepted request must hold only what the checks allow.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Uuid.h"
#include "NimbOrraProviderApi/ProviderRequest.h"
#include "NimbOrraProviderApi/ProviderToken.h"

namespace {

using namespace nimborra;
using namespace nimborra::provider;

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
    const auto body = platform::JSONSerialization::jsonObject(refusalBody(refusal));
    require(body && body->dictionary() && body->find("reason") &&
            *body->find("reason")->text() == refusal.reason);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    ProviderRequest request;
    const auto requestLine = nextLine(text);
    const auto space = requestLine.find(' ');
    request.method = requestLine.substr(0, space);
    if (space != std::string_view::npos) {
        request.path = requestLine.substr(space + 1);
    }
    ConnectionAuthentication authentication;
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
        } else {
            request.headers.emplace_back(name, value);
        }
    }
    request.bodyTooLarge = text.size() > kVoipPayloadLimit;
    request.body = text.substr(0, kVoipPayloadLimit);

    ProviderTokenSession session(
        std::make_shared<ProviderTokenVerifier>(std::nullopt, "KEY1234567", "TEAM123456"));
    if (!authentication.certificateTopic) {
        authentication.tokens = &session;
    }
    const ProviderDestination destination{
        "com.example.app", std::string(64, 'a'),
        request.path.ends_with("0") ? std::optional<std::int64_t>(1650000000000) : std::nullopt};
    constexpr std::int64_t now = 1'700'000'000;
    checkVerdict(checkProviderRequest(request, destination, authentication, now));
    checkVerdict(checkProviderRequest(request, destination, authentication, now + 21 * 60));
    return 0;
}
