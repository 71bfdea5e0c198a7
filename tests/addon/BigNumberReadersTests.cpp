// A JSON number that no 64-bit integer holds is still a number: it reads as the nearest double
// in every reader, where it used to make the whole text "not valid JSON".
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"
#include "NimbOrraPushAddonApns/ApnsOutcomeEnvelope.h"

namespace nimborra::apns {
namespace {

using platform::Array;
using platform::Value;

const std::string big = "123456789012345678901234567890";
constexpr double bigAsDouble = 123456789012345678901234567890.0;

TEST(BigNumbers, ParseAsTheNearestDoubleWhileWhatIsNotJSONStaysRefused) {
    const std::pair<std::string, std::optional<Value>> cases[] = {
        {"[" + big + "]", Value(Array{Value(bigAsDouble)})},
        {"[-" + big + "]", Value(Array{Value(-bigAsDouble)})},
        {"[18446744073709551616]", Value(Array{Value(18446744073709551616.0)})},
        {"[18446744073709551615]", Value(Array{Value(std::uint64_t{18446744073709551615u})})},
        {"[-9223372036854775809]", Value(Array{Value(-9223372036854775809.0)})},
        {"[-9223372036854775808]", Value(Array{Value(INT64_MIN)})},
        {R"(["\"", )" + big + R"(, "\\", ")" + big + "\"]",
         Value(Array{Value("\""), Value(bigAsDouble), Value("\\"), Value(big)})},
        {"[0" + big + "]", std::nullopt},
        {"[" + big + "x]", std::nullopt},
        {"[" + big + ".]", std::nullopt},
        {"[\"" + big + "]", std::nullopt},
        {"[" + big, std::nullopt},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(platform::JSONSerialization::jsonObject(text), expected) << text;
    }
}

TEST(BigNumbers, EveryReaderTakesThem) {
    const auto decoder = core::OrraJSONCoding::makeDecoder();
    // Unknown keys are ignored, also in a request that has no fields.
    const auto badge =
        decoder.decode<APNSServiceSetBadgeCountRequest>(R"({"count":3,"extra":)" + big + "}");
    ASSERT_TRUE(badge.ok());
    EXPECT_EQ(badge.value().count, 3);
    EXPECT_TRUE(decoder.decode<APNSServiceGetTokenRequest>(R"({"extra":[)" + big + "]}").ok());
    // A 64-bit floating-point field takes 2^64 as it takes 2^64 - 1.
    for (const std::string score : {"18446744073709551615", "18446744073709551616"}) {
        std::string text = core::OrraJSONCoding::makeEncoder().encode(ApnsNotification{}).value();
        const std::string zero = "\"relevanceScore\":0";
        text.replace(text.find(zero), zero.size(), "\"relevanceScore\":" + score);
        const auto notification = decoder.decode<ApnsNotification>(text);
        ASSERT_TRUE(notification.ok()) << text;
        EXPECT_EQ(notification.value().relevanceScore, 18446744073709551616.0);
    }
    // User-info JSON (launch payloads included) and an outcome's raw JSON.
    const auto userInfo = ApnsNotificationMapper::decodeUserInfoJson(R"({"n":)" + big + "}");
    ASSERT_TRUE(userInfo.has_value());
    EXPECT_EQ(*userInfo->find("n"), Value(bigAsDouble));
    EXPECT_EQ(ApnsOutcomeEnvelope::unknownReply({"CODE", big}),
              R"({"outcome":{"code":"CODE","data":1.2345678901234568e+29}})");
}

}  // namespace
}  // namespace nimborra::apns
