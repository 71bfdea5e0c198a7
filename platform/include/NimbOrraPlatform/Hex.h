// Hexadecimal text for bytes: device tokens, identifiers, fingerprints, escapes. Stateless; safe
// from any thread; nothing here throws except std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

enum class HexCase { lower, upper };

// The digit for a value from 0 to 15.
constexpr char hexDigit(unsigned value, HexCase letters = HexCase::lower) {
    return "0123456789abcdef0123456789ABCDEF"[(value & 0xF) + (letters == HexCase::upper ? 16 : 0)];
}

// The value of a hexadecimal digit of either case, or -1.
constexpr int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

constexpr bool isHexDigit(char c) {
    return hexDigitValue(c) >= 0;
}

// True when `text` is made of hexadecimal digits only (either case); true for "".
NIMBORRA_PLATFORM_EXPORT bool isHexText(std::string_view text);

// Two digits per byte; `separator`, when not '\0', goes between the pairs ("AB:CD").
NIMBORRA_PLATFORM_EXPORT std::string hexEncodedString(std::span<const std::uint8_t> bytes,
                                                      HexCase letters = HexCase::lower,
                                                      char separator = '\0');

// The bytes of an even number of hexadecimal digits of either case; nothing for anything else.
NIMBORRA_PLATFORM_EXPORT std::optional<std::vector<std::uint8_t>> hexDecodedData(
    std::string_view text);

}  // namespace nimborra::platform
