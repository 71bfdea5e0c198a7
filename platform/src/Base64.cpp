#include "NimbOrraPlatform/Base64.h"

#include <algorithm>
#include <array>

namespace nimborra::platform {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr char kURLAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr std::array<std::int8_t, 256> makeDecodeTable(const char* alphabet) {
    std::array<std::int8_t, 256> table{};
    for (auto& entry : table) {
        entry = -1;
    }
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

constexpr auto kDecode = makeDecodeTable(kAlphabet);
constexpr auto kURLDecode = makeDecodeTable(kURLAlphabet);

// Four characters per three bytes; a last group of one or two bytes gives two or three
// characters, followed by "=" up to four when `padded`.
std::string encode(std::span<const std::uint8_t> bytes, const char* alphabet, bool padded) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (count > 1) {
            n |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        }
        if (count > 2) {
            n |= bytes[i + 2];
        }
        for (std::size_t digit = 0; digit <= count; ++digit) {
            out += alphabet[(n >> (18 - 6 * digit)) & 63];
        }
        if (padded) {
            out.append(3 - count, '=');
        }
    }
    return out;
}

}  // namespace

std::string base64EncodedString(std::span<const std::uint8_t> bytes) {
    return encode(bytes, kAlphabet, true);
}

std::string base64URLEncodedString(std::span<const std::uint8_t> bytes) {
    return encode(bytes, kURLAlphabet, false);
}

std::optional<std::vector<std::uint8_t>> base64URLDecodedData(std::string_view text) {
    if (text.size() % 4 == 1) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> out;
    out.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const int value = kURLDecode[static_cast<unsigned char>(c)];
        if (value < 0) {
            return std::nullopt;
        }
        bits = (bits << 6) | static_cast<std::uint32_t>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    if ((bits & ((1U << count) - 1)) != 0) {
        return std::nullopt;
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
