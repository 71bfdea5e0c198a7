#include "NimbOrraPlatform/Value.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "NimbOrraPlatform/Base64.h"

namespace nimborra::platform {
namespace {

// Every member is found, by text or by key, through a read-only or a writable dictionary, both
// while it is searched in order and once it is large enough to keep an index. Setting a key again
// replaces the value where it stands; 1 and 1.0 are one key, and text never equals a number.
TEST(DictionaryTest, FindsEveryMemberWhereverItStands) {
    for (const int size : {3, 40}) {
        SCOPED_TRACE(size);
        Dictionary dictionary;
        for (int i = 0; i < size; ++i) {
            dictionary.set("k" + std::to_string(i), i);
        }
        dictionary.set(1, "one");
        dictionary.set(1.0, "replaced");
        const Dictionary& readOnly = dictionary;
        for (int i = 0; i < size; ++i) {
            const std::string key = "k" + std::to_string(i);
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
        EXPECT_EQ(dictionary.find("k" + std::to_string(size)), nullptr);
    }
}

// Equal means the same keys with equal values, in any order; numbers compare by value across
// their representations.
TEST(ValueTest, EqualityComparesContentsAndNumbersByValue) {
    EXPECT_EQ(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"b", 2}, {"a", 1.0}}));
    EXPECT_NE(Value(Dictionary{{"a", 1}, {"b", 2}}), Value(Dictionary{{"a", 1}, {"b", 3}}));
    EXPECT_NE(Value(Dictionary{{"a", 1}}), Value(Dictionary{{"b", 1}}));
    EXPECT_EQ(Value(std::uint64_t{1} << 63), Value(9223372036854775808.0));
    EXPECT_NE(Value(std::uint64_t{1} << 63), Value(1.0));
    EXPECT_NE(Value(-1), Value(-2.0));
}

// Every length of the last group: none, one and two bytes left over.
TEST(Base64Test, EncodesEveryRemainderAndDecodesItBack) {
    const std::pair<std::vector<std::uint8_t>, const char*> cases[] = {
        {{}, ""},
        {{0xfb}, "+w=="},
        {{0xfb, 0xff}, "+/8="},
        {{0xfb, 0xff, 0xbf}, "+/+/"},
        {{0x00, 0x10, 0x83, 0x10}, "ABCDEA=="}};
    for (const auto& [bytes, text] : cases) {
        EXPECT_EQ(base64EncodedString(bytes), text);
        EXPECT_EQ(base64DecodedData(text), bytes) << text;
    }
    EXPECT_EQ(base64DecodedData("+w="), std::nullopt);
}

}  // namespace
}  // namespace nimborra::platform
