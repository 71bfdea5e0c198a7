#include "NimbOrraPlatform/Uuid.h"

#include <array>
#include <cstdint>
#include <random>

#include "NimbOrraPlatform/Hex.h"

namespace nimborra::platform {

namespace {

constexpr bool isDashAt(std::size_t index) {
    return index == 8 || index == 13 || index == 18 || index == 23;
}

}  // namespace

bool isUuidText(std::string_view text) {
    if (text.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isDashAt(i) ? text[i] != '-' : !isHexDigit(text[i])) {
            return false;
        }
    }
    return true;
}

std::string makeUuid() {
    thread_local std::mt19937_64 generator = [] {
        std::random_device entropy;
        std::seed_seq seed{entropy(), entropy(), entropy(), entropy()};
        return std::mt19937_64(seed);
    }();
    std::array<std::uint8_t, 16> bytes{};
    for (std::size_t i = 0; i < bytes.size(); i += 8) {
        const std::uint64_t random = generator();
        for (std::size_t j = 0; j < 8; ++j) {
            bytes[i + j] = static_cast<std::uint8_t>(random >> (8 * j));
        }
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4 (random)
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the RFC 4122 variant
    // Written in place: this runs for every provider request that brings no apns-id.
    std::string uuid(36, '-');
    std::size_t at = 0;
    for (const std::uint8_t byte : bytes) {
        if (isDashAt(at)) {
            ++at;
        }
        uuid[at++] = hexDigit(byte >> 4);
        uuid[at++] = hexDigit(byte);
    }
    return uuid;
}

}  // namespace nimborra::platform
