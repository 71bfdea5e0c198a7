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
// 19  400     TopicDisallowed               the topic is the app's topic for another push type
// 20  400     DeviceTokenNotForTopic        the topic is not the app's at all
// 21  410     Unregistered                  the device token is no longer registered
//
// Rows 1-17 judge the request alone, from its framing to its headers to its body; rows 18-21
// compare it with what is known about the device. Without apns-push-type, the push type is
// voip, complication or fileprovider when the topic carries that type's suffix, background when
// the payload's "aps" holds content-available 1 and no alert, badge or sound, else alert. Without
// apns-priority, the priority is 5 for background and 10 for the rest.
#include "NimbOrraProviderApi/ProviderRequest.h"

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <random>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::provider {
namespace {

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

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
bool isCanonicalUuid(std::string_view text) {
    if (text.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !isHex(text[i])) {
            return false;
        }
    }
    return true;
}

bool endsWith(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

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
    std::string topic;
    PushType pushType = PushType::alert;
    int priority = 10;
    std::int64_t expiration = 0;
    std::optional<std::string> collapseId;
    platform::Dictionary payload;
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

    // The payload parsed once, for push-type inference and the payload rows.
    const std::optional<platform::Value>& parsedBody() {
        if (!parsed) {
            parsed.emplace(request.body.empty() || request.bodyTooLarge
                               ? std::nullopt
                               : platform::JSONSerialization::jsonObject(request.body));
        }
        return *parsed;
    }
    std::optional<std::optional<platform::Value>> parsed;

    bool fail(std::string text) {
        detail = std::move(text);
        return false;
    }
};

bool hasMethodPost(Context& c) {
    return c.request.method == "POST" || c.fail("the method is " + c.request.method);
}

bool hasDevicePath(Context& c) {
    if (c.request.path.compare(0, kDevicePath.size(), kDevicePath) != 0) {
        return c.fail("the path is not /3/device/<device token>");
    }
    c.deviceToken = std::string_view(c.request.path).substr(kDevicePath.size());
    return true;
}

bool hasNoRepeatedHeader(Context& c) {
    std::vector<std::string_view> names;
    names.reserve(c.request.headers.size());
    for (const auto& header : c.request.headers) {
        names.emplace_back(header.first);
    }
    std::sort(names.begin(), names.end());
    const auto repeated = std::adjacent_find(names.begin(), names.end());
    return repeated == names.end() || c.fail("the header " + std::string(*repeated) + " repeats");
}

bool hasValidMessageId(Context& c) {
    const auto id = c.header("apns-id");
    return !id || isCanonicalUuid(*id) || c.fail("apns-id is not a canonical UUID");
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
    return c.fail("no client certificate and no provider token");
}

bool hasDeviceToken(Context& c) {
    return !c.deviceToken.empty() || c.fail("the path has no device token");
}

// APNs documents device tokens as of variable length: 32 bytes for apps, longer for some
// (Live Activities). Hex digits in pairs, 32 to 100 bytes.
bool isWellFormedDeviceToken(Context& c) {
    const auto size = c.deviceToken.size();
    return (size >= 64 && size <= 200 && size % 2 == 0 &&
            std::all_of(c.deviceToken.begin(), c.deviceToken.end(), isHex)) ||
           c.fail("the device token is not 64 to 200 hex digits");
}

bool hasTopic(Context& c) {
    if (const auto topic = c.header("apns-topic")) {
        c.topic = *topic;
        return true;
    }
    if (c.authentication.tokens == nullptr && c.authentication.certificateTopic) {
        c.topic = *c.authentication.certificateTopic;
        return true;
    }
    return c.fail("token authentication needs apns-topic");
}

// A bundle identifier's characters, with the dots that join it to a suffix.
bool isWellFormedTopic(Context& c) {
    const bool wellFormed = !c.topic.empty() && c.topic.size() <= 255 &&
                            std::all_of(c.topic.begin(), c.topic.end(), [](char ch) {
                                return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') ||
                                       (ch >= '0' && ch <= '9') || ch == '.' || ch == '-';
                            });
    return wellFormed || c.fail("apns-topic is not a bundle identifier");
}

PushType inferredPushType(Context& c) {
    for (const auto& type : kPushTypes) {
        if (type.inferredFromTopic && endsWith(c.topic, type.suffix)) {
            return type.type;
        }
    }
    const auto& body = c.parsedBody();
    const platform::Value* aps = body ? body->find("aps") : nullptr;
    const platform::Value* available = aps ? aps->find("content-available") : nullptr;
    if (available != nullptr && *available == platform::Value(1) && !aps->find("alert") &&
        !aps->find("badge") && !aps->find("sound")) {
        return PushType::background;
    }
    return PushType::alert;
}

bool hasKnownPushType(Context& c) {
    const auto name = c.header("apns-push-type");
    if (!name) {
        c.pushType = inferredPushType(c);
        return true;
    }
    const auto type = pushTypeNamed(*name);
    if (!type) {
        return c.fail("apns-push-type is not a documented push type");
    }
    c.pushType = *type;
    return true;
}

bool isTopicOfCertificate(Context& c) {
    if (c.authentication.tokens != nullptr || !c.authentication.certificateTopic) {
        return true;
    }
    const std::string& own = *c.authentication.certificateTopic;
    if (c.topic == own) {
        return info(c.pushType).certificateAllowed ||
               c.fail(std::string(pushTypeName(c.pushType)) + " needs token authentication");
    }
    for (const auto& type : kPushTypes) {
        if (!type.suffix.empty() && type.certificateAllowed && c.topic.size() > own.size() &&
            c.topic.compare(0, own.size(), own) == 0 &&
            std::string_view(c.topic).substr(own.size()) == type.suffix) {
            return info(c.pushType).certificateAllowed ||
                   c.fail(std::string(pushTypeName(c.pushType)) + " needs token authentication");
        }
    }
    return c.fail("the client certificate does not cover the topic " + c.topic);
}

bool hasValidPriority(Context& c) {
    const auto text = c.header("apns-priority");
    if (!text) {
        c.priority = c.pushType == PushType::background ? 5 : 10;
        return true;
    }
    const auto priority = priorityNamed(*text);
    if (!priority) {
        return c.fail("apns-priority is not 10, 5 or 1");
    }
    if (*priority == 10 && c.pushType == PushType::background) {
        return c.fail("background notifications take priority 5 or 1, not 10");
    }
    c.priority = *priority;
    return true;
}

bool hasValidExpiration(Context& c) {
    const auto text = c.header("apns-expiration");
    if (!text) {
        return true;
    }
    const auto expiration = decimal(*text);
    if (!expiration) {
        return c.fail("apns-expiration is not a non-negative integer of seconds");
    }
    c.expiration = *expiration;
    return true;
}

bool hasValidCollapseId(Context& c) {
    const auto id = c.header("apns-collapse-id");
    if (id && id->size() > kCollapseIdLimit) {
        return c.fail("apns-collapse-id is longer than 64 bytes");
    }
    if (id) {
        c.collapseId.emplace(*id);
    }
    return true;
}

bool fitsPayloadLimit(Context& c) {
    const std::size_t limit = c.pushType == PushType::voip ? kVoipPayloadLimit : kPayloadLimit;
    return (!c.request.bodyTooLarge && c.request.body.size() <= limit) ||
           c.fail("the payload is over " + std::to_string(limit) + " bytes");
}

bool hasPayload(Context& c) {
    return !c.request.body.empty() || c.fail("the payload is empty");
}

bool isJsonObjectPayload(Context& c) {
    const auto& body = c.parsedBody();
    if (!body || !body->dictionary()) {
        return c.fail("the payload is not a JSON object");
    }
    c.payload = *body->dictionary();
    return true;
}

bool isDevicesToken(Context& c) {
    const bool same =
        c.deviceToken.size() == c.destination.deviceToken.size() &&
        std::equal(c.deviceToken.begin(), c.deviceToken.end(), c.destination.deviceToken.begin(),
                   [](char a, char b) { return toLower(a) == toLower(b); });
    return same || c.fail("no device has this token");
}

// The app's topic for one push type and another: the push type's topic is wrong here.
bool isTopicOfPushType(Context& c) {
    const std::string& bundle = c.destination.bundleIdentifier;
    if (c.topic == bundle + std::string(topicSuffix(c.pushType))) {
        return true;
    }
    for (const auto& type : kPushTypes) {
        if (c.topic == bundle + std::string(type.suffix)) {
            return c.fail(std::string(pushTypeName(c.pushType)) + " notifications go to " + bundle +
                          std::string(topicSuffix(c.pushType)));
        }
    }
    return true;
}

bool isTopicOfDevice(Context& c) {
    return c.topic == c.destination.bundleIdentifier + std::string(topicSuffix(c.pushType)) ||
           c.fail("the device token is not for the topic " + c.topic);
}

bool isRegistered(Context& c) {
    return !c.destination.unregisteredAt || c.fail("the device token is no longer registered");
}

struct Check {
    bool (*passes)(Context&);
    int status;
    std::string_view reason;
};

// The order of this table is the order in the comment at the top of this file.
constexpr std::array<Check, 21> kChecks = {{
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
    if (check.reason == "Unregistered") {
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

ProviderVerdict checkProviderRequest(const ProviderRequest& request,
                                     const ProviderDestination& destination,
                                     const ConnectionAuthentication& authentication,
                                     std::int64_t nowSeconds, std::string (*makeApnsId)()) {
    Context context(request, destination, authentication, nowSeconds);
    std::string apnsId;
    if (const auto id = context.header("apns-id"); id && isCanonicalUuid(*id)) {
        // Echoed exactly as sent: clients match answers to requests by this text.
        apnsId.assign(*id);
    } else {
        apnsId = makeApnsId != nullptr ? makeApnsId() : makeUuid();
    }
    for (const Check& check : kChecks) {
        if (!check.passes(context)) {
            return refusalFor(context, check, std::move(apnsId));
        }
    }
    PushNotificationRequest accepted;
    accepted.apnsId = std::move(apnsId);
    accepted.topic = std::move(context.topic);
    accepted.pushType = context.pushType;
    accepted.priority = context.priority;
    accepted.expiration = context.expiration;
    accepted.collapseId = std::move(context.collapseId);
    accepted.deviceToken.resize(context.deviceToken.size());
    std::transform(context.deviceToken.begin(), context.deviceToken.end(),
                   accepted.deviceToken.begin(), toLower);
    accepted.payload = std::move(context.payload);
    return accepted;
}

std::string makeUuid() {
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        // OpenSSL's generator failing is all but impossible; an identifier needs uniqueness,
        // not secrecy, so the standard library's source will do.
        std::random_device device;
        for (auto& byte : bytes) {
            byte = static_cast<unsigned char>(device());
        }
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4 (random)
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // the RFC 4122 variant
    // Lower case, the canonical form APNs documents.
    constexpr std::string_view digits = "0123456789abcdef";
    std::string uuid;
    uuid.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            uuid += '-';
        }
        uuid += digits[bytes[i] >> 4];
        uuid += digits[bytes[i] & 0x0F];
    }
    return uuid;
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
