#include "NimbOrraPlatform/Text.h"

#include <algorithm>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::platform {

std::string asciiLowercased(std::string_view text) {
    std::string lower(text.size(), '\0');
    std::transform(text.begin(), text.end(), lower.begin(), asciiLowercase);
    return lower;
}

std::size_t utf8SequenceLength(std::string_view bytes) {
    if (bytes.empty()) {
        return 0;
    }
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (bytes.size() < length || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t index = 2; index < length; ++index) {
        if (byte(index) < 0x80 || byte(index) > 0xBF) {
            return 0;
        }
    }
    return length;
}

std::string validUTF8(std::string_view text) {
    // Most text is valid already; the vectorised validator settles that at once.
    if (isValidUTF8(text)) {
        return std::string(text);
    }
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8SequenceLength(text);
        if (length == 0) {
            out.append("\xEF\xBF\xBD");
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

}  // namespace nimborra::platform
