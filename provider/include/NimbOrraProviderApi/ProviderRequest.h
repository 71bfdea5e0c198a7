// One request to the provider API and the rules APNs checks it by: the method, the path and
// device token, the authentication, the apns-* headers, the payload and the environment, each
// refused with APNs's status and reason and an explanation for people, in one fixed order (the
// table in ProviderRequest.cpp, and in the README). Every APNs rule lives in that table; the
// transport only frames requests within its limits.
//
// Threads: checkProviderRequest() is pure apart from the connection's token session it is given;
// it may run on any thread, one call per connection at a time. It never throws except
// std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "NimbOrraPlatform/Value.h"
#include "NimbOrraProviderApi/ProviderToken.h"

namespace nimborra::provider {

// The largest payload for every push type but VoIP, and for VoIP, in bytes.
inline constexpr std::size_t kPayloadLimit = 4096;
inline constexpr std::size_t kVoipPayloadLimit = 5120;
// The largest apns-collapse-id, in bytes.
inline constexpr std::size_t kCollapseIdLimit = 64;

// A request as it arrived: pseudo-headers apart, other headers in arrival order with lower-case
// names, and at most the largest payload of its body.
struct ProviderRequest {
    std::string method;
    std::string path;
    // ":authority", or the "host" header in its place.
    std::string authority;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // The body was longer than kVoipPayloadLimit; `body` holds only its first bytes. The
    // transport hands such a request over as soon as it knows, before the body ends.
    bool bodyTooLarge = false;
};

// APNs's two environments. A device token belongs to one: the one of the application's
// "aps-environment" entitlement.
enum class ApnsEnvironment { development, production };

// "development" or "production".
std::string_view apnsEnvironmentName(ApnsEnvironment environment);
std::optional<ApnsEnvironment> apnsEnvironmentNamed(std::string_view name);

// The environment a request's authority names: api.push.apple.com is production,
// api.sandbox.push.apple.com and api.development.push.apple.com are development (any case, any
// port, a final dot allowed); nothing for any other authority (localhost, an address).
std::optional<ApnsEnvironment> apnsEnvironmentOfAuthority(std::string_view authority);

// The push types APNs documents, by their apns-push-type value.
enum class PushType {
    alert,
    background,
    location,
    voip,
    complication,
    fileprovider,
    mdm,
    liveactivity,
    pushtotalk,
    widgets,
    controls,
};

std::string_view pushTypeName(PushType type);
std::optional<PushType> pushTypeNamed(std::string_view name);
// The suffix the topic carries for `type` (".voip", ".push-type.liveactivity", ...); empty when
// the topic is the bundle identifier itself.
std::string_view topicSuffix(PushType type);

// How a connection authenticated itself.
struct ConnectionAuthentication {
    // Token-based: the connection's token session. Null for a certificate connection.
    ProviderTokenSession* tokens = nullptr;
    // Certificate-based: the topic of the client certificate (its subject's UID).
    std::optional<std::string> certificateTopic;
};

// What the rules know about the application and its one device.
struct ProviderDestination {
    std::string bundleIdentifier;
    // Lower-case hex.
    std::string deviceToken;
    // When the device's token was unregistered (milliseconds since 1970); nothing while it is
    // registered.
    std::optional<std::int64_t> unregisteredAt;
    // The environment the device's token belongs to; nothing when the application has no
    // "aps-environment" (then every authority reaches it).
    std::optional<ApnsEnvironment> environment;
};

// An accepted request.
struct PushNotificationRequest {
    // The request's apns-id as sent (a UUID in either case), or a new lower-case one.
    std::string apnsId;
    std::string topic;
    PushType pushType = PushType::alert;
    // 10, 5 or 1; absent means 10.
    int priority = 10;
    // Seconds since 1970; 0 means once only, now or never. Absent means 0.
    std::int64_t expiration = 0;
    std::optional<std::string> collapseId;
    std::string deviceToken;
    // The payload as it came: JSON text checked to hold an object, which
    // platform::JSONSerialization::jsonObject reads into its Dictionary. The server's thread
    // only checks it; whoever hands the notification on builds the tree, on its own thread.
    std::string payload;
};

// A refused request: APNs's status and reason (the {"reason": ...} body).
struct ProviderRefusal {
    // The request's apns-id when it had a valid one, else one made for the answer.
    std::string apnsId;
    int status = 400;
    std::string_view reason;
    // For 410 Unregistered: the "timestamp" member, milliseconds since 1970.
    std::optional<std::int64_t> timestamp;
    // The request's topic and push type as far as they could be read, for the output line.
    std::string topic;
    std::optional<PushType> pushType;
    std::optional<int> priority;
    // Why, in words, for people: what was expected and what came, client text quoted.
    std::string detail;
};

using ProviderVerdict = std::variant<PushNotificationRequest, ProviderRefusal>;

// Checks one request at `nowSeconds`. `makeApnsId` supplies a new canonical UUID when the request
// has none (platform::makeUuid when null).
ProviderVerdict checkProviderRequest(const ProviderRequest& request,
                                     const ProviderDestination& destination,
                                     const ConnectionAuthentication& authentication,
                                     std::int64_t nowSeconds,
                                     std::string (*makeApnsId)() = nullptr);
// The same for a request its caller is done with: an accepted request's payload is taken over
// from `request.body` (left empty) rather than copied. A refused request is left as it came.
ProviderVerdict checkProviderRequest(ProviderRequest&& request,
                                     const ProviderDestination& destination,
                                     const ConnectionAuthentication& authentication,
                                     std::int64_t nowSeconds,
                                     std::string (*makeApnsId)() = nullptr);

// The body of a refusal: {"reason":"..."} or {"reason":"...","timestamp":N}.
std::string refusalBody(const ProviderRefusal& refusal);

}  // namespace nimborra::provider
