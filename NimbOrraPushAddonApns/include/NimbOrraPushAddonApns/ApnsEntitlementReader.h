// Reads the "aps-environment" entitlement from the application's embedded provisioning profile
// (the main bundle's resource "embedded.mobileprovision"), without asking any server.
//
// Stateless and safe from any thread; every call reads the file afresh. Nothing is logged and no
// error leaves it: a missing or unreadable profile answers "production", a profile without a
// usable entitlement answers nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

class NIMBORRA_APNS_EXPORT ApnsEntitlementReading {
  public:
    virtual ~ApnsEntitlementReading();
    // "production" when there is no profile or it cannot be read; nothing when the profile has no
    // usable "aps-environment" text or is larger than the property-list limit
    // (platform::PropertyListSerialization::maximumLength, read no further than that); otherwise
    // that text exactly as stored.
    [[nodiscard]] virtual std::optional<std::string> readApsEnvironment() const = 0;

  protected:
    ApnsEntitlementReading() = default;
    ApnsEntitlementReading(const ApnsEntitlementReading&) = default;
    ApnsEntitlementReading& operator=(const ApnsEntitlementReading&) = default;
};

class NIMBORRA_APNS_EXPORT ApnsEntitlementReader final : public ApnsEntitlementReading {
  public:
    [[nodiscard]] std::optional<std::string> readApsEnvironment() const override;
};

// The "Entitlements" dictionary of a provisioning profile's bytes. The property list is found by
// a plain byte search (the first "<plist" through the end of the first "</plist>"), not by
// decoding the signature container around it. Nothing when either tag is missing, they are out
// of order, the property list does not parse, its root is not a dictionary or it has no
// "Entitlements" dictionary.
[[nodiscard]] NIMBORRA_APNS_EXPORT std::optional<platform::Dictionary> extractEntitlements(
    std::span<const std::uint8_t> profile) noexcept;

// The main bundle's embedded provisioning profile as ApnsEntitlementReader reads it, for code that
// needs more of it than the environment and must agree with the reader's answers.
struct ApnsEmbeddedProfile {
    // Whether the bundle has a profile that could be read (the reader then answers
    // "production" when this is false).
    bool present = false;
    // Its "Entitlements" dictionary; nothing when the profile is larger than the property-list
    // limit or holds no entitlements (the reader then answers nothing).
    std::optional<platform::Dictionary> entitlements;
};

// Reads the profile afresh, no further than the property-list limit. Never throws: out of memory
// reads as a profile without entitlements.
NIMBORRA_APNS_EXPORT ApnsEmbeddedProfile readEmbeddedProfile() noexcept;

// The "aps-environment" answer of ApnsEntitlementReader for a profile read as above.
NIMBORRA_APNS_EXPORT std::optional<std::string> apsEnvironmentOf(
    const ApnsEmbeddedProfile& profile);

}  // namespace nimborra::apns
