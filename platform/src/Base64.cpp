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
    const std::size_t whole = bytes.size() / 3 * 3;
    const std::size_t rest = bytes.size() - whole;
    std::string out(whole / 3 * 4 + (rest == 0 ? 0 : (padded ? 4 : rest + 1)), '=');
    char* w = out.data();
    for (std::size_t i = 0; i < whole; i += 3, w += 4) {
        const std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16 |
                                static_cast<std::uint32_t>(bytes[i + 1]) << 8 | bytes[i + 2];
        w[0] = alphabet[n >> 18];
        w[1] = alphabet[(n >> 12) & 63];
        w[2] = alphabet[(n >> 6) & 63];
        w[3] = alphabet[n & 63];
    }
    if (rest > 0) {
        std::uint32_t n = static_cast<std::uint32_t>(bytes[whole]) << 16;
        if (rest > 1) {
            n |= static_cast<std::uint32_t>(bytes[whole + 1]) << 8;
        }
        for (std::size_t digit = 0; digit <= rest; ++digit) {
            w[digit] = alphabet[(n >> (18 - 6 * digit)) & 63];
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
    std::vector<std::uint8_t> out(text.size() / 4 * 3);
    if (text.empty()) {
        return out;
    }
    const auto value = [&](std::size_t at) {
        return static_cast<std::int32_t>(kDecode[static_cast<unsigned char>(text[at])]);
    };
    // Every group but the last: four alphabet characters ("=" is not one of them), three bytes.
    const std::size_t lastGroup = text.size() - 4;
    std::uint8_t* w = out.data();
    for (std::size_t i = 0; i < lastGroup; i += 4, w += 3) {
        const std::int32_t a = value(i);
        const std::int32_t b = value(i + 1);
        const std::int32_t c = value(i + 2);
        const std::int32_t d = value(i + 3);
        if ((a | b | c | d) < 0) {
            return std::nullopt;
        }
        const auto n = static_cast<std::uint32_t>(a << 18 | b << 12 | c << 6 | d);
        w[0] = static_cast<std::uint8_t>(n >> 16);
        w[1] = static_cast<std::uint8_t>(n >> 8);
        w[2] = static_cast<std::uint8_t>(n);
    }
    // The last group: padding only in its last two places, and only followed by more padding.
    int padding = 0;
    std::uint32_t n = 0;
    for (std::size_t j = 0; j < 4; ++j) {
        const auto c = static_cast<unsigned char>(text[lastGroup + j]);
        if (c == '=') {
            if (j < 2) {
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
    w[0] = static_cast<std::uint8_t>(n >> 16);
    w[1] = static_cast<std::uint8_t>(n >> 8);
    w[2] = static_cast<std::uint8_t>(n);
    out.resize(out.size() - static_cast<std::size_t>(padding));
    return out;
}

}  // namespace nimborra::platform
