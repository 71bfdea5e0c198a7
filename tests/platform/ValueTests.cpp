#include "NimbOrraPlatform/Value.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace nimborra::platform
