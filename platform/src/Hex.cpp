#include "NimbOrraPlatform/Hex.h"

#include <algorithm>

namespace nimborra::platform {

bool isHexText(std::string_view text) {
    return std::all_of(text.begin(), text.end(), isHexDigit);
}

std::string hexEncodedString(std::span<const std::uint8_t> bytes, HexCase letters, char separator) {
    std::string text;
    text.reserve(bytes.size() * (separator == '\0' ? 2 : 3));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (separator != '\0' && i > 0) {
            text += separator;
        }
        text += hexDigit(bytes[i] >> 4, letters);
        text += hexDigit(bytes[i], letters);
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> hexDecodedData(std::string_view text) {
    if (text.size() % 2 != 0 || !isHexText(text)) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(hexDigitValue(text[2 * i]) << 4 |
                                             hexDigitValue(text[2 * i + 1]));
    }
    return bytes;
}

}  // namespace nimborra::platform
