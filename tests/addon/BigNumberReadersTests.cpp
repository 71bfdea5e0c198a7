// A JSON number that no 64-bit integer holds is still a number: it reads as the nearest double
// in every reader, where it used to make the whole text "not valid JSON".
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "NimbOrraPlatform/JSONSerialization.h"
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
        {"[" + big + ",1e5]", Value(Array{Value(bigAsDouble), Value(100000.0)})},
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

// Requests, user info and launch payloads are checked through the host (big-numbers.jsonl);
// an outcome's raw JSON is not reachable from there.
TEST(BigNumbers, OutcomeRawJSONTakesThem) {
    EXPECT_EQ(ApnsOutcomeEnvelope::unknownReply({"CODE", big}),
              R"({"outcome":{"code":"CODE","data":1.2345678901234568e+29}})");
}

}  // namespace
}  // namespace nimborra::apns
