// Base64 for byte buffers, as the platform's byte buffer offers it: the standard alphabet with
// "=" padding; and base64url without padding, as JSON Web Tokens carry it. Stateless; safe from
// any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

// Standard, padded base64 of `bytes`.
[[nodiscard]] NIMBORRA_PLATFORM_EXPORT std::string base64EncodedString(
    std::span<const std::uint8_t> bytes);

// Decodes strict standard base64: length a multiple of four, "=" only as padding at the end,
// no whitespace. Anything else yields nothing.
[[nodiscard]] NIMBORRA_PLATFORM_EXPORT std::optional<std::vector<std::uint8_t>> base64DecodedData(
    std::string_view text);

// Base64url (RFC 4648 section 5: "-" and "_" for "+" and "/") without padding.
NIMBORRA_PLATFORM_EXPORT std::string base64URLEncodedString(std::span<const std::uint8_t> bytes);

// Decodes strict base64url without padding: only the URL alphabet, no "=", no whitespace, and
// the unused low bits of the last character zero, so that each byte string has exactly one
// accepted text. Anything else yields nothing.
NIMBORRA_PLATFORM_EXPORT std::optional<std::vector<std::uint8_t>> base64URLDecodedData(
    std::string_view text);

}  // namespace nimborra::platform
