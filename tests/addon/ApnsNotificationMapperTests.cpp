#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::apns {
namespace {

using platform::Array;
using platform::Data;
using platform::Date;
using platform::Dictionary;
using platform::UNNotificationContent;
using platform::Value;

constexpr std::int32_t kInt32Max = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kInt32Min = std::numeric_limits<std::int32_t>::min();
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

// A record in its wire form, so that a failed comparison shows the fields that differ.
std::string json(const ApnsNotification& notification) {
    auto encoded = core::OrraJSONCoding::makeEncoder().encode(notification);
    return encoded.ok() ? encoded.value() : "unencodable: " + encoded.error().description();
}

Dictionary payloadWithAps(Dictionary aps) {
    return Dictionary{{"aps", std::move(aps)}};
}

// The record expected from a remote payload, built field by field; `launchImageName`,
// `interruptionLevel` and `relevanceScore` stay empty on that path.
struct Expected {
    ApnsNotification n;
    Expected& title(std::string v) { return n.title = std::move(v), *this; }
    Expected& subtitle(std::string v) { return n.subtitle = std::move(v), *this; }
    Expected& body(std::string v) { return n.body = std::move(v), *this; }
    Expected& sound(std::string v) { return n.sound = std::move(v), *this; }
    Expected& category(std::string v) { return n.categoryIdentifier = std::move(v), *this; }
    Expected& thread(std::string v) { return n.threadIdentifier = std::move(v), *this; }
    Expected& target(std::string v) { return n.targetContentIdentifier = std::move(v), *this; }
};

TEST(ApnsNotificationMapper, MapsRemotePayloadMembers) {
    struct Case {
        const char* name;
        Dictionary aps;
        Expected expected;
    };
    const std::vector<Case> cases = {
        {"alert as text fills only the body", {{"alert", "Hello"}}, Expected().body("Hello")},
        {"alert as dictionary",
         {{"alert", Dictionary{{"title", "T"}, {"subtitle", "S"}, {"body", "B"}}}},
         Expected().title("T").subtitle("S").body("B")},
        {"alert dictionary without body",
         {{"alert", Dictionary{{"title", "T"}, {"loc-key", "K"}}}},
         Expected().title("T")},
        {"alert members of the wrong type",
         {{"alert", Dictionary{{"title", 5}, {"subtitle", Array{"x"}}, {"body", nullptr}}}},
         {}},
        {"alert of another type", {{"alert", 42}}, {}},
        {"sound as text", {{"sound", "default"}}, Expected().sound("default")},
        {"critical sound dictionary gives its name",
         {{"sound", Dictionary{{"critical", 1}, {"name", "siren.caf"}, {"volume", 0.5}}}},
         Expected().sound("siren.caf")},
        {"critical sound dictionary without a text name", {{"sound", Dictionary{{"name", 7}}}}, {}},
        {"sound as empty text", {{"sound", ""}}, {}},
        {"sound of another type", {{"sound", true}}, {}},
        {"identifiers",
         {{"category", "MESSAGE"}, {"thread-id", "chat-1"}, {"target-content-id", "scene"}},
         Expected().category("MESSAGE").thread("chat-1").target("scene")},
        {"identifiers of the wrong type",
         {{"category", 1}, {"thread-id", Dictionary{}}, {"target-content-id", Data{{1}}}},
         {}},
        {"members outside the read set are ignored",
         {{"launch-image", "img.png"},
          {"interruption-level", "critical"},
          {"relevance-score", 0.9},
          {"title", "not an alert"}},
         {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Dictionary payload = payloadWithAps(c.aps);
        ApnsNotification expected = c.expected.n;
        expected.userInfoJson = ApnsNotificationMapper::encodeUserInfoJson(payload);
        EXPECT_EQ(json(ApnsNotificationMapper::map(payload)), json(expected));
    }
}

TEST(ApnsNotificationMapper, BadgeIsAnyNumberSaturatedToInt32) {
    struct Case {
        const char* name;
        Value badge;
        std::int32_t expected;
    };
    const std::vector<Case> cases = {
        {"small integer", 7, 7},
        {"negative integer", -1, -1},
        {"above int32", std::int64_t{3000000000}, kInt32Max},
        {"below int32", std::int64_t{-3000000000}, kInt32Min},
        {"int32 max exactly", std::int64_t{kInt32Max}, kInt32Max},
        {"int32 min exactly", std::int64_t{kInt32Min}, kInt32Min},
        {"int64 min", std::numeric_limits<std::int64_t>::min(), kInt32Min},
        {"beyond int64", std::numeric_limits<std::uint64_t>::max(), kInt32Max},
        {"true", true, 1},
        {"false", false, 0},
        {"real truncates", 2.7, 2},
        {"negative real truncates toward zero", -2.7, -2},
        {"huge real", 1e300, kInt32Max},
        {"huge negative real", -1e300, kInt32Min},
        {"infinity", kInfinity, kInt32Max},
        {"NaN", kNaN, 0},
        {"numeric text", "5", 0},
        {"null", nullptr, 0},
        {"array", Array{1}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ApnsNotificationMapper::map(payloadWithAps({{"badge", c.badge}})).badge,
                  c.expected);
    }
}

TEST(ApnsNotificationMapper, PayloadWithoutApsStillMaps) {
    const Dictionary payload{{"url", "https://example.com/a"}, {"id", 12}};
    const ApnsNotification n = ApnsNotificationMapper::map(payload);
    ApnsNotification expected;
    expected.userInfoJson = R"({"id":12,"url":"https:\/\/example.com\/a"})";
    EXPECT_EQ(json(n), json(expected));

    // "aps" that is not a dictionary counts as absent; the user info still holds it.
    const ApnsNotification notDictionary =
        ApnsNotificationMapper::map(Dictionary{{"aps", "alert"}});
    EXPECT_EQ(notDictionary.body, "");
    EXPECT_EQ(notDictionary.userInfoJson, R"({"aps":"alert"})");
}

TEST(ApnsNotificationMapper, UserInfoJsonHoldsTheWholePayloadSorted) {
    const Dictionary payload{
        {"z", 1},
        {"aps", Dictionary{{"sound", "default"}, {"alert", Dictionary{{"title", "T"}}}}},
        {"custom", Array{Dictionary{{"b", 2}, {"a", 1}}}},
    };
    EXPECT_EQ(
        ApnsNotificationMapper::map(payload).userInfoJson,
        R"({"aps":{"alert":{"title":"T"},"sound":"default"},"custom":[{"a":1,"b":2}],"z":1})");
}

TEST(ApnsNotificationMapper, EncodeUserInfoJson) {
    struct Case {
        const char* name;
        Dictionary userInfo;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"empty", {}, "{}"},
        {"keys sorted at every level",
         {{"b", Dictionary{{"z", true}, {"a", nullptr}}},
          {"a", Array{Dictionary{{"d", 1}, {"c", 2}}}}},
         R"({"a":[{"c":2,"d":1}],"b":{"a":null,"z":true}})"},
        {"slash escaped", {{"path", "a/b"}}, R"({"path":"a\/b"})"},
        {"number keys in decimal",
         {{7, "x"}, {-2, "y"}, {1.5, "z"}},
         R"({"-2":"y","1.5":"z","7":"x"})"},
        {"later text key replaces number key", {{1, "number"}, {"1", "text"}}, R"({"1":"text"})"},
        {"later number key replaces text key", {{"1", "text"}, {1, "number"}}, R"({"1":"number"})"},
        {"reals", {{"r", 0.25}, {"i", 2.0}}, R"({"i":2,"r":0.25})"},
        {"top-level bytes", {{"token", Data{{0xde, 0xad}}}}, "{}"},
        {"nested bytes", {{"ok", 1}, {"deep", Array{Dictionary{{"blob", Data{}}}}}}, "{}"},
        {"date", {{"ok", 1}, {"when", Date{1.0}}}, "{}"},
        {"NaN", {{"ok", 1}, {"score", kNaN}}, "{}"},
        {"nested infinity", {{"list", Array{1, kInfinity}}}, "{}"},
        {"number key below the top level", {{"outer", Dictionary{{1, "x"}}}}, "{}"},
        {"text that is not UTF-8", {{"name", "\xff\xfe"}}, "{}"},
        {"key that is not UTF-8", {{"\xc3", "v"}}, "{}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ApnsNotificationMapper::encodeUserInfoJson(c.userInfo), c.expected);
    }
}

TEST(ApnsNotificationMapper, BadUserInfoOnlyEmptiesTheUserInfoJson) {
    const Dictionary payload{{"aps", Dictionary{{"alert", "Hi"}, {"badge", kNaN}}},
                             {"token", Data{{1, 2, 3}}}};
    const ApnsNotification n = ApnsNotificationMapper::map(payload);
    EXPECT_EQ(n.body, "Hi");
    EXPECT_EQ(n.badge, 0);
    EXPECT_EQ(n.userInfoJson, "{}");
}

UNNotificationContent fullContent() {
    UNNotificationContent content;
    content.title = "Title";
    content.subtitle = "Sub";
    content.body = "Body";
    content.badge = 4;
    content.sound = "default";
    content.categoryIdentifier = "cat";
    content.threadIdentifier = "thread";
    content.launchImageName = "launch.png";
    content.targetContentIdentifier = "target";
    content.interruptionLevel = platform::UNNotificationInterruptionLevelTimeSensitive;
    content.relevanceScore = 0.75;
    content.userInfo = Dictionary{{"k", "v/w"}, {"aps", Dictionary{{"alert", "ignored"}}}};
    return content;
}

TEST(ApnsNotificationMapper, MapsContent) {
    const ApnsNotification expected{"Title",  "Sub",
                                    "Body",   4,
                                    "",       "cat",
                                    "thread", "launch.png",
                                    "target", UNNotificationInterruptionLevel::timeSensitive,
                                    0.75,     R"({"aps":{"alert":"ignored"},"k":"v\/w"})"};
    EXPECT_EQ(json(ApnsNotificationMapper::map(fullContent())), json(expected));

    UNNotificationContent bare = fullContent();
    bare.badge.reset();
    bare.sound.reset();
    bare.targetContentIdentifier.reset();
    bare.userInfo = Dictionary{{"d", Date{}}};
    const ApnsNotification mapped = ApnsNotificationMapper::map(bare);
    EXPECT_EQ(mapped.badge, 0);
    EXPECT_EQ(mapped.sound, "");
    EXPECT_EQ(mapped.targetContentIdentifier, "");
    EXPECT_EQ(mapped.userInfoJson, "{}");
}

TEST(ApnsNotificationMapper, ContentInterruptionLevelAndBadge) {
    const std::vector<std::pair<std::int64_t, UNNotificationInterruptionLevel>> levels = {
        {0, UNNotificationInterruptionLevel::passive},
        {1, UNNotificationInterruptionLevel::active},
        {2, UNNotificationInterruptionLevel::timeSensitive},
        {3, UNNotificationInterruptionLevel::critical},
        {4, UNNotificationInterruptionLevel::unspecified},
        {7, UNNotificationInterruptionLevel::unspecified},
        {-1, UNNotificationInterruptionLevel::unspecified},
    };
    for (const auto& [platformLevel, expected] : levels) {
        UNNotificationContent content;
        content.interruptionLevel = platformLevel;
        EXPECT_EQ(ApnsNotificationMapper::map(content).interruptionLevel, expected)
            << "platform level " << platformLevel;
    }

    const std::vector<std::pair<std::int64_t, std::int32_t>> badges = {
        {-1, -1},
        {5000000000, kInt32Max},
        {-5000000000, kInt32Min},
        {kInt32Max, kInt32Max},
    };
    for (const auto& [badge, expected] : badges) {
        UNNotificationContent content;
        content.badge = badge;
        EXPECT_EQ(ApnsNotificationMapper::map(content).badge, expected) << "badge " << badge;
    }
}

TEST(ApnsNotificationMapper, UnsetIsTheEmptyRecord) {
    // Unlike a mapped record, its user info is the empty text rather than "{}".
    EXPECT_EQ(json(ApnsNotificationMapper::unset()), json(ApnsNotification{}));
}

TEST(ApnsNotificationMapper, DecodeUserInfoJsonRefusesAllButNonEmptyObjects) {
    const std::vector<std::string> refused = {
        "",         "  ",   "[1,2]",   "{}",         " { } ",    "42",
        "\"text\"", "null", "{\"a\":", "{\"a\":1,}", "\xff\xfe", "{\"a\":\"\xff\"}",
    };
    for (const auto& text : refused) {
        EXPECT_EQ(ApnsNotificationMapper::decodeUserInfoJson(text), std::nullopt)
            << "text: " << text;
    }
}

TEST(ApnsNotificationMapper, DecodeUserInfoJsonReadsObjects) {
    const auto decoded =
        ApnsNotificationMapper::decodeUserInfoJson(R"({"aps":{"alert":"hi"},"n":1,"p":"a\/b"})");
    ASSERT_TRUE(decoded.has_value());
    EXPECT_EQ(*decoded, (Dictionary{{"aps", Dictionary{{"alert", "hi"}}}, {"n", 1}, {"p", "a/b"}}));

    // What encodeUserInfoJson writes reads back to the same dictionary.
    const Dictionary userInfo{{"list", Array{1, 2.5, "x", nullptr, false}},
                              {"nested", Dictionary{{"é", "ü/"}}}};
    EXPECT_EQ(ApnsNotificationMapper::decodeUserInfoJson(
                  ApnsNotificationMapper::encodeUserInfoJson(userInfo)),
              userInfo);
}

}  // namespace
}  // namespace nimborra::apns
