// The rules one provider-API request is checked by, in the order APNs's answers are chosen. The
// first row a request fails gives the answer; a request that passes every row is accepted.
//
//  #  Status  Reason                        Refused when
//  1  405     MethodNotAllowed              :method is not POST
//  2  404     BadPath                       :path is not /3/device/<device token>
//  3  400     DuplicateHeaders              any header name occurs more than once
//  4  400     BadMessageId                  apns-id is present but not a canonical UUID
//  5  403     MissingProviderToken          no client certificate, and no "bearer <token>"
//     403     InvalidProviderToken          a new token is malformed, not ES256, of another key
//                                           or team, badly signed, or issued in the future
//     403     ExpiredProviderToken          the token was issued more than 3600 s ago
//     429     TooManyProviderTokenUpdates   a new token less than 20 minutes after the last
//  6  400     MissingDeviceToken            the path ends at /3/device/
//  7  400     BadDeviceToken                the device token is not 64 to 200 hex digits, even
//  8  400     MissingTopic                  token authentication and no apns-topic
//  9  400     BadTopic                      apns-topic is empty or not a bundle-identifier text
// 10  400     InvalidPushType               apns-push-type is not a documented push type
// 11  400     TopicDisallowed               certificate authentication, and the topic is not
//                                           the certificate's topic or one of its suffixed
//                                           topics (location and liveactivity take tokens only)
// 12  400     BadPriority                   apns-priority is not 10, 5 or 1; or 10 for background
// 13  400     BadExpirationDate             apns-expiration is not a non-negative integer
// 14  400     BadCollapseId                 apns-collapse-id is longer than 64 bytes
// 15  413     PayloadTooLarge               the body is over 4096 bytes (5120 for voip)
// 16  400     PayloadEmpty                  the body is empty
// 17  400     BadPayload                    the body is not a JSON object
// 18  400     BadDeviceToken                the device token is not the device's
// 19  400     BadDeviceToken                the authority is the other environment's host
// 20  400     TopicDisallowed               the topic is the app's topic for another push type
// 21  400     DeviceTokenNotForTopic        the topic is not the app's at all
// 22  410     Unregistered                  the device token is no longer registered
//
// Rows 1-17 judge the request alone, from its framing to its headers to its body; rows 18-22
// compare it with what is known about the device. Without apns-push-type, the push type is
// voip, complication or fileprovider when the topic carries that type's suffix, background when
// the payload's "aps" holds content-available 1 and no alert, badge or sound, else alert. Without
// apns-priority, the priority is 5 for background and 10 for the rest. Row 19: the authority
// api.push.apple.com is production, api.sandbox.push.apple.com and
// api.development.push.apple.com are development, and any other authority (localhost, an
// address) reaches the device whatever its environment.
//
// Every refusal carries an explanation for people: what the rule expects and what came, with
// the client's text quoted (valid UTF-8, cut short).
#include "NimbOrraProviderApi/ProviderRequest.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Text.h"
#include "NimbOrraPlatform/Uuid.h"
#include "Quote.h"

namespace nimborra::provider {
namespace {

using detail::quotedText;

struct PushTypeInfo {
    PushType type;
    std::string_view name;
    std::string_view suffix;
    // May a client certificate's topic cover this type (APNs takes tokens only for some)?
    bool certificateAllowed;
    // Is the type inferred from its topic suffix when apns-push-type is absent (the PushKit
    // types that predate the header)?
    bool inferredFromTopic;
};

constexpr std::array<PushTypeInfo, 11> kPushTypes = {{
    {PushType::alert, "alert", "", true, false},
    {PushType::background, "background", "", true, false},
    {PushType::location, "location", ".location-query", false, false},
    {PushType::voip, "voip", ".voip", true, true},
    {PushType::complication, "complication", ".complication", true, true},
    {PushType::fileprovider, "fileprovider", ".pushkit.fileprovider", true, true},
    {PushType::mdm, "mdm", "", true, false},
    {PushType::liveactivity, "liveactivity", ".push-type.liveactivity", false, false},
    {PushType::pushtotalk, "pushtotalk", ".voip-ptt", true, false},
    {PushType::widgets, "widgets", ".push-type.widgets", true, false},
    {PushType::controls, "controls", ".push-type.controls", true, false},
}};

const PushTypeInfo& info(PushType type) {
    return kPushTypes[static_cast<std::size_t>(type)];
}

constexpr std::string_view kDevicePath = "/3/device/";

struct EnvironmentHost {
    std::string_view host;
    ApnsEnvironment environment;
};

constexpr std::array<EnvironmentHost, 3> kEnvironmentHosts = {{
    {"api.push.apple.com", ApnsEnvironment::production},
    {"api.sandbox.push.apple.com", ApnsEnvironment::development},
    {"api.development.push.apple.com", ApnsEnvironment::development},
}};

// A non-negative decimal integer that fits in 64 bits, digits only.
std::optional<std::int64_t> decimal(std::string_view text) {
    std::int64_t value = 0;
    if (text.empty() ||
        !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<int> priorityNamed(std::string_view text) {
    if (text == "10") {
        return 10;
    }
    if (text == "5") {
        return 5;
    }
    if (text == "1") {
        return 1;
    }
    return std::nullopt;
}

std::string pushTypeNames() {
    std::string names;
    for (const auto& type : kPushTypes) {
        names += (names.empty() ? "" : ", ") + std::string(type.name);
    }
    return names;
}

// What the checks need of the payload, read once (push-type inference, the payload rows).
struct BodyReading {
    bool json = false;
    bool object = false;
    // "aps" holds content-available 1 and no alert, badge or sound.
    bool contentAvailableOnly = false;
    // Why the payload is not JSON.
    std::string error;
};

// What the checks read from the request and settle as they pass, in table order.
struct Context {
    Context(const ProviderRequest& request, const ProviderDestination& destination,
            const ConnectionAuthentication& authentication, std::int64_t now)
        : request(request), destination(destination), authentication(authentication), now(now) {}

    const ProviderRequest& request;
    const ProviderDestination& destination;
    const ConnectionAuthentication& authentication;
    std::int64_t now;

    std::string_view deviceToken;
    // The notification as the rows read it: topic, push type, priority, expiration and collapse
    // id; its apns-id, device token and payload are set once every row has passed.
    PushNotificationRequest accepted;
    // Set by a check whose status and reason vary (the authentication row).
    std::optional<TokenRefusal> refusal;
    std::string detail;

    // The first value of header `name` (rows after DuplicateHeaders see only one).
    std::optional<std::string_view> header(std::string_view name) const {
        for (const auto& [key, value] : request.headers) {
            if (key == name) {
                return std::string_view(value);
            }
        }
        return std::nullopt;
    }

    // The payload read once, through views of the parsed text: the Value tree the device takes
    // is built from the text on the push service's queue, off the server's thread.
    const BodyReading& readBody() {
        if (!reading) {
            BodyReading& r = reading.emplace();
            if (!request.body.empty() && !request.bodyTooLarge) {
                r.json = platform::visitJSON(
                    request.body, false, &r.error, [&r](const platform::JSONElement& root) {
                        r.object = root.kind() == platform::Value::Kind::dictionary;
                        const auto aps = root.member("aps");
                        const auto available =
                            aps ? aps->member("content-available") : std::nullopt;
                        r.contentAvailableOnly =
                            available && available->toValue() == platform::Value(1) &&
                            !aps->member("alert") && !aps->member("badge") && !aps->member("sound");
                    });
            }
        }
        return *reading;
    }
    std::optional<BodyReading> reading;

    bool fail(std::string text) {
        detail = std::move(text);
        return false;
    }
};

bool hasMethodPost(Context& c) {
    return c.request.method == "POST" || c.fail("the method is " + quotedText(c.request.method) +
                                                "; the provider API takes POST");
}

bool hasDevicePath(Context& c) {
    if (!c.request.path.starts_with(kDevicePath)) {
        return c.fail("the path " + quotedText(c.request.path) +
                      " is not /3/device/<device token>");
    }
    c.deviceToken = std::string_view(c.request.path).substr(kDevicePath.size());
    return true;
}

bool hasNoRepeatedHeader(Context& c) {
    // The names sorted, so that a repeated one sits next to itself; a push's few headers are
    // sorted on the stack.
    constexpr std::size_t kOnStack = 16;
    std::array<std::string_view, kOnStack> few;
    std::vector<std::string_view> many;
    const std::size_t count = c.request.headers.size();
    if (count > kOnStack) {
        many.resize(count);
    }
    std::string_view* const names = count > kOnStack ? many.data() : few.data();
    for (std::size_t i = 0; i < count; ++i) {
        names[i] = c.request.headers[i].first;
    }
    std::sort(names, names + count);
    const auto* repeated = std::adjacent_find(names, names + count);
    return repeated == names + count ||
           c.fail("the header " + quotedText(*repeated) + " occurs more than once");
}

bool hasValidMessageId(Context& c) {
    const auto id = c.header("apns-id");
    return !id || platform::isUuidText(*id) ||
           c.fail("apns-id " + quotedText(*id) +
                  " is not a UUID (8-4-4-4-12 hexadecimal digits, as 123e4567-e89b-12d3-a456-"
                  "426614174000)");
}

bool isAuthenticated(Context& c) {
    if (c.authentication.tokens != nullptr) {
        c.refusal = c.authentication.tokens->authorize(c.header("authorization"), c.now);
        return !c.refusal || c.fail(c.refusal->detail);
    }
    if (c.authentication.certificateTopic) {
        return true;
    }
    c.refusal = TokenRefusal{403, "MissingProviderToken", ""};
    return c.fail("the connection has no client certificate and the server takes no tokens");
}

bool hasDeviceToken(Context& c) {
    return !c.deviceToken.empty() || c.fail("the path has no device token after /3/device/");
}

// APNs documents device tokens as of variable length: 32 bytes for apps, longer for some
// (Live Activities). Hex digits in pairs, 32 to 100 bytes.
bool isWellFormedDeviceToken(Context& c) {
    const auto size = c.deviceToken.size();
    return (size >= 64 && size <= 200 && size % 2 == 0 && platform::isHexText(c.deviceToken)) ||
           c.fail("the device token " + quotedText(c.deviceToken) +
                  " is not 64 to 200 hexadecimal " + "digits in pairs (" + std::to_string(size) +
                  " characters)");
}

bool hasTopic(Context& c) {
    if (const auto topic = c.header("apns-topic")) {
        c.accepted.topic = *topic;
        return true;
    }
    if (c.authentication.tokens == nullptr && c.authentication.certificateTopic) {
        c.accepted.topic = *c.authentication.certificateTopic;
        return true;
    }
    return c.fail("token authentication needs an apns-topic header (the bundle identifier " +
                  quotedText(c.destination.bundleIdentifier) + ", with a push type's suffix)");
}

// A bundle identifier's characters, with the dots that join it to a suffix.
bool isWellFormedTopic(Context& c) {
    const bool wellFormed =
        !c.accepted.topic.empty() && c.accepted.topic.size() <= 255 &&
        std::all_of(c.accepted.topic.begin(), c.accepted.topic.end(), [](char ch) {
            return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                   (ch >= '0' && ch <= '9') || ch == '.' || ch == '-';
        });
    return wellFormed || c.fail("apns-topic " + quotedText(c.accepted.topic) +
                                " is not a bundle identifier (letters, digits, \".\" and \"-\")");
}

PushType inferredPushType(Context& c) {
    for (const auto& type : kPushTypes) {
        if (type.inferredFromTopic && c.accepted.topic.ends_with(type.suffix)) {
            return type.type;
        }
    }
    return c.readBody().contentAvailableOnly ? PushType::background : PushType::alert;
}

bool hasKnownPushType(Context& c) {
    const auto name = c.header("apns-push-type");
    if (!name) {
        c.accepted.pushType = inferredPushType(c);
        return true;
    }
    const auto type = pushTypeNamed(*name);
    if (!type) {
        return c.fail("apns-push-type " + quotedText(*name) + " is not one of " + pushTypeNames());
    }
    c.accepted.pushType = *type;
    return true;
}

std::string needsTokens(PushType type) {
    return std::string(pushTypeName(type)) +
           " notifications need token authentication, not a client certificate";
}

bool isTopicOfCertificate(Context& c) {
    if (c.authentication.tokens != nullptr || !c.authentication.certificateTopic) {
        return true;
    }
    const std::string& own = *c.authentication.certificateTopic;
    if (c.accepted.topic == own) {
        return info(c.accepted.pushType).certificateAllowed ||
               c.fail(needsTokens(c.accepted.pushType));
    }
    for (const auto& type : kPushTypes) {
        if (!type.suffix.empty() && type.certificateAllowed &&
            c.accepted.topic.size() > own.size() && c.accepted.topic.starts_with(own) &&
            std::string_view(c.accepted.topic).substr(own.size()) == type.suffix) {
            return info(c.accepted.pushType).certificateAllowed ||
                   c.fail(needsTokens(c.accepted.pushType));
        }
    }
    return c.fail("the client certificate is for the topic " + quotedText(own) +
                  " and its suffixed topics, not " + quotedText(c.accepted.topic));
}

bool hasValidPriority(Context& c) {
    const auto text = c.header("apns-priority");
    if (!text) {
        c.accepted.priority = c.accepted.pushType == PushType::background ? 5 : 10;
        return true;
    }
    const auto priority = priorityNamed(*text);
    if (!priority) {
        return c.fail("apns-priority " + quotedText(*text) + " is not 10, 5 or 1");
    }
    if (*priority == 10 && c.accepted.pushType == PushType::background) {
        return c.fail("background notifications take apns-priority 5 or 1, not 10");
    }
    c.accepted.priority = *priority;
    return true;
}

bool hasValidExpiration(Context& c) {
    const auto text = c.header("apns-expiration");
    if (!text) {
        return true;
    }
    const auto expiration = decimal(*text);
    if (!expiration) {
        return c.fail("apns-expiration " + quotedText(*text) +
                      " is not a non-negative 64-bit integer of seconds since 1970");
    }
    c.accepted.expiration = *expiration;
    return true;
}

bool hasValidCollapseId(Context& c) {
    const auto id = c.header("apns-collapse-id");
    if (id && id->size() > kCollapseIdLimit) {
        return c.fail("apns-collapse-id is " + std::to_string(id->size()) +
                      " bytes; at most 64 are allowed");
    }
    if (id) {
        c.accepted.collapseId.emplace(*id);
    }
    return true;
}

bool fitsPayloadLimit(Context& c) {
    const std::size_t limit =
        c.accepted.pushType == PushType::voip ? kVoipPayloadLimit : kPayloadLimit;
    if (!c.request.bodyTooLarge && c.request.body.size() <= limit) {
        return true;
    }
    const std::string size = c.request.bodyTooLarge ? "over " + std::to_string(kVoipPayloadLimit)
                                                    : std::to_string(c.request.body.size());
    return c.fail("the payload is " + size + " bytes; " +
                  std::string(pushTypeName(c.accepted.pushType)) + " notifications carry at most " +
                  std::to_string(limit));
}

bool hasPayload(Context& c) {
    return !c.request.body.empty() || c.fail("the payload is empty");
}

bool isJsonObjectPayload(Context& c) {
    const auto& body = c.readBody();
    if (!body.json) {
        return c.fail("the payload is not JSON" +
                      (body.error.empty() ? std::string() : ": " + body.error));
    }
    if (!body.object) {
        return c.fail("the payload is JSON but not an object ({...})");
    }
    return true;
}

bool isDevicesToken(Context& c) {
    // Servers mostly send the token as it was issued (lower case): compared as is first.
    return c.deviceToken == c.destination.deviceToken ||
           platform::equalsIgnoringASCIICase(c.deviceToken, c.destination.deviceToken) ||
           c.fail("the device token is not this device's (" + c.destination.deviceToken + ")");
}

bool isDevicesEnvironment(Context& c) {
    const auto named = apnsEnvironmentOfAuthority(c.request.authority);
    if (!named || !c.destination.environment || *named == *c.destination.environment) {
        return true;
    }
    return c.fail(quotedText(c.request.authority) + " is APNs's " +
                  std::string(apnsEnvironmentName(*named)) +
                  " environment; this device's token is for " +
                  std::string(apnsEnvironmentName(*c.destination.environment)) +
                  (*c.destination.environment == ApnsEnvironment::production
                       ? " (api.push.apple.com)"
                       : " (api.sandbox.push.apple.com)"));
}

std::string topicOf(const ProviderDestination& destination, PushType type) {
    return destination.bundleIdentifier + std::string(topicSuffix(type));
}

// Whether `topic` is topicOf(destination, type), without making it.
bool isTopicOf(std::string_view topic, const ProviderDestination& destination, PushType type) {
    const std::string_view bundle = destination.bundleIdentifier;
    const std::string_view suffix = topicSuffix(type);
    return topic.size() == bundle.size() + suffix.size() && topic.starts_with(bundle) &&
           topic.ends_with(suffix);
}

// The app's topic for one push type and another: the push type's topic is wrong here.
bool isTopicOfPushType(Context& c) {
    if (isTopicOf(c.accepted.topic, c.destination, c.accepted.pushType)) {
        return true;
    }
    for (const auto& type : kPushTypes) {
        if (isTopicOf(c.accepted.topic, c.destination, type.type)) {
            return c.fail(std::string(pushTypeName(c.accepted.pushType)) +
                          " notifications go to the topic " +
                          quotedText(topicOf(c.destination, c.accepted.pushType)) + ", not " +
                          quotedText(c.accepted.topic));
        }
    }
    return true;
}

bool isTopicOfDevice(Context& c) {
    return isTopicOf(c.accepted.topic, c.destination, c.accepted.pushType) ||
           c.fail("the device token is for the application " +
                  quotedText(c.destination.bundleIdentifier) + " (topic " +
                  quotedText(topicOf(c.destination, c.accepted.pushType)) + " for " +
                  std::string(pushTypeName(c.accepted.pushType)) + "), not the topic " +
                  quotedText(c.accepted.topic));
}

bool isRegistered(Context& c) {
    return !c.destination.unregisteredAt ||
           c.fail("the application was removed from the device at " +
                  std::to_string(*c.destination.unregisteredAt) +
                  " ms since 1970; its token is no longer valid");
}

struct Check {
    bool (*passes)(Context&);
    int status;
    std::string_view reason;
};

// The order of this table is the order in the comment at the top of this file.
constexpr std::array<Check, 22> kChecks = {{
    {hasMethodPost, 405, "MethodNotAllowed"},
    {hasDevicePath, 404, "BadPath"},
    {hasNoRepeatedHeader, 400, "DuplicateHeaders"},
    {hasValidMessageId, 400, "BadMessageId"},
    {isAuthenticated, 403, "MissingProviderToken"},
    {hasDeviceToken, 400, "MissingDeviceToken"},
    {isWellFormedDeviceToken, 400, "BadDeviceToken"},
    {hasTopic, 400, "MissingTopic"},
    {isWellFormedTopic, 400, "BadTopic"},
    {hasKnownPushType, 400, "InvalidPushType"},
    {isTopicOfCertificate, 400, "TopicDisallowed"},
    {hasValidPriority, 400, "BadPriority"},
    {hasValidExpiration, 400, "BadExpirationDate"},
    {hasValidCollapseId, 400, "BadCollapseId"},
    {fitsPayloadLimit, 413, "PayloadTooLarge"},
    {hasPayload, 400, "PayloadEmpty"},
    {isJsonObjectPayload, 400, "BadPayload"},
    {isDevicesToken, 400, "BadDeviceToken"},
    {isDevicesEnvironment, 400, "BadDeviceToken"},
    {isTopicOfPushType, 400, "TopicDisallowed"},
    {isTopicOfDevice, 400, "DeviceTokenNotForTopic"},
    {isRegistered, 410, "Unregistered"},
}};

// The refusal of a request that failed `check`, with what could be read of it.
ProviderRefusal refusalFor(Context& c, const Check& check, std::string apnsId) {
    ProviderRefusal refusal;
    refusal.apnsId = std::move(apnsId);
    refusal.status = c.refusal ? c.refusal->status : check.status;
    refusal.reason = c.refusal ? c.refusal->reason : check.reason;
    if (check.passes == isRegistered) {
        refusal.timestamp = c.destination.unregisteredAt;
    }
    refusal.detail = std::move(c.detail);
    if (const auto topic = c.header("apns-topic")) {
        refusal.topic = *topic;
    } else if (c.authentication.tokens == nullptr && c.authentication.certificateTopic) {
        refusal.topic = *c.authentication.certificateTopic;
    }
    if (const auto type = c.header("apns-push-type")) {
        refusal.pushType = pushTypeNamed(*type);
    }
    if (const auto priority = c.header("apns-priority")) {
        refusal.priority = priorityNamed(*priority);
    }
    return refusal;
}

}  // namespace

std::string_view pushTypeName(PushType type) {
    return info(type).name;
}

std::optional<PushType> pushTypeNamed(std::string_view name) {
    for (const auto& type : kPushTypes) {
        if (type.name == name) {
            return type.type;
        }
    }
    return std::nullopt;
}

std::string_view topicSuffix(PushType type) {
    return info(type).suffix;
}

std::string_view apnsEnvironmentName(ApnsEnvironment environment) {
    return environment == ApnsEnvironment::production ? "production" : "development";
}

std::optional<ApnsEnvironment> apnsEnvironmentNamed(std::string_view name) {
    if (name == "production") {
        return ApnsEnvironment::production;
    }
    if (name == "development") {
        return ApnsEnvironment::development;
    }
    return std::nullopt;
}

std::optional<ApnsEnvironment> apnsEnvironmentOfAuthority(std::string_view authority) {
    // "host", "host:port"; host names never hold ":" or "]" (an IPv6 address does, and names
    // no environment).
    if (const auto colon = authority.rfind(':'); colon != std::string_view::npos) {
        authority = authority.substr(0, colon);
    }
    if (authority.ends_with('.')) {
        authority.remove_suffix(1);
    }
    for (const auto& [host, environment] : kEnvironmentHosts) {
        if (platform::equalsIgnoringASCIICase(authority, host)) {
            return environment;
        }
    }
    return std::nullopt;
}

namespace {

// Both checkProviderRequest: an accepted request's payload is taken from `body` when there is
// one (the request's own body, which its caller gives up), else copied from the request.
ProviderVerdict checkRequest(const ProviderRequest& request, std::string* body,
                             const ProviderDestination& destination,
                             const ConnectionAuthentication& authentication,
                             std::int64_t nowSeconds, std::string (*makeApnsId)()) {
    Context context(request, destination, authentication, nowSeconds);
    std::string apnsId;
    if (const auto id = context.header("apns-id"); id && platform::isUuidText(*id)) {
        // Echoed exactly as sent: clients match answers to requests by this text.
        apnsId.assign(*id);
    } else {
        apnsId = makeApnsId != nullptr ? makeApnsId() : platform::makeUuid();
    }
    for (const Check& check : kChecks) {
        if (!check.passes(context)) {
            return refusalFor(context, check, std::move(apnsId));
        }
    }
    PushNotificationRequest accepted = std::move(context.accepted);
    accepted.apnsId = std::move(apnsId);
    accepted.deviceToken = platform::asciiLowercased(context.deviceToken);
    if (body != nullptr) {
        accepted.payload = std::move(*body);
    } else {
        accepted.payload = request.body;
    }
    return accepted;
}

}  // namespace

ProviderVerdict checkProviderRequest(const ProviderRequest& request,
                                     const ProviderDestination& destination,
                                     const ConnectionAuthentication& authentication,
                                     std::int64_t nowSeconds, std::string (*makeApnsId)()) {
    return checkRequest(request, nullptr, destination, authentication, nowSeconds, makeApnsId);
}

ProviderVerdict checkProviderRequest(ProviderRequest&& request,
                                     const ProviderDestination& destination,
                                     const ConnectionAuthentication& authentication,
                                     std::int64_t nowSeconds, std::string (*makeApnsId)()) {
    return checkRequest(request, &request.body, destination, authentication, nowSeconds,
                        makeApnsId);
}

std::string refusalBody(const ProviderRefusal& refusal) {
    std::string body = "{\"reason\":";
    platform::appendJSONString(body, refusal.reason);
    if (refusal.timestamp) {
        body += ",\"timestamp\":";
        platform::appendJSONNumber(body, *refusal.timestamp);
    }
    body += '}';
    return body;
}

}  // namespace nimborra::provider
