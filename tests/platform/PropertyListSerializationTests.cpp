#include "NimbOrraPlatform/PropertyListSerialization.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
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

std::string repeated(std::string_view piece, std::size_t count) {
    std::string text;
    text.reserve(piece.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

// `count` nested arrays, the innermost one written as <array/> when `emptyInnermost`.
std::string nestedArrays(std::size_t count, bool emptyInnermost = false) {
    if (emptyInnermost) {
        return plist(repeated("<array>", count - 1) + "<array/>" + repeated("</array>", count - 1));
    }
    return plist(repeated("<array>", count) + repeated("</array>", count));
}

std::size_t nestingDepth(const Value& value) {
    std::size_t deepest = 0;
    if (const auto* array = value.array()) {
        for (const auto& item : *array) {
            deepest = std::max(deepest, nestingDepth(item));
        }
        return deepest + 1;
    }
    if (const auto* dictionary = value.dictionary()) {
        for (const auto& entry : *dictionary) {
            deepest = std::max(deepest, nestingDepth(entry.second));
        }
        return deepest + 1;
    }
    return 0;
}

Data bytes(std::initializer_list<std::uint8_t> list) {
    return Data{std::vector<std::uint8_t>(list)};
}

struct ScalarCase {
    const char* name;
    std::string body;
    Value expected;
};

class PropertyListScalarTest : public ::testing::TestWithParam<ScalarCase> {};

TEST_P(PropertyListScalarTest, ReadsValueOfTheRightKind) {
    const auto& scenario = GetParam();
    const auto value = parse(plist(scenario.body));
    ASSERT_TRUE(value.has_value()) << scenario.body;
    EXPECT_EQ(value->kind(), scenario.expected.kind()) << scenario.body;
    EXPECT_EQ(*value, scenario.expected) << scenario.body;
}

constexpr std::int64_t int64Max = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t int64Min = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t uint64Max = std::numeric_limits<std::uint64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Scalars, PropertyListScalarTest,
    ::testing::Values(
        ScalarCase{"string", "<string>hello</string>", Value("hello")},
        ScalarCase{"stringEntities", "<string>a &amp; b &lt;c&gt; &#65;&#x1F600;</string>",
                   Value("a & b <c> A\xF0\x9F\x98\x80")},
        ScalarCase{"stringCDATA", "<string><![CDATA[</array>]]></string>", Value("</array>")},
        ScalarCase{"emptyString", "<string></string>", Value("")},
        ScalarCase{"true", "<true/>", Value(true)}, ScalarCase{"false", "<false/>", Value(false)},
        ScalarCase{"positive", "<integer>365</integer>", Value(365)},
        ScalarCase{"negative", "<integer>-5</integer>", Value(-5)},
        ScalarCase{"plusSign", "<integer>+7</integer>", Value(7)},
        ScalarCase{"surroundingSpace", "<integer> 12\n</integer>", Value(12)},
        ScalarCase{"leadingZerosAreDecimal", "<integer>010</integer>", Value(10)},
        ScalarCase{"hexadecimal", "<integer>0x1F</integer>", Value(31)},
        ScalarCase{"negativeHexadecimal", "<integer>-0x10</integer>", Value(-16)},
        ScalarCase{"int64Max", "<integer>9223372036854775807</integer>", Value(int64Max)},
        ScalarCase{"int64Min", "<integer>-9223372036854775808</integer>", Value(int64Min)},
        ScalarCase{"justAboveInt64", "<integer>9223372036854775808</integer>",
                   Value(std::uint64_t{9223372036854775808u})},
        ScalarCase{"uint64Max", "<integer>18446744073709551615</integer>", Value(uint64Max)},
        ScalarCase{"real", "<real>1.5</real>", Value(1.5)},
        ScalarCase{"exponent", "<real>1e3</real>", Value(1000.0)},
        ScalarCase{"shortestRoundTrip", "<real>0.1</real>", Value(0.1)},
        ScalarCase{"infinity", "<real>+infinity</real>",
                   Value(std::numeric_limits<double>::infinity())},
        ScalarCase{"minusInfinity", "<real>-inf</real>",
                   Value(-std::numeric_limits<double>::infinity())},
        ScalarCase{"referenceDate", "<date>2001-01-01T00:00:00Z</date>", Value(Date{978307200})},
        ScalarCase{"epoch", "<date>1970-01-01T00:00:00Z</date>", Value(Date{0})},
        ScalarCase{"leapDay", "<date>2024-02-29T12:34:56Z</date>", Value(Date{1709210096})},
        ScalarCase{"before1932", "<date>1900-01-01T00:00:00Z</date>", Value(Date{-2208988800})},
        ScalarCase{"after2069", "<date>2100-01-01T00:00:00Z</date>", Value(Date{4102444800})},
        ScalarCase{"data", "<data>AAEC</data>", Value(bytes({0, 1, 2}))},
        ScalarCase{"dataPadded", "<data>AAECAw==</data>", Value(bytes({0, 1, 2, 3}))},
        ScalarCase{"dataLines", "<data>\n\tAAEC\n\tAwQF\n</data>",
                   Value(bytes({0, 1, 2, 3, 4, 5}))},
        ScalarCase{"dataForeignCharacters", "<data>AA!E@C</data>", Value(bytes({0, 1, 2}))},
        ScalarCase{"dataIncompleteGroupIgnored", "<data>AAECAw</data>", Value(bytes({0, 1, 2}))},
        ScalarCase{"dataLoneCharacterIgnored", "<data>AAECA</data>", Value(bytes({0, 1, 2}))},
        ScalarCase{"emptyData", "<data></data>", Value(Data{})},
        ScalarCase{"selfClosingData", "<data/>", Value(Data{})}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PropertyListSerializationTest, NotANumberStaysAReal) {
    const auto value = parse(plist("<real>nan</real>"));
    ASSERT_TRUE(value.has_value());
    ASSERT_NE(value->real(), nullptr);
    EXPECT_TRUE(std::isnan(*value->real()));
}

TEST(PropertyListSerializationTest, ReadsContainersKeepingOrder) {
    const auto value = parse(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n<dict>\n"
        "\t<key>b</key><array><integer>1</integer><string>two</string><array/></array>\n"
        "\t<!-- a comment between entries -->\n"
        "\t<key>a</key><dict><key>inner</key><true/></dict>\n"
        "\t<key>empty</key><dict/>\n"
        "\t<key></key><string>empty key</string>\n"
        "</dict>\n</plist>\n");
    ASSERT_TRUE(value.has_value());
    const auto* root = value->dictionary();
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(root->size(), 4u);
    const std::vector<std::string> keys = {"b", "a", "empty", ""};
    for (std::size_t i = 0; i < keys.size(); ++i) {
        ASSERT_NE(root->entries()[i].first.text(), nullptr);
        EXPECT_EQ(*root->entries()[i].first.text(), keys[i]);
    }
    EXPECT_EQ(*value->find("b"), Value(Array{Value(1), Value("two"), Value(Array{})}));
    EXPECT_EQ(*value->find("a"), Value(Dictionary{{"inner", Value(true)}}));
    EXPECT_EQ(*value->find("empty"), Value(Dictionary{}));
    EXPECT_EQ(*value->find(""), Value("empty key"));
}

TEST(PropertyListSerializationTest, LaterDuplicateKeyWins) {
    const auto value = parse(plist(
        "<dict><key>k</key><string>first</string><key>k</key><string>second</string></dict>"));
    ASSERT_TRUE(value.has_value());
    ASSERT_EQ(value->dictionary()->size(), 1u);
    EXPECT_EQ(*value->find("k"), Value("second"));
}

TEST(PropertyListSerializationTest, SpanAndStringOverloadsAgree) {
    const std::string xml = plist("<dict><key>n</key><integer>-3</integer></dict>");
    const std::vector<std::uint8_t> raw(xml.begin(), xml.end());
    const auto fromSpan = PropertyListSerialization::propertyList(std::span(raw));
    ASSERT_TRUE(fromSpan.has_value());
    EXPECT_EQ(*fromSpan, *parse(xml));
}

struct MalformedCase {
    const char* name;
    std::string xml;
};

class PropertyListMalformedTest : public ::testing::TestWithParam<MalformedCase> {};

TEST_P(PropertyListMalformedTest, YieldsNothing) {
    EXPECT_FALSE(parse(GetParam().xml).has_value()) << GetParam().xml;
}

INSTANTIATE_TEST_SUITE_P(
    Malformed, PropertyListMalformedTest,
    ::testing::Values(
        MalformedCase{"empty", ""}, MalformedCase{"notXML", "garbage"},
        MalformedCase{"unclosedString", plist("<string>a")},
        MalformedCase{"unclosedArray", plist("<array><array></array>")},
        MalformedCase{"mismatchedClose", plist("<array></dict>")},
        MalformedCase{"valueWithoutKey", plist("<dict><string>x</string></dict>")},
        MalformedCase{"unknownElement", plist("<array><foo/></array>")},
        MalformedCase{"unknownEntity", plist("<string>&bogus;</string>")},
        MalformedCase{"unterminatedComment", plist("<array/><!-- ")},
        MalformedCase{"invalidUTF8String", plist("<string>\xFF\xFE</string>")},
        MalformedCase{"invalidUTF8Key", plist("<dict><key>\xC0\xAF</key><true/></dict>")},
        MalformedCase{"integerLetters", plist("<integer>abc</integer>")},
        MalformedCase{"integerTrailingLetters", plist("<integer>12abc</integer>")},
        MalformedCase{"integerSelfClosing", plist("<integer/>")},
        MalformedCase{"integerAboveUInt64", plist("<integer>18446744073709551616</integer>")},
        MalformedCase{"integerBelowInt64", plist("<integer>-9223372036854775809</integer>")},
        MalformedCase{"integerWithComment", plist("<integer>1<!-- x -->2</integer>")},
        MalformedCase{"realLetters", plist("<real>abc</real>")},
        MalformedCase{"realTrailingLetters", plist("<real>1.5x</real>")},
        MalformedCase{"dateGarbage", plist("<date>garbage</date>")},
        MalformedCase{"dateMonth13", plist("<date>2001-13-01T00:00:00Z</date>")},
        MalformedCase{"dateWithoutZone", plist("<date>2001-01-01T00:00:00</date>")},
        MalformedCase{"dateFiveDigitYear", plist("<date>12345-01-01T00:00:00Z</date>")}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PropertyListSerializationTest, ReadsNestingUpToTheLimit) {
    for (const bool emptyInnermost : {false, true}) {
        const auto value =
            parse(nestedArrays(PropertyListSerialization::maximumDepth, emptyInnermost));
        ASSERT_TRUE(value.has_value()) << "emptyInnermost=" << emptyInnermost;
        EXPECT_EQ(nestingDepth(*value), PropertyListSerialization::maximumDepth);
    }
}

TEST(PropertyListSerializationTest, RefusesNestingBeyondTheLimit) {
    const std::size_t tooDeep = PropertyListSerialization::maximumDepth + 1;
    EXPECT_FALSE(parse(nestedArrays(tooDeep)).has_value());
    EXPECT_FALSE(parse(nestedArrays(tooDeep, true)).has_value());
    // Dictionaries count as much as arrays.
    const std::string dictionaries =
        plist(repeated("<dict><key>k</key>", tooDeep) + "<true/>" + repeated("</dict>", tooDeep));
    EXPECT_FALSE(parse(dictionaries).has_value());
    // Siblings do not add up: many arrays side by side are fine.
    EXPECT_TRUE(parse(plist("<array>" + repeated("<array><array/></array>", 2000) + "</array>"))
                    .has_value());
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
        "<plist>" + bomb("<array>"),
        plist(bomb("<array>") + bomb("</array>")),
        plist(bomb("<dict><key>k</key>")),
        plist(bomb("<array><!-- </array> -->")),
        plist(bomb("<array><!-- > </array> -->")),
        plist(bomb("<array x=\"</array>\">")),
        plist(bomb("<array><?pi \"?></array>\" ?>")),
        plist(bomb("<array><string><![CDATA[</array>]]></string>")),
        plist(bomb("<array><string><![CDATA[ > </array>]]></string>")),
        plist(bomb("<array></ array>")),
    };
    runWithStack(bombStackSize, [&] {
        ASSERT_TRUE(parse(nestedArrays(PropertyListSerialization::maximumDepth)).has_value());
        for (const auto& xml : bombs) {
            EXPECT_FALSE(parse(xml).has_value()) << xml.substr(0, 60);
        }
    });
}

TEST(PropertyListSerializationTest, RefusesInputLargerThanTheLimit) {
    const std::string opening = "<plist><string>";
    const std::string closing = "</string></plist>";
    const std::size_t filler =
        PropertyListSerialization::maximumLength - opening.size() - closing.size();
    const std::string atLimit = opening + std::string(filler, 'a') + closing;
    ASSERT_EQ(atLimit.size(), PropertyListSerialization::maximumLength);
    const auto value = parse(atLimit);
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->text()->size(), filler);

    const std::string overLimit = opening + std::string(filler + 1, 'a') + closing;
    EXPECT_FALSE(parse(overLimit).has_value());
}

TEST(PropertyListSerializationTest, BinaryAndRandomBytesYieldNothing) {
    const std::string binary(
        "bplist00\xD1\x01\x02Qa\x10\x01\x08\x0B\x0D\x00\x00\x00\x00\x00\x00"
        "\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03\x00\x00\x00\x00\x00\x00"
        "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x0F",
        50);
    EXPECT_FALSE(parse(binary).has_value());
    std::string noise;
    std::uint32_t state = 12345;
    for (int i = 0; i < 4096; ++i) {
        state = state * 1103515245u + 12345u;
        noise += static_cast<char>(state >> 24);
    }
    EXPECT_FALSE(parse(noise).has_value());
    EXPECT_FALSE(parse(std::string("<plist>\0<true/></plist>", 23)).has_value());
}

TEST(PropertyListSerializationTest, ParsesFromManyThreadsAtOnce) {
    const std::string xml = nimborra::testing::profilePlist("development");
    const auto expected = parse(xml);
    ASSERT_TRUE(expected.has_value());
    std::vector<std::thread> threads;
    std::vector<int> matches(8, 0);
    for (std::size_t t = 0; t < matches.size(); ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const auto value = parse(xml);
                matches[t] += value.has_value() && *value == *expected ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    for (const int count : matches) {
        EXPECT_EQ(count, 50);
    }
}

// ---------------------------------------------------------------------------------------------
// Provisioning profiles: the property list is found by a byte search for the first "<plist" and
// the first "</plist>".

std::optional<std::string> embeddedPropertyList(const std::string& bytes) {
    const std::size_t start = bytes.find("<plist");
    const std::size_t closing = bytes.find("</plist>");
    if (start == std::string::npos || closing == std::string::npos) {
        return std::nullopt;
    }
    const std::size_t end = closing + std::string_view("</plist>").size();
    if (start >= end) {
        return std::nullopt;
    }
    return bytes.substr(start, end - start);
}

const Value* entitlements(const Value& root) {
    return root.find("Entitlements");
}

std::optional<std::string> apsEnvironment(const Value& root) {
    const Value* entitlementsValue = entitlements(root);
    if (entitlementsValue == nullptr || entitlementsValue->dictionary() == nullptr) {
        return std::nullopt;
    }
    const Value* aps = entitlementsValue->find("aps-environment");
    if (aps == nullptr || aps->text() == nullptr || aps->text()->empty()) {
        return std::nullopt;
    }
    return *aps->text();
}

// file name -> expected value ("nothing" or the text) from the corpus index's table.
std::map<std::string, std::optional<std::string>> expectedEnvironments(
    const std::filesystem::path& index) {
    std::map<std::string, std::optional<std::string>> expected;
    std::istringstream lines(nimborra::testing::readFile(index));
    std::string line;
    while (std::getline(lines, line)) {
        std::vector<std::string> cells;
        std::istringstream row(line);
        std::string cell;
        while (std::getline(row, cell, '|')) {
            const auto first = cell.find_first_not_of(' ');
            const auto last = cell.find_last_not_of(' ');
            cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
        }
        // "| file | what it is | expected |" splits into an empty cell and three more.
        const bool isProfile = cells.size() == 4 && (cells[1].ends_with(".mobileprovision") ||
                                                     cells[1].ends_with(".provisionprofile"));
        if (!isProfile) {
            continue;
        }
        const std::string& value = cells[3];
        if (value == "nothing") {
            expected[cells[1]] = std::nullopt;
        } else if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            expected[cells[1]] = value.substr(1, value.size() - 2);
        }
    }
    return expected;
}

TEST(PropertyListSerializationTest, ReadsTheEntitlementsOfRealProfiles) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    const auto directory = corpora / "provisioning-profiles";
    const auto expected = expectedEnvironments(directory / "INDEX.md");
    ASSERT_FALSE(expected.empty()) << "no expectations found in INDEX.md";

    std::size_t checked = 0;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const std::string name = entry.path().filename().string();
        if (name == "INDEX.md") {
            continue;
        }
        SCOPED_TRACE(name);
        const auto expectation = expected.find(name);
        ASSERT_NE(expectation, expected.end()) << "not listed in INDEX.md";
        const auto plistBytes = embeddedPropertyList(nimborra::testing::readFile(entry.path()));
        std::optional<std::string> environment;
        if (plistBytes) {
            // Every profile that holds a property list must parse, and have entitlements:
            // "nothing" must come from the entitlements, not from a parse failure.
            const auto root = parse(*plistBytes);
            ASSERT_TRUE(root.has_value());
            ASSERT_NE(root->dictionary(), nullptr);
            ASSERT_NE(entitlements(*root), nullptr);
            ASSERT_NE(entitlements(*root)->dictionary(), nullptr);
            environment = apsEnvironment(*root);
        }
        EXPECT_EQ(environment, expectation->second);
        ++checked;
    }
    EXPECT_EQ(checked, expected.size());
}

// The certificate data of these two profiles is not well-formed base64; the platform reads the
// complete groups of four alphabet characters and ignores the rest.
TEST(PropertyListSerializationTest, ReadsOddCertificateDataLikeThePlatform) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    const auto directory = corpora / "provisioning-profiles";
    const std::vector<std::pair<std::string, std::size_t>> cases = {
        {"enterprise-ber-odd-data.mobileprovision", 1464},      // 1953 characters
        {"unsigned-leading-byte-odd-data.mobileprovision", 9},  // "certificate+key"
    };
    for (const auto& [name, size] : cases) {
        SCOPED_TRACE(name);
        const auto plistBytes = embeddedPropertyList(nimborra::testing::readFile(directory / name));
        ASSERT_TRUE(plistBytes.has_value());
        const auto root = parse(*plistBytes);
        ASSERT_TRUE(root.has_value());
        const Value* certificates = root->find("DeveloperCertificates");
        ASSERT_NE(certificates, nullptr);
        ASSERT_NE(certificates->array(), nullptr);
        ASSERT_EQ(certificates->array()->size(), 1u);
        const Data* data = certificates->array()->front().data();
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(data->bytes.size(), size);
    }
}

TEST(PropertyListSerializationTest, ReadsASignedProfileThroughTheByteSearch) {
    const std::string xml = nimborra::testing::profilePlist("development");
    const auto signedProfile = nimborra::testing::makeSignedProfile(xml);
    if (!signedProfile) {
        GTEST_SKIP() << "the openssl command-line tool is not available";
    }
    ASSERT_FALSE(signedProfile->empty());
    EXPECT_EQ(static_cast<unsigned char>(signedProfile->front()), 0x30u) << "not a DER sequence";
    EXPECT_NE(signedProfile->find("<plist"), 0u) << "the property list is not wrapped";

    const auto plistBytes = embeddedPropertyList(*signedProfile);
    ASSERT_TRUE(plistBytes.has_value());
    const auto root = parse(*plistBytes);
    ASSERT_TRUE(root.has_value());
    EXPECT_EQ(apsEnvironment(*root), "development");
    EXPECT_EQ(*root->find("TimeToLive"), Value(365));
    EXPECT_EQ(*entitlements(*root)->find("get-task-allow"), Value(true));

    const auto withoutPush = parse(nimborra::testing::profilePlist(std::nullopt));
    ASSERT_TRUE(withoutPush.has_value());
    EXPECT_EQ(apsEnvironment(*withoutPush), std::nullopt);
    ASSERT_NE(entitlements(*withoutPush), nullptr);
    EXPECT_TRUE(entitlements(*withoutPush)->find("application-identifier") != nullptr);

    const auto escaped = parse(nimborra::testing::profilePlist("a<b&c"));
    ASSERT_TRUE(escaped.has_value());
    EXPECT_EQ(apsEnvironment(*escaped), "a<b&c");
}

}  // namespace
