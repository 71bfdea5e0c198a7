// The platform's small text helpers: hexadecimal, UUIDs, base64url, ASCII case and UTF-8. Each
// is the one copy the libraries share, so each edge a caller relies on is pinned here.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/Text.h"
#include "NimbOrraPlatform/Uuid.h"

namespace nimborra::platform {
namespace {

std::vector<std::uint8_t> bytes(std::string_view text) {
    return {text.begin(), text.end()};
}

TEST(Hex, EncodesBothCasesWithSeparatorsAndDecodesOnlyWholePairs) {
    const std::vector<std::uint8_t> data{0x7e, 0x00, 0xa0, 0xff};
    EXPECT_EQ(hexEncodedString(data), "7e00a0ff");
    EXPECT_EQ(hexEncodedString(data, HexCase::upper, ':'), "7E:00:A0:FF");
    EXPECT_EQ(hexDecodedData("7E00a0FF"), data);
    EXPECT_EQ(hexDecodedData(""), std::vector<std::uint8_t>{});
    for (const char* bad : {"0", "0g", "0x00", " 00", "-1"}) {
        EXPECT_FALSE(hexDecodedData(bad)) << bad;
    }
    EXPECT_TRUE(isHexText("09afAF"));
    EXPECT_FALSE(isHexText("09afAG"));
}

// Without a sink of the host's, each record at or above the level is one line on standard error,
// named by its level as --log-level names it.
TEST(Logger, TheDefaultSinkWritesALinePerRecordAtOrAboveTheLevel) {
    setLogSink({});
    const Logger logger("com.example", "unit");
    ::testing::internal::CaptureStderr();
    setLogLevel(LogLevel::debug);
    logger.debug("d");
    logger.info("i");
    logger.error("e");
    setLogLevel(LogLevel::error);
    logger.info("below the level");
    setLogLevel(LogLevel::off);
    logger.error("nothing is written");
    setLogLevel(LogLevel::info);
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "debug [com.example:unit] d\ninfo [com.example:unit] i\nerror [com.example:unit] e\n");
    EXPECT_EQ(logLevelName(LogLevel::off), "off");
}

TEST(Uuid, RecognisesTheTextFormAndMakesVersionFourInLowerCase) {
    for (const char* text :
         {"123e4567-e89b-12d3-a456-426614174000", "8F1B5B6C-6d4a-4F6B-9B1E-2C3D4E5F6A7B"}) {
        EXPECT_TRUE(isUuidText(text)) << text;
    }
    for (const char* text :
         {"123e4567e89b12d3a456426614174000", "123e4567-e89b-12d3-a456-42661417400",
          "123e4567-e89b-12d3-a456-4266141740000", "123e4567-e89b-12d3-a456_426614174000",
          "g23e4567-e89b-12d3-a456-426614174000"}) {
        EXPECT_FALSE(isUuidText(text)) << text;
    }
    std::set<std::string> made;
    for (int i = 0; i < 100; ++i) {
        const std::string uuid = makeUuid();
        EXPECT_TRUE(isUuidText(uuid)) << uuid;
        EXPECT_EQ(uuid, asciiLowercased(uuid));
        EXPECT_EQ(uuid[14], '4') << uuid;
        EXPECT_NE(std::string("89ab").find(uuid[19]), std::string::npos) << uuid;
        made.insert(uuid);
    }
    EXPECT_EQ(made.size(), 100u);
}

// Every length of the last group (none, one and two bytes left over) and every byte value go
// there and back, in both alphabets; the URL one has no padding. Padding, or a character outside
// the alphabet, in any group but the last is refused; the URL form decodes only its canonical
// text: "Zh" leaves unused bits set where "Zg" does not, and a lone character is never whole bytes.
TEST(Base64, RoundTripsAndDecodesOnlyTheCanonicalText) {
    using namespace std::string_literals;
    // clang-format off
    const std::pair<std::string, const char*> cases[] = {
        {"", ""}, {"\xfb", "+w=="}, {"\xfb\xff", "+/8="}, {"\xfb\xff\xbf", "+/+/"},
        {"\0\x10\x83\x10"s, "ABCDEA=="}};
    // clang-format on
    for (const auto& [text, encoded] : cases) {
        EXPECT_EQ(base64EncodedString(bytes(text)), encoded);
        EXPECT_EQ(base64DecodedData(encoded), bytes(text)) << encoded;
        const auto url = base64URLEncodedString(bytes(text));
        EXPECT_EQ(url.find_first_of("+/="), std::string::npos) << url;
        EXPECT_EQ(base64URLDecodedData(url), bytes(text)) << url;
    }
    std::vector<std::uint8_t> all(256);
    for (std::size_t i = 0; i < all.size(); ++i) {
        all[i] = static_cast<std::uint8_t>(i);
    }
    EXPECT_EQ(base64DecodedData(base64EncodedString(all)), all);
    EXPECT_EQ(base64URLDecodedData(base64URLEncodedString(all)), all);
    EXPECT_EQ(base64DecodedData("AAAAAAAA"), std::vector<std::uint8_t>(6, 0));
    EXPECT_EQ(base64URLEncodedString(bytes("\xfb\xff\xfe")), "-__-");
    EXPECT_EQ(base64EncodedString(bytes("\xfb\xff\xfe")), "+//+");
    for (const std::string& bad : {"+w="s, "AB*DABCD"s, "ABC=ABCD"s, "AB==ABCD"s, "ABCDAB.D"s,
                                   "ABCD=BCD"s, "AB\0DABCD"s, "ABCDAB\0D"s}) {
        EXPECT_EQ(base64DecodedData(bad), std::nullopt) << bad;
    }
    for (const char* bad : {"Zh", "Z", "Zg==", "+//+", "Zg A", "Zm9v\n"}) {
        EXPECT_FALSE(base64URLDecodedData(bad)) << bad;
    }
}

TEST(Text, ComparesAsciiCaseOnlyAndRepairsUtf8) {
    EXPECT_TRUE(equalsIgnoringASCIICase("Bearer", "bEARER"));
    EXPECT_FALSE(equalsIgnoringASCIICase("bearer", "bearer "));
    // Only ASCII letters fold: "@" and "`" sit next to them, and bytes past 0x7f never fold.
    EXPECT_FALSE(equalsIgnoringASCIICase("@", "`"));
    EXPECT_FALSE(equalsIgnoringASCIICase("\xc3\x89", "\xc3\xa9"));
    EXPECT_TRUE(startsWithIgnoringASCIICase("BEARER abc", "bearer "));
    EXPECT_FALSE(startsWithIgnoringASCIICase("bear", "bearer"));

    // clang-format off
    const std::pair<std::string, std::size_t> sequences[] = {
        {"a", 1}, {"\xc3\xa9", 2}, {"\xe2\x82\xac", 3},
        // The first and last code point of each length: U+0080, U+07FF, U+0800, U+FFFF, U+10000,
        // U+1F600, U+10FFFF.
        {"\xc2\x80", 2}, {"\xdf\xbf", 2}, {"\xe0\xa0\x80", 3}, {"\xef\xbf\xbf", 3},
        {"\xf0\x90\x80\x80", 4}, {"\xf0\x9f\x98\x80", 4}, {"\xf4\x8f\xbf\xbf", 4},
        // The lead bytes around them: overlong U+FFFF, a byte no code point starts with,
        // overlong "/", another overlong form, a surrogate, past U+10FFFF; then a sequence cut
        // short, a lone continuation byte and nothing.
        {"\xf0\x8f\xbf\xbf", 0}, {"\xf5\x80\x80\x80", 0}, {"\xc0\xaf", 0}, {"\xe0\x80\xaf", 0},
        {"\xed\xa0\x80", 0}, {"\xf4\x90\x80\x80", 0}, {"\xe2\x82", 0}, {"\x80", 0}, {"", 0}};
    // clang-format on
    for (const auto& [text, length] : sequences) {
        EXPECT_EQ(utf8SequenceLength(text), length) << text;
    }
    // Short texts are settled by a quick look for bytes above 0x7F: one anywhere in them sends
    // the text to the full check.
    for (std::size_t length : {1u, 7u, 8u, 9u, 15u, 16u, 17u, 40u, 300u}) {
        for (std::size_t at : {std::size_t{0}, length / 2, length - 1}) {
            std::string text(length, 'a');
            text[at] = '\xff';
            EXPECT_FALSE(isValidUTF8(text)) << length << " at " << at;
            text[at] = 'b';
            EXPECT_TRUE(isValidUTF8(text)) << length;
        }
    }
    EXPECT_EQ(validUTF8("caf\xc3\xa9"), "caf\xc3\xa9");
    EXPECT_EQ(validUTF8("a\xe2\x82"
                        "b\xff"),
              "a\xef\xbf\xbd\xef\xbf\xbd"
              "b\xef\xbf\xbd");
}

}  // namespace
}  // namespace nimborra::platform
