// The entitlement extraction on arbitrary bytes: the byte search for the property list, the
// property-list parser and the checks on what it returns. Checked: no crash, no sanitizer report,
// and whatever comes back is a dictionary with text keys only.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto entitlements =
        nimborra::apns::extractEntitlements(std::span<const std::uint8_t>(data, size));
    if (entitlements) {
        for (const auto& [key, value] : *entitlements) {
            if (!key.isText()) {
                std::fprintf(stderr, "entitlements: a key that is not text came back\n");
                std::abort();
            }
        }
    }
    return 0;
}
