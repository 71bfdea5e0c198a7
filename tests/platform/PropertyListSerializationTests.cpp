#include "NimbOrraPlatform/PropertyListSerialization.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/SignedProfile.h"
#include "support/TestSupport.h"

namespace {

using nimborra::platform::Array;
using nimborra::platform::Data;
using nimborra::platform::Date;
using nimborra::platform::Dictionary;
using nimborra::platform::PropertyListSerialization;
using nimborra::platform::Value;

std::optional<Value> parse(std::string_view xml) {
    return PropertyListSerialization::propertyList(xml);
}

std::string plist(std::string_view body) {
    return "<plist version=\"1.0\">" + std::string(body) + "</plist>";
}

using ::nimborra::testing::repeated;

Data bytes(std::initializer_list<std::uint8_t> list) {
    return Data{std::vector<std::uint8_t>(list)};
}

// Where libplist alone reads differently from the platform (integer syntax, the range of large
// and negative integers, dates outside its 32-bit window, lenient <data>) the reader must side
// with the platform.
TEST(PropertyListSerializationTest, ReadsScalarsAsThePlatformDoes) {
    // Numbers are read in the C locale, and the thread gets its own locale back.
    const locale_t locale = uselocale(nullptr);
    using int64 = std::numeric_limits<std::int64_t>;
    const auto minusInfinity = Value(-std::numeric_limits<double>::infinity());
    // clang-format off
    const std::pair<std::string, Value> cases[] = {
        {"<string>a &amp; b &lt;c&gt; &#65;&#x1F600;</string>",
         Value("a & b <c> A\xF0\x9F\x98\x80")},
        {"<string><![CDATA[</array>]]></string>", Value("</array>")}, {"<true/>", Value(true)},
        // Any XML white space around a number and before the closing tag's end.
        {"<integer> \t+7\r\n</integer\t>", Value(7)}, {"<integer>010</integer>", Value(10)},
        {"<integer>0x1F</integer>", Value(31)}, {"<integer>0X1f</integer>", Value(31)},
        {"<integer>0x1</integer>", Value(1)}, {"<integer>-0x10</integer>", Value(-16)},
        {"<integer>9223372036854775807</integer>", Value(int64::max())},
        {"<integer>-9223372036854775808</integer>", Value(int64::min())},
        {"<integer>9223372036854775808</integer>", Value(std::uint64_t{1} << 63)},
        {"<integer>18446744073709551615</integer>", Value(~std::uint64_t{0})},
        {"<real>1.5</real>", Value(1.5)}, {"<real>1e3</real>", Value(1000.0)},
        {"<real>0.1</real>", Value(0.1)}, {"<real>-inf</real>", minusInfinity},
        {"<date>2001-01-01T00:00:00Z</date>", Value(Date{978307200})},
        {"<date>2001-1-2T3:4:5Z</date>", Value(Date{978404645})},  // one-digit fields
        {"<date>1900-01-01T00:00:00Z</date>", Value(Date{-2208988800})},
        {"<date>1900-03-01T00:00:00Z</date>", Value(Date{-2203891200})},
        {"<date>2100-03-01T00:00:00Z</date>", Value(Date{4107542400})},
        {"<date>2100-01-01T00:00:00Z</date>", Value(Date{4102444800})},
        {"<date>2096-02-29T12:34:56Z</date>", Value(Date{3981357296})},
        // The last moment of a year, leap second included, inside and outside libplist's window.
        {"<date>2001-12-31T23:59:60Z</date>", Value(Date{1009843200})},
        {"<date>2100-12-31T23:59:60Z</date>", Value(Date{4133980800})},
        {"<date>\n 2001-01-01T00:00:00Z </date>", Value(Date{978307200})},
        {"<data>AAECAw==</data>", Value(bytes({0, 1, 2, 3}))},
        {"<data>+/8=</data>", Value(bytes({0xfb, 0xff}))},
        {"<data>0123456789+/</data>", Value(bytes({211, 93, 183, 227, 158, 187, 243, 223, 191}))},
        {"<data>\n\tAA!E@C\n\tAwQF\n</data>", Value(bytes({0, 1, 2, 3, 4, 5}))},
        {"<data>AAECA</data>", Value(bytes({0, 1, 2}))},  // an incomplete group is ignored
        {"<data></data>", Value(Data{})}, {"<data/>", Value(Data{})}};
    // clang-format on
    for (const auto& [body, expected] : cases) {
        const auto value = parse(plist(body));
        ASSERT_TRUE(value.has_value()) << body;
        EXPECT_EQ(value->kind(), expected.kind()) << body;
        EXPECT_EQ(*value, expected) << body;
    }
    // What stands before the root (processing instructions, a DOCTYPE with an internal subset)
    // is stepped over, and what follows it is still read as the platform reads it.
    for (const std::string prologue :
         {"<?x?>",
          "<?"
          "?>",
          "<!DOCTYPE plist [ <!ENTITY e \"]\"> ]>", "<!DOCTYPE plist>"}) {
        EXPECT_EQ(parse(prologue + plist("<integer>010</integer>")), Value(10)) << prologue;
    }
    const auto nan = parse(plist("<real>nan</real>"));
    EXPECT_EQ(uselocale(nullptr), locale);
    ASSERT_TRUE(nan.has_value() && nan->real() != nullptr);
    EXPECT_TRUE(std::isnan(*nan->real()));
}

TEST(PropertyListSerializationTest, ReadsContainersKeepingOrderAndTheLastOfARepeatedKey) {
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
        "\t<key>b</key><array><integer>1</integer><string>two</string><array/></array>\n"
        "\t<!-- a comment between entries -->\n"
        "\t<key>a</key><dict><key>inner</key><true/></dict>\n"
        "\t<key>empty</key><dict/>\n"
        "\t<key></key><string>first</string>\n"
        "\t<key></key><string>second</string>\n"
        "</dict>\n</plist>\n";
    const std::vector<std::uint8_t> raw(xml.begin(), xml.end());
    const auto value = PropertyListSerialization::propertyList(std::span(raw));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(*value, Value(Dictionary{
                          {"b", Value(Array{Value(1), Value("two"), Value(Array{})})},
                          {"a", Value(Dictionary{{"inner", Value(true)}})},
                          {"empty", Value(Dictionary{})},
                          {"", Value("second")},
                      }));
    const auto& entries = value->dictionary()->entries();
    EXPECT_EQ(entries[0].first, "b");
    EXPECT_EQ(entries[3].first, "") << "a repeated key keeps its first place";
}

// A well-formed binary property list, which is not read: only XML ones are.
const std::string binaryPlist(
    "bplist00\xD1\x01\x02Qa\x10\x01\x08\x0B\x0D\x00\x00\x00\x00\x00\x00"
    "\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00"
    "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x0F",
    50);

TEST(PropertyListSerializationTest, MalformedInputYieldsNothing) {
    // clang-format off
    const std::string bodies[] = {
        "<array><array></array>", "<array></dict>", "<dict><string>x</string></dict>",
        "<array><foo/></array>", "<string>&bogus;</string>", "<array/><!-- ",
        "<string>\xFF\xFE</string>", "<dict><key>\xC0\xAF</key><true/></dict>",
        "<integer>12abc</integer>", "<integer>0x</integer>", "<integer/>",
        "<integer>18446744073709551616</integer>", "<integer>-9223372036854775809</integer>",
        "<integer>1<!-- x -->2</integer>", "<real>1.5x</real>", "<real> </real>",
        "<date>12001-01-01T00:00:00Z</date>", "<date>2001-00-01T00:00:00Z</date>",
        "<date>2001-001-01T00:00:00Z</date>", "<date>2001-13-01T00:00:00Z</date>",
        "<date>2001-01-00T00:00:00Z</date>", "<date>2001-01-32T00:00:00Z</date>",
        "<date>2001-01-01T24:00:00Z</date>", "<date>2001-01-01T00:60:00Z</date>",
        "<date>2001-01-01T00:00:61Z</date>", "<date>2001-01-01T00:00:00</date>"};
    // clang-format on
    for (const std::string& body : bodies) {
        EXPECT_FALSE(parse(plist(body)).has_value()) << body;
    }
    for (const std::string& xml : {std::string(), std::string("garbage"), binaryPlist,
                                   std::string("<plist>\0<true/></plist>", 23)}) {
        EXPECT_FALSE(parse(xml).has_value()) << xml;
    }
}

// Dictionaries count as much as arrays, an empty container (<array/>) adds a level of its own,
// and siblings do not add up; input longer than the size limit is refused.
TEST(PropertyListSerializationTest, ReadsNestingAndSizeUpToTheLimitsAndNoFurther) {
    constexpr std::size_t limit = PropertyListSerialization::maximumDepth;
    Value deepest(Array{});
    for (std::size_t depth = 1; depth < limit; ++depth) {
        deepest = Value(Array{std::move(deepest)});
    }
    // `n` nested arrays, the innermost one written as <array/> when `empty`.
    const auto arrays = [](std::size_t n, bool empty) {
        const std::size_t open = empty ? n - 1 : n;
        return plist(repeated("<array>", open) + (empty ? "<array/>" : "") +
                     repeated("</array>", open));
    };
    for (const bool empty : {false, true}) {
        EXPECT_EQ(parse(arrays(limit, empty)), deepest);
        EXPECT_FALSE(parse(arrays(limit + 1, empty)).has_value());
    }
    EXPECT_FALSE(parse(plist(repeated("<dict><key>k</key>", limit + 1) + "<true/>" +
                             repeated("</dict>", limit + 1)))
                     .has_value());
    EXPECT_TRUE(parse(plist("<array>" + repeated("<array><array/></array>", 2000) + "</array>"))
                    .has_value());
    // The size limit counts every byte of the input.
    const std::size_t filler =
        PropertyListSerialization::maximumLength - plist("<string></string>").size();
    EXPECT_EQ(parse(plist("<string>" + std::string(filler, 'a') + "</string>"))->text()->size(),
              filler);
    EXPECT_FALSE(parse(plist("<string>" + std::string(filler + 1, 'a') + "</string>")));
}

// Runs `work` on a thread with a stack of `stackSize` bytes and waits for it.
void runWithStack(std::size_t stackSize, const std::function<void()>& work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, stackSize), 0);
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        (*static_cast<const std::function<void()>*>(argument))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, body, const_cast<std::function<void()>*>(&work)),
              0);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

// Documents that would make a recursive parser exhaust its stack, some of them hiding closing
// tags where a careless scan would count them (comments, attribute values, processing
// instructions, CDATA sections). They are parsed on a thread with a modest stack (still ample
// for the deepest accepted document), where letting one through would crash.
TEST(PropertyListSerializationTest, SurvivesNestingBombs) {
    constexpr std::size_t bombStackSize = 512 * 1024;
    // As many copies of `piece` as fit under the size limit, at most 100000.
    const auto bomb = [](std::string_view piece) {
        const std::size_t fitting = (PropertyListSerialization::maximumLength - 64) / piece.size();
        return repeated(piece, std::min<std::size_t>(100000, fitting));
    };
    const std::vector<std::string> bombs = {
        plist(bomb("<array>")),
        plist(bomb("<dict><key>k</key>")),
        plist(bomb("<array><!-- > </array> -->")),
        plist(bomb("<array x=\"</array>\">")),
        plist(bomb("<array><?pi \"?></array>\" ?>")),
        plist(bomb("<array><string><![CDATA[ > </array>]]></string>")),
        plist(bomb("<array></ array>")),
        // An empty comment or CDATA section, and a DOCTYPE, must not end the counting early.
        plist("<!---->" + bomb("<array>")),
        plist("<string><![CDATA[]]></string>" + bomb("<array>")),
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"x\">" + plist(bomb("<array>")),
    };
    runWithStack(bombStackSize, [&] {
        const std::size_t limit = PropertyListSerialization::maximumDepth;
        ASSERT_TRUE(parse(plist(repeated("<array>", limit) + repeated("</array>", limit))));
        for (const auto& xml : bombs) {
            EXPECT_FALSE(parse(xml).has_value()) << xml.substr(0, 60);
        }
    });
}

}  // namespace
