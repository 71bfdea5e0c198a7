// Client text quoted in an explanation for people: in quotation marks, valid UTF-8, and short
// whatever the client sent, so that a log line or an output line stays readable.
#pragma once

#include <string>
#include <string_view>

#include "NimbOrraPlatform/Text.h"

namespace nimborra::provider::detail {

// Longer texts are cut here and marked with "...".
inline constexpr std::size_t kQuotedLimit = 80;

inline std::string quotedText(std::string_view text) {
    const bool cut = text.size() > kQuotedLimit;
    // Appended piece by piece: GCC 12 warns (-Wrestrict, wrongly) about "\"" + std::string.
    std::string quoted(1, '"');
    quoted += platform::validUTF8(text.substr(0, cut ? kQuotedLimit : text.size()));
    quoted += cut ? "...\"" : "\"";
    return quoted;
}

}  // namespace nimborra::provider::detail
