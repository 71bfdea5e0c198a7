#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"

#include <algorithm>
#include <string_view>

#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/PropertyListSerialization.h"

namespace nimborra::apns {

namespace {

constexpr std::string_view kPlistOpen = "<plist";
constexpr std::string_view kPlistClose = "</plist>";

// Offset of the first occurrence of `needle`, searching from the start, or npos.
std::size_t find(std::span<const std::uint8_t> haystack, std::string_view needle) {
    const auto it =
        std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end(),
                    [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
    return it == haystack.end() ? std::string_view::npos
                                : static_cast<std::size_t>(it - haystack.begin());
}

bool hasOnlyTextKeys(const platform::Dictionary& dictionary) {
    return std::all_of(dictionary.begin(), dictionary.end(),
                       [](const auto& entry) { return entry.first.isText(); });
}

}  // namespace

ApnsEntitlementReading::~ApnsEntitlementReading() = default;

std::optional<platform::Dictionary> extractEntitlements(
    std::span<const std::uint8_t> profile) noexcept {
    try {
        // Both searches start at the beginning of the buffer.
        const std::size_t start = find(profile, kPlistOpen);
        if (start == std::string_view::npos) {
            return std::nullopt;
        }
        const std::size_t close = find(profile, kPlistClose);
        if (close == std::string_view::npos) {
            return std::nullopt;
        }
        const std::size_t end = close + kPlistClose.size();
        if (start >= end) {
            return std::nullopt;
        }
        auto root =
            platform::PropertyListSerialization::propertyList(profile.subspan(start, end - start));
        if (!root) {
            return std::nullopt;
        }
        const platform::Dictionary* dictionary = root->dictionary();
        if (dictionary == nullptr || !hasOnlyTextKeys(*dictionary) || dictionary->empty()) {
            return std::nullopt;
        }
        const platform::Value* entitlements = dictionary->find("Entitlements");
        if (entitlements == nullptr || entitlements->dictionary() == nullptr ||
            !hasOnlyTextKeys(*entitlements->dictionary())) {
            return std::nullopt;
        }
        return *entitlements->dictionary();
    } catch (...) {
        return std::nullopt;
    }
}

ApnsEmbeddedProfile readEmbeddedProfile() noexcept {
    ApnsEmbeddedProfile profile;
    try {
        const auto url =
            platform::Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
        if (!url) {
            return profile;
        }
        // The property-list size limit applies to the whole profile, so a huge file costs no
        // more than the limit: one longer than that answers like a property list over the
        // limit does, with no entitlements.
        constexpr std::size_t limit = platform::PropertyListSerialization::maximumLength;
        const auto bytes = platform::Bundle::contentsOfFile(*url, limit);
        if (!bytes) {
            return profile;
        }
        profile.present = true;
        if (bytes->size() > limit) {
            return profile;
        }
        profile.entitlements = extractEntitlements(*bytes);
    } catch (...) {
        // Only allocation can fail here; treat it like a profile without entitlements.
        profile.entitlements.reset();
    }
    return profile;
}

std::optional<std::string> apsEnvironmentOf(const ApnsEmbeddedProfile& profile) {
    if (!profile.present) {
        return "production";
    }
    if (!profile.entitlements || profile.entitlements->empty()) {
        return std::nullopt;
    }
    const platform::Value* value = profile.entitlements->find("aps-environment");
    if (value == nullptr || value->text() == nullptr || value->text()->empty()) {
        return std::nullopt;
    }
    return *value->text();
}

std::optional<std::string> ApnsEntitlementReader::readApsEnvironment() const {
    try {
        return apsEnvironmentOf(readEmbeddedProfile());
    } catch (...) {
        // Only allocation can fail here; treat it like a profile without the entitlement.
        return std::nullopt;
    }
}

}  // namespace nimborra::apns
