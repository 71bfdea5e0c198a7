#include "NimbOrraPlatform/JSONSerialization.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace nimborra::platform {
namespace {

std::string write(const Value& value, JSONWritingOptions options = {.fragmentsAllowed = true}) {
    std::string error;
    auto text = JSONSerialization::data(value, options, &error);
    EXPECT_TRUE(text.has_value()) << error;
    return text.value_or("<failed>");
}

Value nested(std::size_t depth, Value innermost = Array{}) {
    Value value = std::move(innermost);
    for (std::size_t i = 1; i < depth; ++i) {
        value = Array{value};
    }
    return value;
}

// Numbers come out in the platform's shortest form that reads back to the same double.
TEST(JSONWriter, WritesNumbersInThePlatformForm) {
    // The double that the C library reads from the first text, and how it must be written.
    // clang-format off
    const std::pair<const char*, const char*> cases[] = {
        {"0", "0"}, {"-0", "-0"}, {"0.1", "0.1"}, {"0.0001", "0.0001"}, {"0.00001", "1e-05"},
        {"1e15", "1000000000000000"}, {"1e20", "1e+20"}, {"1.5e-300", "1.5e-300"},
        {"123456789012345678", "1.2345678901234568e+17"},
        {"9007199254740992", "9007199254740992"}, {"9007199254740994", "9.007199254740994e+15"},
        {"1.7976931348623157e308", "1.7976931348623157e+308"}};
    // clang-format on
    for (const auto& [number, text] : cases) {
        EXPECT_EQ(write(Value(std::strtod(number, nullptr))), text);
    }
    EXPECT_EQ(write(Value(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
    EXPECT_EQ(write(Value(std::numeric_limits<std::uint64_t>::max())), "18446744073709551615");
    EXPECT_EQ(write(Value(true)), "true");
    EXPECT_EQ(write(Value(nullptr)), "null");
}

// Escapes as the platform writes them (other bytes, DEL and UTF-8 included, pass unchanged). Long
// texts are scanned in blocks of sixteen bytes: escapes at every place in a block, dense or
// sparse, with and without control characters beside them, come out as a byte-by-byte escaper
// writes them.
TEST(JSONWriter, EscapesLikeThePlatformAtEveryPlaceOfABlock) {
    const std::map<char, std::string> escapes = {
        {'"', "\\\""},       {'\\', "\\\\"},      {'/', "\\/"},     {'\n', "\\n"},
        {'\x01', "\\u0001"}, {'\b', "\\b"},       {'\f', "\\f"},    {'\r', "\\r"},
        {'\t', "\\t"},       {'\x1f', "\\u001f"}, {'\0', "\\u0000"}};
    const auto escapedByByte = [&](std::string_view text) {
        std::string out = "\"";
        for (const char c : text) {
            const auto escape = escapes.find(c);
            out += escape == escapes.end() ? std::string(1, c) : escape->second;
        }
        return out + '"';
    };
    const std::string others("\b\f\r\t\x1f\0\x7f\xC3\xA9\xF0\x9F\x98\x80", 13);
    const std::string patterns[] = {"\"", "\\/", "ab\"", "\n\"", "x\x01y/", "/\"\\", others};
    for (const auto& pattern : patterns) {
        for (std::size_t offset = 0; offset < 17; ++offset) {
            std::string input(offset, 'a');
            while (input.size() < 70) {
                input += pattern;
                input += std::string(offset % 5, 'b');
            }
            EXPECT_EQ(write(Value(input)), escapedByByte(input)) << pattern << " at " << offset;
        }
    }
    // One escape alone in a plain text, at each place of texts one to three blocks long.
    for (std::size_t length = 16; length <= 48; ++length) {
        for (std::size_t at = 0; at < length; ++at) {
            std::string input(length, 'a');
            input[at] = '/';
            EXPECT_EQ(write(Value(input)), escapedByByte(input)) << length << " at " << at;
        }
    }
    // One control character late in a text of quotation marks, after what the output holds.
    for (std::size_t at = 0; at < 70; at += 3) {
        std::string input = testing::repeated("a\"/", 24);
        input[at] = '\x01';
        EXPECT_EQ(write(Value(Array{Value("k"), Value(input)})),
                  "[\"k\"," + escapedByByte(input) + "]")
            << at;
    }
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
    const std::string tooDeep = "nesting too deep in JSON write";
    const std::pair<Value, std::string> invalid[] = {
        {Value(Dictionary{{"x", std::nan("")}}), "invalid number (NaN or infinity) in JSON write"},
        {Value(Array{std::numeric_limits<double>::infinity()}),
         "invalid number (NaN or infinity) in JSON write"},
        {Value(Array{Data{{1, 2}}}), "invalid type (byte data) in JSON write"},
        {Value(Dictionary{{"when", Date{0}}}), "invalid type (date) in JSON write"},
        {Value(Dictionary{{Key(1), "number key"}}), "invalid key (not a string) in JSON write"},
        {nested(JSONSerialization::maximumDepth + 1), tooDeep},
        {nested(JSONSerialization::maximumDepth + 1, Dictionary{}), tooDeep},
    };
    for (const auto& [value, reason] : invalid) {
        EXPECT_FALSE(JSONSerialization::isValidJSONObject(value));
        std::string error;
        EXPECT_FALSE(JSONSerialization::data(value, {}, &error).has_value());
        EXPECT_EQ(error, reason);
    }
    // The deepest nesting JSON may hold is checked and written alike.
    for (const auto& deepest : {nested(JSONSerialization::maximumDepth),
                                nested(JSONSerialization::maximumDepth, Dictionary{})}) {
        EXPECT_TRUE(JSONSerialization::isValidJSONObject(deepest));
        EXPECT_TRUE(JSONSerialization::data(deepest, {}).has_value());
    }
    // A dictionary written as such is at the depth of a top-level dictionary value.
    EXPECT_TRUE(JSONSerialization::data(
        Dictionary{{"k", nested(JSONSerialization::maximumDepth - 1)}}, {}));
    EXPECT_FALSE(
        JSONSerialization::data(Dictionary{{"k", nested(JSONSerialization::maximumDepth)}}, {}));
}

// The edges of the grammar where a reader is easily wrong: what each text reads as (kind and
// value, a real's sign included), or that it is refused with a reason. An integer that no 64-bit
// integer holds is still a number, read as the nearest double; nesting stops where the writer's
// does.
TEST(JSONReader, ReadsTheEdgesOfTheGrammarExactly) {
    const auto real = [](double d) { return Value(d); };
    const auto deep = [](std::size_t depth) {
        return std::string(depth, '[') + std::string(depth, ']');
    };
    const std::size_t limit = JSONSerialization::maximumDepth;
    const std::string big = "123456789012345678901234567890";
    const double bigAsDouble = 123456789012345678901234567890.0;
    // clang-format off
    const std::pair<std::string, Value> accepted[] = {
        {"-0", Value(0)}, {"-0.0", real(-0.0)}, {"1e-400", real(0.0)}, {"-1e-400", real(-0.0)},
        {"1.0e-400", real(0.0)}, {"123e-10000000", real(0.0)}, {"25.5e-400", real(0.0)},
        {"0.000e-99999999999999999999", real(0.0)},
        // Its written exponent is large, but its zeros make it tiny.
        {"0." + std::string(500, '0') + "1e100", real(0.0)},
        {"2.5e-324", real(4.9406564584124654e-324)}, {"1E+2", real(100.0)},
        {"9223372036854775807", Value(std::numeric_limits<std::int64_t>::max())},
        {"9223372036854775808", Value(std::uint64_t{1} << 63)},
        {"-9223372036854775808", Value(std::numeric_limits<std::int64_t>::min())},
        {"18446744073709551615", Value(std::numeric_limits<std::uint64_t>::max())},
        {"18446744073709551616", real(18446744073709551616.0)},
        {"-9223372036854775809", real(-9223372036854775809.0)},
        {big, real(bigAsDouble)},
        {"-" + big, real(-bigAsDouble)},
        {"[" + big + ",1e5]", Value(Array{Value(bigAsDouble), Value(100000.0)})},
        {R"(["\"", )" + big + R"(, "\\", ")" + big + "\"]",
         Value(Array{Value("\""), Value(bigAsDouble), Value("\\"), Value(big)})},
        {"\"\\uD83D\\uDE00\\u0000\\u00e9\"", Value(std::string("\xF0\x9F\x98\x80\0\xC3\xA9", 7))},
        {"\"\\ud83d\\ude00\"", Value("\xF0\x9F\x98\x80")},  // a pair at the very end
        {"\"\\b\\f\\n\\r\\t\\\"\\\\\\/\"", Value("\b\f\n\r\t\"\\/")},
        {"\"\x7F\"", Value("\x7F")},
        {" \t\r\n[ 1 , { \"a\" : null } ]\n",
         Value(Array{Value(1), Value(Dictionary{{"a", Value()}})})},
        {deep(limit), nested(limit)},
    };
    // clang-format on
    for (const auto& [text, expected] : accepted) {
        std::string error;
        const auto read = JSONSerialization::jsonObject(text, {.fragmentsAllowed = true}, &error);
        ASSERT_TRUE(read.has_value()) << text.substr(0, 40) << ": " << error;
        EXPECT_EQ(read->kind(), expected.kind()) << text.substr(0, 40);
        EXPECT_EQ(*read, expected) << text.substr(0, 40);
        if (const double* d = expected.real()) {
            EXPECT_EQ(std::signbit(*read->real()), std::signbit(*d)) << text.substr(0, 40);
        }
    }
    // clang-format off
    const std::string refused[] = {
        "[0" + big + "]", "[" + big + "x]", "[" + big + ".]", "[\"" + big + "]", "[" + big,
        "1e400", "1.5e+9999", "0.4e00669999999999999999999999", "-1e99999999999999999999",
        "1.", ".5", "+1", "1e", "-", "00",
        // A high surrogate, then no escape.
        "\"\\ud83dxude00\"",
        "\"\\uD800\"", "\"\\uDC00\"", "\"\\uD800\\u0041\"", "\"\\u004\"", "\"\\U0041\"", "\"\\q\"",
        "\"\x1F\"", "\"\xED\xA0\x80\"", "\"abc", "\"abcdefghijklmnopqrstuvwxyz\\", "truex", "tru",
        "[1]\f", "[1 2]",
        // A literal is read whole, not by its first byte and length.
        "[trUe]", "[falsE]", "[nuLl]",
        // A key that is not a text, a quote after it.
        "{\"a\" 1}", "{1\":2}",
        "[]]", "[[]", "{\"a\":1,}", "", "{", "[1,]", "\xFF", "[\"\xC0\xAF\"]",
        "[\"\xFF\", \"more than a block of text after it\"]", "NaN", "{'a':1}", "[1] x",
        deep(limit + 1), deep(100000)};
    // clang-format on
    for (const std::string& text : refused) {
        std::string error;
        EXPECT_FALSE(JSONSerialization::jsonObject(text, {.fragmentsAllowed = true}, &error))
            << text.substr(0, 40);
        EXPECT_FALSE(error.empty()) << text.substr(0, 40);
    }
    // A refused text is blamed for its own fault, not for an integer beyond 64 bits before it
    // (which the reader takes, as the nearest double).
    for (const std::string huge :
         {"18446744073709551616", "-9223372036854775809", "90000000000000000000"}) {
        std::string bigFirst, smallFirst;
        EXPECT_FALSE(JSONSerialization::jsonObject("[" + huge + ",tru]", {}, &bigFirst));
        EXPECT_FALSE(JSONSerialization::jsonObject("[1,tru]", {}, &smallFirst));
        EXPECT_EQ(bigFirst, smallFirst) << huge;
    }
}

// A repeated member keeps its first place and its last value, and a leading byte order mark is
// skipped. The views see what jsonObject builds: kinds, sizes, the elements in order, the last
// of duplicate members, texts with and without escapes; and a parse inside a visit leaves the
// visited document intact.
TEST(JSONReader, ViewsSeeWhatTheTreeHoldsTheLastDuplicateWinning) {
    const std::string text =
        R"({"a":[1,-2,3.5,"x\"y",[],{}],"b":{"c":true},"a2":null,"b":{"c":false,"d":"plain"}})";
    const auto tree = JSONSerialization::jsonObject("\xEF\xBB\xBF " + text);
    ASSERT_TRUE(tree.has_value());
    EXPECT_EQ(tree->dictionary()->size(), 3u);
    EXPECT_EQ(tree->dictionary()->entries()[1].first, Key("b")) << "insertion order is kept";
    EXPECT_EQ(*tree->find("b"), Value(Dictionary{{"c", false}, {"d", "plain"}}));
    bool visited = false;
    EXPECT_TRUE(visitJSON(text, false, nullptr, [&](const JSONElement& root) {
        visited = true;
        EXPECT_EQ(root.kind(), Value::Kind::dictionary);
        EXPECT_EQ(root.size(), 4u);
        const auto a = root.member("a");
        ASSERT_TRUE(a.has_value());
        EXPECT_EQ(a->size(), 6u);
        // Parsing again from inside the visit does not disturb this document.
        EXPECT_EQ(JSONSerialization::jsonObject("[\"other\",[[2]]]"),
                  Value(Array{Value("other"), Value(Array{Value(Array{Value(2)})})}));
        const auto b = root.member("b");
        ASSERT_TRUE(b.has_value());
        EXPECT_EQ(b->member("c")->boolean(), false) << "the last duplicate counts";
        EXPECT_EQ(b->member("d")->text(), "plain");
        // All at once, as records read their fields: the same answers, whatever the order.
        const std::string_view keys[] = {"d", "z", "c"};
        std::optional<JSONElement> found[] = {JSONElement(), JSONElement(), std::nullopt};
        b->members(keys, found, 3);
        EXPECT_EQ(found[0]->text(), "plain");
        EXPECT_FALSE(found[1].has_value());
        EXPECT_EQ(found[2]->boolean(), false) << "the last duplicate counts";
        a->members(keys, found, 3);
        EXPECT_FALSE(found[0] || found[1] || found[2]) << "an array has no members";
        EXPECT_TRUE(root.member("a2")->isNull());
        EXPECT_FALSE(root.member("z").has_value());
        EXPECT_FALSE(a->member("a").has_value());
        EXPECT_EQ(root.begin(), root.end()) << "an object has no elements to iterate";
        EXPECT_EQ(root.toValue(), *tree);
        EXPECT_EQ(a->toValue(), *tree->find("a"));
    }));
    EXPECT_TRUE(visited);
    EXPECT_FALSE(visitJSON("[1,", true, nullptr, [](const JSONElement&) { FAIL(); }));
    // Sizes count the container's own elements, not those of the containers inside it.
    EXPECT_TRUE(
        visitJSON(R"([[1,[2,3]],{"k":[4],"l":{}},5])", false, nullptr, [](const JSONElement& root) {
            EXPECT_EQ(root.size(), 3u);
            auto item = root.begin();
            EXPECT_EQ((*item).size(), 2u);
            EXPECT_EQ((*++item).size(), 2u);
            EXPECT_EQ((*item).member("k")->size(), 1u);
            EXPECT_EQ((*++item).size(), 0u);
        }));
}

// Fragments are read, checked and written only when asked for.
TEST(JSONReader, AcceptsFragmentsOnlyWhenAsked) {
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(Value("text")));
    EXPECT_FALSE(JSONSerialization::data(Value(1), {}).has_value());
    EXPECT_EQ(JSONSerialization::data(Value(1), {.fragmentsAllowed = true}), "1");
    for (const char* fragment : {"\"x\"", "3", "true", "null"}) {
        std::string error;
        EXPECT_FALSE(JSONSerialization::jsonObject(fragment, {}, &error).has_value()) << fragment;
        EXPECT_EQ(error, "the top-level value is not an array or an object");
        EXPECT_TRUE(JSONSerialization::jsonObject(fragment, {.fragmentsAllowed = true}))
            << fragment;
    }
}

// The public JSON parsing test suite: y_ files must be accepted, n_ files refused, and i_ files
// may go either way but must not crash (their numbers are rows of the grammar-edges table).
TEST(JSONReader, AgreesWithTheParsingTestSuite) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    std::size_t checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpora / "json-test-suite")) {
        const std::string name = entry.path().filename().string();
        const auto value = JSONSerialization::jsonObject(testing::readFile(entry.path()),
                                                         {.fragmentsAllowed = true});
        if (name[0] != 'i' && entry.path().extension() == ".json") {
            EXPECT_EQ(value.has_value(), name[0] == 'y') << name;
            ++checked;
        }
    }
    EXPECT_GT(checked, 250u);
}

// Every member is found, by text or by key, through a read-only or a writable dictionary, both
// while it is searched in order and once it is large enough to keep an index. Setting a key again
// replaces the value where it stands; 1 and 1.0 are one key, and text never equals a number.
TEST(DictionaryTest, FindsEveryMemberWhereverItStands) {
    // Appended, not "k" + std::string: GCC 12 at -O3 reports a false -Wrestrict for that.
    const auto keyNamed = [](int i) { return std::string("k").append(std::to_string(i)); };
    for (const int size : {3, 40}) {
        SCOPED_TRACE(size);
        Dictionary dictionary;
        for (int i = 0; i < size; ++i) {
            dictionary.set(keyNamed(i), i);
        }
        dictionary.set(1, "one");
        dictionary.set(1.0, "replaced");
        const Dictionary& readOnly = dictionary;
        for (int i = 0; i < size; ++i) {
            const std::string key = keyNamed(i);
            Value* found = dictionary.find(key);
            ASSERT_NE(found, nullptr) << key;
            EXPECT_EQ(*found, Value(i)) << key;
            EXPECT_EQ(readOnly.find(key), found) << key;
            EXPECT_EQ(dictionary.find(Key(key)), found) << key;
            EXPECT_EQ(readOnly.find(Key(key)), found) << key;
        }
        EXPECT_EQ(dictionary.entries().back().second, Value("replaced"));
        EXPECT_EQ(dictionary.size(), static_cast<std::size_t>(size) + 1);
        EXPECT_EQ(readOnly.find("1"), nullptr);
        EXPECT_EQ(readOnly.find(Key("k")), nullptr);
        EXPECT_EQ(dictionary.find(keyNamed(size)), nullptr);
    }
}

// Equal means the same keys with equal values, in any order; numbers compare by value across
// their representations.
TEST(ValueTest, EqualityComparesContentsAndNumbersByValue) {
    EXPECT_EQ(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"b", 2}, {"a", 1.0}}));
    EXPECT_NE(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"a", 1}, {"b", 3}}));
    EXPECT_NE(Value(Dictionary{{"a", 1}}), Value(Dictionary{{"b", 1}}));
    EXPECT_NE(Value(Dictionary{{"a", 1}}), Value(Dictionary{{"a", 1}, {"b", 2}}));
    EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(9223372036854775808.0));
    EXPECT_NE(Value(std::uint64_t{1} << 63), Value(1.0));
    EXPECT_NE(Value(-1), Value(-2.0));
    // Keys equal by value hash alike, at the ends of the 64-bit range too.
    for (const auto& [integer, real] :
         {std::pair{Key(1), Key(1.0)},
          std::pair{Key(std::numeric_limits<std::int64_t>::min()), Key(-9223372036854775808.0)}}) {
        EXPECT_EQ(integer, real);
        EXPECT_EQ(integer.hash(), real.hash());
    }
    // The names that decoding failures use for what they found.
    using Kind = Value::Kind;
    for (const auto& [kind, name] :
         {std::pair{Kind::null, "null"}, std::pair{Kind::boolean, "a boolean"},
          std::pair{Kind::integer, "an integer"}, std::pair{Kind::unsignedInteger, "an integer"},
          std::pair{Kind::real, "a number"}, std::pair{Kind::text, "a string"},
          std::pair{Kind::data, "byte data"}, std::pair{Kind::date, "a date"},
          std::pair{Kind::array, "an array"}, std::pair{Kind::dictionary, "an object"}}) {
        EXPECT_EQ(describeKind(kind), name);
    }
}

}  // namespace
}  // namespace nimborra::platform
