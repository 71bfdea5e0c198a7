// The JSON reader and writer against each other. Whatever the reader accepts (top-level
// fragments included), the writer must write; reading that text back must give an equal value,
// and writing that value again must give the same text. The one expected difference: a negative
// zero written as "-0" reads back as the integer 0 (JSON integers that fit are integers), which
// is written "0"; from then on the text is stable. Sorted and unsorted writing are both checked.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace {

using nimborra::platform::JSONReadingOptions;
using nimborra::platform::JSONSerialization;
using nimborra::platform::JSONWritingOptions;
using nimborra::platform::Value;

[[noreturn]] void fail(const char* what, std::string_view text) {
    std::fprintf(stderr, "json_roundtrip: %s: %.*s\n", what, static_cast<int>(text.size()),
                 text.data());
    std::abort();
}

bool containsNegativeZero(const Value& value) {
    if (const double* real = value.real()) {
        return *real == 0 && std::signbit(*real);
    }
    if (const auto* array = value.array()) {
        for (const Value& item : *array) {
            if (containsNegativeZero(item)) {
                return true;
            }
        }
    }
    if (const auto* dictionary = value.dictionary()) {
        for (const auto& [key, item] : *dictionary) {
            if (containsNegativeZero(item)) {
                return true;
            }
        }
    }
    return false;
}

void roundTrip(const Value& value, bool sortedKeys) {
    const JSONWritingOptions writing{.sortedKeys = sortedKeys, .fragmentsAllowed = true};
    const JSONReadingOptions reading{.fragmentsAllowed = true};
    std::string error;
    const auto first = JSONSerialization::data(value, writing, &error);
    if (!first) {
        fail("the writer refused what the reader accepted", error);
    }
    const auto reread = JSONSerialization::jsonObject(*first, reading, &error);
    if (!reread) {
        fail("the reader refused what the writer wrote", *first);
    }
    if (!(*reread == value)) {
        fail("reading the written text gave another value", *first);
    }
    const auto second = JSONSerialization::data(*reread, writing, &error);
    if (!second) {
        fail("the writer refused a value read back", *first);
    }
    if (*second != *first && !containsNegativeZero(value)) {
        fail("writing again gave another text", *first);
    }
    const auto rereadAgain = JSONSerialization::jsonObject(*second, reading);
    if (!rereadAgain) {
        fail("the reader refused what the writer wrote", *second);
    }
    const auto third = JSONSerialization::data(*rereadAgain, writing);
    if (!third || *third != *second) {
        fail("the text is not stable after one round", *second);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto value =
        JSONSerialization::jsonObject(text, JSONReadingOptions{.fragmentsAllowed = true});
    if (!value) {
        return 0;
    }
    // The strict reading accepts exactly the containers among these.
    const bool container = value->array() != nullptr || value->dictionary() != nullptr;
    if (JSONSerialization::jsonObject(text).has_value() != container) {
        fail("fragment and strict reading disagree", text);
    }
    if (container != JSONSerialization::isValidJSONObject(*value)) {
        fail("isValidJSONObject disagrees with the reader", text);
    }
    roundTrip(*value, /*sortedKeys=*/false);
    roundTrip(*value, /*sortedKeys=*/true);
    return 0;
}
