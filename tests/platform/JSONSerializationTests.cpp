#include "NimbOrraPlatform/JSONSerialization.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>

#include "support/TestSupport.h"

namespace nimborra::platform {
namespace {

std::string write(const Value& value, JSONWritingOptions options = {.fragmentsAllowed = true}) {
    std::string error;
    auto text = JSONSerialization::data(value, options, &error);
    EXPECT_TRUE(text.has_value()) << error;
    return text.value_or("<failed>");
}

Value nested(std::size_t depth) {
    Value value = Array{};
    for (std::size_t i = 1; i < depth; ++i) {
        value = Array{value};
    }
    return value;
}

struct NumberCase {
    double number;
    const char* text;
};

class JSONWriterNumbers : public ::testing::TestWithParam<NumberCase> {};

TEST_P(JSONWriterNumbers, WritesThePlatformForm) {
    EXPECT_EQ(write(Value(GetParam().number)), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Doubles, JSONWriterNumbers,
    ::testing::Values(NumberCase{0.0, "0"}, NumberCase{-0.0, "-0"}, NumberCase{1.0, "1"},
                      NumberCase{0.1, "0.1"}, NumberCase{0.0001, "0.0001"},
                      NumberCase{0.00001, "1e-05"}, NumberCase{1e15, "1000000000000000"},
                      NumberCase{1e20, "1e+20"},
                      NumberCase{123456789012345678.0, "1.2345678901234568e+17"},
                      NumberCase{-2.5, "-2.5"}, NumberCase{9007199254740992.0, "9007199254740992"},
                      NumberCase{9007199254740994.0, "9.007199254740994e+15"},
                      NumberCase{1.5e-300, "1.5e-300"}, NumberCase{123.456, "123.456"},
                      NumberCase{std::numeric_limits<double>::max(), "1.7976931348623157e+308"}));

TEST(JSONWriter, WritesIntegersExactly) {
    EXPECT_EQ(write(Value(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
    EXPECT_EQ(write(Value(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
    EXPECT_EQ(write(Value(true)), "true");
    EXPECT_EQ(write(Value(nullptr)), "null");
}

TEST(JSONWriter, EscapesLikeThePlatform) {
    const std::string input = std::string("a\"b\\c/d\b\f\n\r\t") + '\x01' + '\x1f' + '\0' + "\x7f" +
                              "\xC3\xA9\xF0\x9F\x98\x80";
    EXPECT_EQ(
        write(Value(input)),
        "\"a\\\"b\\\\c\\/d\\b\\f\\n\\r\\t\\u0001\\u001f\\u0000\x7f\xC3\xA9\xF0\x9F\x98\x80\"");
}

TEST(JSONWriter, KeepsInsertionOrderOrSortsByKeyBytesAtEveryLevel) {
    Dictionary inner{{"b", 1}, {"B", 2}, {"a", 3}};
    Dictionary outer{{"z", Value(inner)}, {"\xC3\xA9", 0}, {"a", Array{Value(inner)}}};
    EXPECT_EQ(write(Value(outer)),
              "{\"z\":{\"b\":1,\"B\":2,\"a\":3},\"\xC3\xA9\":0,\"a\":[{\"b\":1,\"B\":2,\"a\":3}]}");
    EXPECT_EQ(write(Value(outer), {.sortedKeys = true}),
              "{\"a\":[{\"B\":2,\"a\":3,\"b\":1}],\"z\":{\"B\":2,\"a\":3,\"b\":1},\"\xC3\xA9\":0}");
}

TEST(JSONWriter, RefusesWhatJSONCannotExpress) {
    const Value invalid[] = {
        Value(Dictionary{{"x", std::nan("")}}),
        Value(Array{std::numeric_limits<double>::infinity()}),
        Value(Array{Data{{1, 2}}}),
        Value(Dictionary{{"when", Date{0}}}),
        Value(Dictionary{{Key(1), "number key"}}),
        nested(JSONSerialization::maximumDepth + 1),
    };
    for (const auto& value : invalid) {
        EXPECT_FALSE(JSONSerialization::isValidJSONObject(value));
        std::string error;
        EXPECT_FALSE(JSONSerialization::data(value, {}, &error).has_value());
        EXPECT_FALSE(error.empty());
    }
    EXPECT_TRUE(JSONSerialization::isValidJSONObject(nested(JSONSerialization::maximumDepth)));
    // Fragments are valid only when asked for.
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(Value("text")));
    EXPECT_FALSE(JSONSerialization::data(Value(1), {}).has_value());
    EXPECT_EQ(JSONSerialization::data(Value(1), {.fragmentsAllowed = true}), "1");
}

TEST(JSONReader, ReadsValuesOfEveryKind) {
    auto value = JSONSerialization::jsonObject(
        "\xEF\xBB\xBF "
        "{\"i\":-5,\"u\":18446744073709551615,\"d\":2.5,\"e\":1e2,\"s\":\"\\u00e9\\/\","
        "\"b\":false,\"n\":null,\"a\":[1,{}],\"i\":7}");
    ASSERT_TRUE(value.has_value());
    const Dictionary& object = *value->dictionary();
    EXPECT_EQ(object.size(), 8u);
    EXPECT_EQ(*object.find("i")->integer(), 7) << "the last duplicate wins";
    EXPECT_EQ(*object.find("u")->unsignedInteger(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(*object.find("d")->real(), 2.5);
    EXPECT_EQ(*object.find("e"), Value(100));
    EXPECT_EQ(*object.find("s")->text(), "\xC3\xA9/");
    EXPECT_TRUE(object.find("n")->isNull());
    EXPECT_EQ(object.entries()[0].first, Key("i")) << "insertion order is kept";
}

TEST(JSONReader, AcceptsFragmentsOnlyWhenAsked) {
    for (const char* fragment : {"\"x\"", "3", "true", "null"}) {
        EXPECT_FALSE(JSONSerialization::jsonObject(fragment).has_value()) << fragment;
        EXPECT_TRUE(JSONSerialization::jsonObject(fragment, {.fragmentsAllowed = true}))
            << fragment;
    }
}

TEST(JSONReader, RejectsInvalidInputWithAReason) {
    for (const char* text : {"", "{", "[1,]", "{\"a\":1,}", "\xFF", "[\"\xC0\xAF\"]", "NaN", "[01]",
                             "{'a':1}", "[1] x"}) {
        std::string error;
        EXPECT_FALSE(JSONSerialization::jsonObject(text, {.fragmentsAllowed = true}, &error))
            << text;
        EXPECT_FALSE(error.empty()) << text;
    }
}

TEST(JSONReader, NestingLimitMatchesTheWriter) {
    const std::size_t limit = JSONSerialization::maximumDepth;
    const auto deep = [](std::size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    auto accepted = JSONSerialization::jsonObject(deep(limit));
    ASSERT_TRUE(accepted.has_value());
    EXPECT_EQ(*accepted, nested(limit));
    EXPECT_FALSE(JSONSerialization::jsonObject(deep(limit + 1)).has_value());
    EXPECT_FALSE(JSONSerialization::jsonObject(deep(100000)).has_value());
}

TEST(JSONReader, RoundTripsThroughTheWriter) {
    const char* texts[] = {
        "{\"a\":[1,-2,3.25,1e-05,true,null,\"\\\"\\\\\\/\\n\"],\"b\":{\"c\":{}}}",
        "[18446744073709551615,-9223372036854775808,0.1,-0.5]",
    };
    for (const char* text : texts) {
        auto value = JSONSerialization::jsonObject(text);
        ASSERT_TRUE(value.has_value()) << text;
        auto written = JSONSerialization::data(*value);
        ASSERT_TRUE(written.has_value());
        EXPECT_EQ(*written, text);
    }
}

// The public JSON parsing test suite: y_ files must be accepted, n_ files rejected, and other i_
// files may go either way but must not crash. The i_number files have a stated answer each: an
// integer that no 64-bit integer holds reads as the nearest double, a magnitude below the
// smallest double as 0, and one beyond the largest double is refused.
TEST(JSONReader, AgreesWithTheParsingTestSuite) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    const auto suite = corpora / "json-test-suite";
    const std::map<std::string, std::optional<double>> numbers = {
        {"i_number_double_huge_neg_exp.json", 0.0},
        {"i_number_huge_exp.json", std::nullopt},
        {"i_number_neg_int_huge_exp.json", std::nullopt},
        {"i_number_pos_double_huge_exp.json", std::nullopt},
        {"i_number_real_neg_overflow.json", std::nullopt},
        {"i_number_real_pos_overflow.json", std::nullopt},
        {"i_number_real_underflow.json", 0.0},
        {"i_number_too_big_neg_int.json", -123123123123123123123123123123.0},
        {"i_number_too_big_pos_int.json", 100000000000000000000.0},
        {"i_number_very_big_negative_int.json",
         -237462374673276894279832749832423479823246327846.0},
    };
    std::size_t checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(suite)) {
        const std::string name = entry.path().filename().string();
        if (entry.path().extension() != ".json") {
            continue;
        }
        const std::string text = testing::readFile(entry.path());
        const bool accepted =
            JSONSerialization::jsonObject(text, {.fragmentsAllowed = true}).has_value();
        if (name.starts_with("y_")) {
            EXPECT_TRUE(accepted) << name;
        } else if (name.starts_with("n_")) {
            EXPECT_FALSE(accepted) << name;
        } else if (name.starts_with("i_number_")) {
            ASSERT_TRUE(numbers.contains(name)) << name << " has no stated answer";
            const auto expected = numbers.at(name);
            const auto value = JSONSerialization::jsonObject(text);
            EXPECT_EQ(value,
                      expected ? std::optional(Value(Array{Value(*expected)})) : std::nullopt)
                << name;
        }
        ++checked;
    }
    EXPECT_GT(checked, 300u);
}

}  // namespace
}  // namespace nimborra::platform
