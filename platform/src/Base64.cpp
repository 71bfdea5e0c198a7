#include "NimbOrraPlatform/Base64.h"

#include <array>

namespace nimborra::platform {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& entry : table) {
        entry = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

constexpr auto kDecode = makeDecodeTable();

}  // namespace

std::string base64EncodedString(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += kAlphabet[n & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest == 1) {
        const std::uint32_t n = bytes[i] << 16;
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        const std::uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8);
        out += kAlphabet[(n >> 18) & 63];
        out += kAlphabet[(n >> 12) & 63];
        out += kAlphabet[(n >> 6) & 63];
        out += '=';
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64DecodedData(std::string_view text) {
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        int padding = 0;
        std::uint32_t n = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            const auto c = static_cast<unsigned char>(text[i + j]);
            if (c == '=') {
                // Padding only in the last group, only in its last two places, and only
                // followed by more padding.
                if (!last || j < 2) {
                    return std::nullopt;
                }
                ++padding;
                n <<= 6;
                continue;
            }
            if (padding > 0 || kDecode[c] < 0) {
                return std::nullopt;
            }
            n = (n << 6) | static_cast<std::uint32_t>(kDecode[c]);
        }
        // Bits left over past the last byte are ignored, as the platform's decoder does.
        out.push_back(static_cast<std::uint8_t>(n >> 16));
        if (padding < 2) {
            out.push_back(static_cast<std::uint8_t>(n >> 8));
        }
        if (padding < 1) {
            out.push_back(static_cast<std::uint8_t>(n));
        }
    }
    return out;
}

}  // namespace nimborra::platform
