#include <gtest/gtest.h>

#include <limits>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraProviderApi/ProviderRequest.h"
#include "NimbOrraProviderApi/ProviderToken.h"

namespace nimborra::provider {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;
const std::string kKeyId = "KEY1234567";
const std::string kTeam = "TEAM123456";
const std::string kBundle = "com.example.app";
const std::string kDevice(64, 'a');
const std::string kAlert = R"({"aps":{"alert":"hi"}})";

const AuthKey& testKey() {
    static const AuthKey key = AuthKey::generate();
    return key;
}

std::string token(std::int64_t issuedAt, const std::string& keyId = kKeyId,
                  const std::string& team = kTeam) {
    return makeProviderToken(testKey(), keyId, team, issuedAt).value_or("<unsigned>");
}

std::string base64Url(std::string_view text) {
    return platform::base64URLEncodedString(
        std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::shared_ptr<ProviderTokenVerifier> verifier(bool withKey = true) {
    return std::make_shared<ProviderTokenVerifier>(
        withKey ? std::optional<AuthKey>(testKey()) : std::nullopt, kKeyId, kTeam);
}

TEST(ProviderToken, KeysRoundTripThroughPemAndRefuseOtherText) {
    const auto privateKey = AuthKey::fromPem(testKey().pem());
    ASSERT_TRUE(std::holds_alternative<AuthKey>(privateKey));
    EXPECT_TRUE(std::get<AuthKey>(privateKey).canSign());
    const auto publicKey = AuthKey::fromPem(testKey().publicKeyPem());
    ASSERT_TRUE(std::holds_alternative<AuthKey>(publicKey));
    EXPECT_FALSE(std::get<AuthKey>(publicKey).canSign());
    EXPECT_FALSE(makeProviderToken(std::get<AuthKey>(publicKey), kKeyId, kTeam, kNow));
    // The public half verifies what the private half signed.
    ProviderTokenVerifier publicVerifier(std::get<AuthKey>(publicKey), kKeyId, kTeam);
    EXPECT_EQ(publicVerifier.check(token(kNow)).outcome, ProviderTokenCheck::Outcome::valid);
    EXPECT_TRUE(std::holds_alternative<std::string>(AuthKey::fromPem("not a key")));
    EXPECT_TRUE(std::holds_alternative<std::string>(AuthKey::load("/nonexistent/key.p8")));
}

TEST(ProviderToken, ChecksHeaderClaimsAndSignature) {
    const std::string good = token(kNow);
    const auto check = verifier()->check(good);
    EXPECT_EQ(check.outcome, ProviderTokenCheck::Outcome::valid) << check.detail;
    EXPECT_EQ(check.keyId, kKeyId);
    EXPECT_EQ(check.teamId, kTeam);
    EXPECT_EQ(check.issuedAt, kNow);

    const auto dot = good.rfind('.');
    const std::string claims = good.substr(good.find('.') + 1, dot - good.find('.') - 1);
    const std::string signature = good.substr(dot + 1);
    std::string flipped = good;
    flipped[dot + 5] = flipped[dot + 5] == 'A' ? 'B' : 'A';
    const auto other = makeProviderToken(AuthKey::generate(), kKeyId, kTeam, kNow).value();
    const std::tuple<const char*, std::string, bool> cases[] = {
        // label, token, valid without key
        {"tampered signature", flipped, true},
        {"another key's signature", other, true},
        {"wrong kid", token(kNow, "OTHERKEY00"), true},
        {"wrong team", token(kNow, kKeyId, "OTHERTEAM0"), true},
        {"alg HS256",
         base64Url(R"({"alg":"HS256","kid":"KEY1234567"})") + "." + claims + "." + signature,
         false},
        {"iat as text",
         good.substr(0, good.find('.') + 1) +
             base64Url(R"({"iss":"TEAM123456","iat":"1700000000"})") + "." + signature,
         false},
        {"padding", good + "=", false},
        {"four parts", good + ".e30", false},
        {"not base64url", "e30.e30.a+b/", false},
        {"over 8 KiB", good + std::string(8192, 'A'), false},
    };
    const auto wrongKey = verifier()->check(token(kNow, "OTHERKEY00")).detail;
    EXPECT_NE(wrongKey.find("\"OTHERKEY00\""), std::string::npos) << wrongKey;
    EXPECT_NE(wrongKey.find("\"" + kKeyId + "\""), std::string::npos) << wrongKey;
    for (const auto& [label, jwt, validWithoutKey] : cases) {
        EXPECT_EQ(verifier()->check(jwt).outcome, ProviderTokenCheck::Outcome::invalid) << label;
        EXPECT_EQ(verifier(false)->check(jwt).outcome == ProviderTokenCheck::Outcome::valid,
                  validWithoutKey)
            << label;
    }
}

// One connection's token over time: verified once, stale after 3600 s, replaced at most every
// 20 minutes; a refused replacement is not verified again.
TEST(ProviderTokenSession, FollowsTheConnectionRules) {
    const std::string first = "bearer " + token(kNow);
    const std::string second = "BEARER " + token(kNow + 600);
    // The authorization header, the time, the refusal's reason (empty: allowed) and how many
    // tokens the session has verified since it began.
    const std::tuple<std::optional<std::string>, std::int64_t, std::string_view, std::size_t>
        steps[] = {
            {std::nullopt, kNow, "MissingProviderToken", 0},
            {"Basic abc", kNow, "MissingProviderToken", 0},
            {"bearer " + token(kNow + 301), kNow, "InvalidProviderToken", 1},
            {"bearer " + token(kNow - 3601), kNow, "ExpiredProviderToken", 2},
            // The extremes of 64 bits, where a subtraction would overflow.
            {"bearer " + token(std::numeric_limits<std::int64_t>::min()), kNow,
             "ExpiredProviderToken", 3},
            {"bearer " + token(std::numeric_limits<std::int64_t>::max()), kNow,
             "InvalidProviderToken", 4},
            {first, kNow, "", 5},
            {first, kNow + 3600, "", 5},
            {second, kNow + 600, "TooManyProviderTokenUpdates", 6},
            {second, kNow + 1199, "TooManyProviderTokenUpdates", 6},
            {first, kNow + 1199, "", 6},
            {"bearer x.y.z", kNow + 1199, "InvalidProviderToken", 7},
            {second, kNow + 1200, "", 7},
            {second, kNow + 600 + 3600, "", 7},
            {second, kNow + 600 + 3601, "ExpiredProviderToken", 7},
        };
    ProviderTokenSession session(verifier());
    for (std::size_t i = 0; i < std::size(steps); ++i) {
        const auto& [authorization, at, reason, verified] = steps[i];
        const auto refusal = session.authorize(authorization, at);
        EXPECT_EQ(refusal ? refusal->reason : "", reason) << "step " << i;
        if (refusal) {
            EXPECT_EQ(refusal->status, reason == "TooManyProviderTokenUpdates" ? 429 : 403);
        }
        EXPECT_EQ(session.verifiedCount(), verified) << "step " << i;
    }
}

// The payload of exactly `size` bytes: an alert padded out.
std::string payloadOf(std::size_t size) {
    const std::string frame = R"({"aps":{"alert":""}})";
    return R"({"aps":{"alert":")" + std::string(size - frame.size(), 'x') + "\"}}";
}

struct Edit {
    std::string name;
    std::string value;  // "-" removes the header; a name starting with "+" adds one more
};

ProviderRefusal refusalOf(const ProviderVerdict& verdict) {
    if (const auto* refusal = std::get_if<ProviderRefusal>(&verdict)) {
        return *refusal;
    }
    ProviderRefusal accepted;
    accepted.status = 200;
    return accepted;
}

struct RequestCase {
    std::vector<Edit> edits = {};
    std::string body = kAlert;
    bool certificate = false;
    std::string method = "POST";
    std::string path = "/3/device/" + kDevice;
    bool unregistered = false;
    bool bodyTooLarge = false;
    std::string authority = "localhost";
};

ProviderVerdict run(const RequestCase& c) {
    ProviderRequest request{c.method, c.path, c.authority, {}, c.body, c.bodyTooLarge};
    request.headers = {{"authorization", "bearer " + token(kNow)}, {"apns-topic", kBundle}};
    for (const auto& edit : c.edits) {
        if (edit.name.starts_with('+')) {
            request.headers.emplace_back(edit.name.substr(1), edit.value);
            continue;
        }
        std::erase_if(request.headers, [&](const auto& h) { return h.first == edit.name; });
        if (edit.value != "-") {
            request.headers.emplace_back(edit.name, edit.value);
        }
    }
    ProviderTokenSession tokens(verifier());
    const ConnectionAuthentication authentication{
        c.certificate ? nullptr : &tokens, c.certificate ? std::optional(kBundle) : std::nullopt};
    ProviderDestination destination{kBundle, kDevice, std::nullopt, ApnsEnvironment::development};
    if (c.unregistered) {
        destination.unregisteredAt = 1'650'000'000'000;
    }
    const auto makeId = [] { return std::string("00000000-0000-4000-8000-000000000000"); };
    auto verdict = checkProviderRequest(request, destination, authentication, kNow, makeId);
    // A request given up (moved in) is judged alike (its token now known to the session); only
    // an accepted one loses its body, to the payload.
    auto given = request;
    const auto taken =
        checkProviderRequest(std::move(given), destination, authentication, kNow, makeId);
    EXPECT_EQ(refusalOf(taken).reason, refusalOf(verdict).reason);
    const auto* accepted = std::get_if<PushNotificationRequest>(&taken);
    EXPECT_EQ(given.body, accepted != nullptr ? "" : request.body);
    if (accepted != nullptr) {
        EXPECT_EQ(accepted->payload, request.body);
        EXPECT_EQ(std::get<PushNotificationRequest>(verdict).payload, request.body);
    }
    return verdict;
}

TEST(ProviderRequest, RefusesWithApnsStatusAndReason) {
    struct Row {
        const char* label;
        RequestCase request;
        int status;
        std::string_view reason;
        // What the explanation must hold: what was expected beside what came, client text quoted
        // and cut short.
        std::vector<std::string> says = {};
    };
    const std::string path = "/3/device/" + kDevice, voip = kBundle + ".voip";
    const std::string live = kBundle + ".push-type.liveactivity";
    // The rules the host's tests send through curl are not repeated here; these are the orders
    // between rules and the cases a client cannot easily send.
    // clang-format off
    const Row rows[] = {
        {"GET, and a bad path too", {.method = "GET", .path = "/3/x"}, 405, "MethodNotAllowed"},
        {"no authorization, and no device token",
         {.edits = {{"authorization", "-"}}, .path = "/3/device/"}, 403, "MissingProviderToken"},
        {"no device token", {.path = "/3/device/"}, 400, "MissingDeviceToken"},
        {"odd device token", {.path = path + "a"}, 400, "BadDeviceToken"},
        {"token with a query", {.path = path + "?a=b"}, 400, "BadDeviceToken"},
        {"topic with a space", {{{"apns-topic", "com.example app"}}}, 400, "BadTopic"},
        {"certificate for another topic",
         {.edits = {{"apns-topic", "com.other.app"}}, .certificate = true}, 400, "TopicDisallowed"},
        {"liveactivity by certificate",
         {.edits = {{"apns-topic", live}, {"apns-push-type", "liveactivity"}}, .certificate = true},
         400, "TopicDisallowed"},
        {"background at priority 10", {{{"apns-push-type", "background"}, {"apns-priority", "10"}}},
         400, "BadPriority"},
        {"a long bad priority, and an empty payload",
         {{{"apns-priority", "7\xff" + std::string(200, '7')}}, ""}, 400, "BadPriority",
         {"apns-priority \"7\xef\xbf\xbd" "7", "7...\""}},
        {"negative expiration", {{{"apns-expiration", "-1"}}}, 400, "BadExpirationDate"},
        {"expiration past 64 bits", {{{"apns-expiration", "9223372036854775808"}}}, 400,
         "BadExpirationDate"},
        {"5121-byte voip", {{{"apns-topic", voip}, {"apns-push-type", "voip"}}, payloadOf(5121)},
         413, "PayloadTooLarge"},
        {"body cut off", {.body = payloadOf(100), .bodyTooLarge = true}, 413, "PayloadTooLarge"},
        {"payload an array", {.body = "[1]"}, 400, "BadPayload"},
        {"payload not JSON", {.body = R"({"aps":)"}, 400, "BadPayload"},
        {"another device's token", {.path = "/3/device/" + std::string(64, 'b')}, 400,
         "BadDeviceToken"},
        {"production host, development token", {.authority = "API.push.apple.com.:443"}, 400,
         "BadDeviceToken", {"production", "development"}},
        {"production host, and an unregistered token",
         {.unregistered = true, .authority = "api.push.apple.com"}, 400, "BadDeviceToken"},
        {"voip to the app topic", {{{"apns-push-type", "voip"}}}, 400, "TopicDisallowed"},
        // Live Activities are not inferred from the topic: this is an alert to the wrong topic.
        {"liveactivity topic, no type", {{{"apns-topic", live}}}, 400, "TopicDisallowed"},
        {"another app's topic", {{{"apns-topic", "com.other.app"}}}, 400, "DeviceTokenNotForTopic",
         {"\"com.example.app\"", "\"com.other.app\""}},
        {"the voip topic's ends around more",
         {{{"apns-topic", kBundle + "x.voip"}, {"apns-push-type", "voip"}}}, 400,
         "DeviceTokenNotForTopic"},
        {"unregistered device", {.unregistered = true}, 410, "Unregistered"},
    };
    // clang-format on
    for (const auto& row : rows) {
        const auto refusal = refusalOf(run(row.request));
        EXPECT_EQ(refusal.status, row.status) << row.label;
        EXPECT_EQ(refusal.reason, row.reason) << row.label << ": " << refusal.detail;
        EXPECT_FALSE(refusal.detail.empty()) << row.label;
        for (const auto& text : row.says) {
            EXPECT_NE(refusal.detail.find(text), std::string::npos) << refusal.detail;
            EXPECT_LT(refusal.detail.size(), 200u) << refusal.detail;
        }
    }
    // More headers than a request usually has: a repeated one is found among them all.
    RequestCase many;
    for (int i = 0; i < 20; ++i) {
        many.edits.push_back({"+x-extra-" + std::to_string(i), "1"});
    }
    EXPECT_EQ(refusalOf(run(many)).status, 200) << refusalOf(run(many)).detail;
    many.edits.push_back({"+x-extra-7", "2"});
    EXPECT_EQ(refusalOf(run(many)).reason, "DuplicateHeaders");
    EXPECT_NE(refusalOf(run(many)).detail.find("\"x-extra-7\""), std::string::npos);
    const auto gone = refusalOf(run({.unregistered = true}));
    EXPECT_EQ(refusalBody(gone), R"({"reason":"Unregistered","timestamp":1650000000000})");
    const auto bad = refusalOf(run({{{"apns-priority", "7"}, {"apns-push-type", "voip"}}}));
    EXPECT_EQ(bad.apnsId, "00000000-0000-4000-8000-000000000000");
    EXPECT_EQ(bad.topic, kBundle);
    EXPECT_EQ(bad.pushType, PushType::voip);
    EXPECT_EQ(refusalBody(bad), R"({"reason":"BadPriority"})");
}

TEST(ProviderRequest, AcceptsAndInfersWhatHeadersLeaveOut) {
    struct Row {
        const char* label;
        RequestCase request;
        PushType type;
        int priority;
        std::string topic;
    };
    const std::string voip = kBundle + ".voip", widgets = kBundle + ".push-type.widgets";
    // clang-format off
    const Row rows[] = {
        {"4096-byte alert", {.body = payloadOf(4096)}, PushType::alert, 10, kBundle},
        {"5120-byte voip", {{{"apns-topic", voip}}, payloadOf(5120)}, PushType::voip, 10, voip},
        {"content-available only", {.body = R"({"aps":{"content-available":1}})"},
         PushType::background, 5, kBundle},
        {"content-available and an alert",
         {.body = R"({"aps":{"content-available":1,"alert":"a"}})"}, PushType::alert, 10, kBundle},
        {"content-available 1.0", {.body = R"({"aps":{"content-available":1.0}})"},
         PushType::background, 5, kBundle},
        {"content-available \"1\"", {.body = R"({"aps":{"content-available":"1"}})"},
         PushType::alert, 10, kBundle},
        {"content-available 2", {.body = R"({"aps":{"content-available":2}})"},
         PushType::alert, 10, kBundle},
        {"content-available and a badge",
         {.body = R"({"aps":{"content-available":1,"badge":0}})"}, PushType::alert, 10, kBundle},
        {"content-available and a sound",
         {.body = R"({"aps":{"sound":"s","content-available":1}})"}, PushType::alert, 10, kBundle},
        {"the last of two aps", {.body = R"({"aps":{"alert":"a"},"aps":{"content-available":1}})"},
         PushType::background, 5, kBundle},
        {"content-available outside aps", {.body = R"({"content-available":1,"aps":[1]})"},
         PushType::alert, 10, kBundle},
        {"complication topic", {{{"apns-topic", kBundle + ".complication"}}},
         PushType::complication, 10, kBundle + ".complication"},
        {"certificate, no topic",
         {.edits = {{"apns-topic", "-"}, {"apns-priority", "1"}}, .certificate = true},
         PushType::alert, 1, kBundle},
        {"certificate, voip topic", {.edits = {{"apns-topic", voip}}, .certificate = true},
         PushType::voip, 10, voip},
        {"sandbox host", {.authority = "api.sandbox.push.apple.com:443"}, PushType::alert, 10,
         kBundle},
        {"development host", {.authority = "api.development.push.apple.com"}, PushType::alert, 10,
         kBundle},
        {"widgets", {{{"apns-topic", widgets}, {"apns-push-type", "widgets"}},
          R"({"aps":{"content-changed":true}})"}, PushType::widgets, 10, widgets},
    };
    // clang-format on
    for (const auto& row : rows) {
        const auto outcome = run(row.request);
        const auto* accepted = std::get_if<PushNotificationRequest>(&outcome);
        ASSERT_NE(accepted, nullptr) << row.label << ": " << refusalOf(outcome).reason;
        EXPECT_EQ(accepted->pushType, row.type) << row.label;
        EXPECT_EQ(accepted->priority, row.priority) << row.label;
        EXPECT_EQ(accepted->topic, row.topic) << row.label;
    }
    const auto outcome = run({.edits = {{"apns-id", "123e4567-e89b-12d3-a456-4266554400a0"},
                                        {"apns-expiration", "1799999999"},
                                        {"apns-collapse-id", std::string(64, 'c')}},
                              .path = "/3/device/" + std::string(64, 'A')});
    const auto& accepted = std::get<PushNotificationRequest>(outcome);
    EXPECT_EQ(accepted.apnsId, "123e4567-e89b-12d3-a456-4266554400a0");
    EXPECT_EQ(accepted.expiration, 1799999999);
    EXPECT_EQ(accepted.collapseId, std::string(64, 'c'));
    EXPECT_EQ(accepted.deviceToken, kDevice);
    EXPECT_EQ(accepted.payload, kAlert);
}

}  // namespace
}  // namespace nimborra::provider
