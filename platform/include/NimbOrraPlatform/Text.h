// Text helpers shared by the libraries: ASCII case-insensitive comparison (header names, schemes,
// host names, hexadecimal identifiers) and UTF-8 repair for text that comes from outside and is
// shown to people. Stateless; safe from any thread; nothing here throws except std::bad_alloc.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

constexpr char asciiLowercase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Equal when only the case of ASCII letters differs; every other byte must match exactly.
constexpr bool equalsIgnoringASCIICase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (asciiLowercase(a[i]) != asciiLowercase(b[i])) {
            return false;
        }
    }
    return true;
}

constexpr bool startsWithIgnoringASCIICase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           equalsIgnoringASCIICase(text.substr(0, prefix.size()), prefix);
}

// `text` with its ASCII letters in lower case.
NIMBORRA_PLATFORM_EXPORT std::string asciiLowercased(std::string_view text);

// The length of the well-formed UTF-8 sequence at the start of `bytes` (1 to 4), or 0 when it
// does not start with one: no overlong forms, no surrogates, nothing beyond U+10FFFF.
NIMBORRA_PLATFORM_EXPORT std::size_t utf8SequenceLength(std::string_view bytes);

// `text` as valid UTF-8: each byte that does not begin a well-formed sequence becomes U+FFFD.
NIMBORRA_PLATFORM_EXPORT std::string validUTF8(std::string_view text);

}  // namespace nimborra::platform
