#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

// The expected records name only the fields a case sets; the others keep their defaults on
// purpose, which GCC would otherwise report for every designated initializer.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace nimborra::apns {
namespace {

using platform::Array;
using platform::Data;
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

Dictionary withAps(Dictionary aps) {
    return Dictionary{{"aps", std::move(aps)}};
}

TEST(ApnsNotificationMapper, MapsRemotePayloadMembers) {
    const std::vector<std::tuple<const char*, Dictionary, ApnsNotification>> cases = {
        {"alert as text fills only the body", withAps({{"alert", "Hello"}}),
         ApnsNotification{.body = "Hello"}},
        {"alert as dictionary",
         withAps({{"alert", Dictionary{{"title", "T"}, {"subtitle", "S"}, {"body", "B"}}}}),
         ApnsNotification{.title = "T", .subtitle = "S", .body = "B"}},
        {"alert dictionary without body",
         withAps({{"alert", Dictionary{{"title", "T"}, {"loc-key", "K"}}}}),
         ApnsNotification{.title = "T"}},
        {"alert members of the wrong type",
         withAps(
             {{"alert", Dictionary{{"title", 5}, {"subtitle", Array{"x"}}, {"body", nullptr}}}}),
         {}},
        {"alert of another type", withAps({{"alert", 42}}), {}},
        {"sound as text", withAps({{"sound", "default"}}), ApnsNotification{.sound = "default"}},
        {"critical sound dictionary gives its name",
         withAps({{"sound", Dictionary{{"critical", 1}, {"name", "siren.caf"}, {"volume", 0.5}}}}),
         ApnsNotification{.sound = "siren.caf"}},
        {"critical sound dictionary without a text name",
         withAps({{"sound", Dictionary{{"name", 7}}}}),
         {}},
        {"sound of another type", withAps({{"sound", true}}), {}},
        {"identifiers",
         withAps(
             {{"category", "MESSAGE"}, {"thread-id", "chat-1"}, {"target-content-id", "scene"}}),
         ApnsNotification{.categoryIdentifier = "MESSAGE",
                          .threadIdentifier = "chat-1",
                          .targetContentIdentifier = "scene"}},
        {"identifiers of the wrong type",
         withAps({{"category", 1}, {"thread-id", Dictionary{}}, {"target-content-id", Data{{1}}}}),
         {}},
        {"members outside the read set are ignored",
         withAps({{"launch-image", "img.png"},
                  {"interruption-level", "critical"},
                  {"relevance-score", 0.9},
                  {"title", "not an alert"}}),
         {}},
        {"no aps", {{"url", "https://example.com/a"}, {"id", 12}}, {}},
        {"aps that is not a dictionary counts as absent", {{"aps", "alert"}}, {}},
        // The bytes make the user info "{}"; the rest still maps.
        {"bytes outside aps",
         {{"aps", Dictionary{{"alert", "Hi"}}}, {"token", Data{{1, 2}}}},
         ApnsNotification{.body = "Hi"}},
    };
    for (const auto& [name, payload, fields] : cases) {
        SCOPED_TRACE(name);
        // The user info is the whole payload, "aps" included.
        ApnsNotification expected = fields;
        expected.userInfoJson = ApnsNotificationMapper::encodeUserInfoJson(payload);
        EXPECT_EQ(json(ApnsNotificationMapper::map(payload)), json(expected));
    }
}

// Any number counts, truncated toward zero and saturated to 32 bits; anything else is 0.
TEST(ApnsNotificationMapper, BadgeIsAnyNumberSaturatedToInt32) {
    // clang-format off
    const std::pair<Value, std::int32_t> cases[] = {
        {7, 7}, {-1, -1}, {std::int64_t{3000000000}, kInt32Max},
        {std::int64_t{-3000000000}, kInt32Min}, {std::int64_t{kInt32Max}, kInt32Max},
        {std::int64_t{kInt32Min}, kInt32Min},
        {std::numeric_limits<std::uint64_t>::max(), kInt32Max}, {true, 1}, {false, 0}, {2.7, 2},
        {-2.7, -2}, {-1e300, kInt32Min}, {kInfinity, kInt32Max}, {kNaN, 0}, {"5", 0}, {nullptr, 0}};
    // clang-format on
    for (const auto& c : cases) {
        EXPECT_EQ(ApnsNotificationMapper::map(withAps({{"badge", c.first}})).badge, c.second)
            << "case " << &c - cases;
    }
}

// The user info is written with sorted keys, or as "{}" when any part of it cannot be JSON; what
// is written reads back to the same dictionary, and texts that are not a non-empty object are
// refused.
TEST(ApnsNotificationMapper, UserInfoJsonIsWrittenSortedOrAsEmptyAndReadBack) {
    const std::vector<std::tuple<const char*, Dictionary, std::string>> cases = {
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
        {"nested bytes", {{"ok", 1}, {"deep", Array{Dictionary{{"blob", Data{}}}}}}, "{}"},
        {"number key below the top level", {{"outer", Dictionary{{1, "x"}}}}, "{}"},
        {"text that is not UTF-8", {{"name", "\xff\xfe"}}, "{}"},
        {"key that is not UTF-8", {{"\xc3", "v"}}, "{}"},
    };
    for (const auto& [name, userInfo, expected] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(ApnsNotificationMapper::encodeUserInfoJson(userInfo), expected);
    }
    const Dictionary userInfo{{"list", Array{1, 2.5, "x", nullptr, false}},
                              {"nested", Dictionary{{"\xC3\xA9", "\xC3\xBC/"}}}};
    EXPECT_EQ(ApnsNotificationMapper::decodeUserInfoJson(
                  ApnsNotificationMapper::encodeUserInfoJson(userInfo)),
              userInfo);
    EXPECT_EQ(ApnsNotificationMapper::decodeUserInfoJson("{\"a\":\"\xff\"}"), std::nullopt);
}

}  // namespace
}  // namespace nimborra::apns
