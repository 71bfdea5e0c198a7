// Reading "aps-environment" from a 12 KiB signed provisioning profile, the way the adapter does
// on every "GetProviderEnvironment": the main bundle's "embedded.mobileprovision" is read afresh,
// the property list is cut out of the signature container and parsed, and the entitlement is
// looked up. The baseline does the same file read and byte search and then asks libplist
// directly, without our property-list layer and its generic values.
//
// The profile is a real CMS container made with the openssl command-line tool at start-up (as the
// tests do); without openssl both benchmarks are skipped.
#include <benchmark/benchmark.h>
#include <plist/plist.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "support/SignedProfile.h"

namespace nimborra::bench {
namespace {

constexpr std::size_t kProfileSize = 12 * 1024;
constexpr std::string_view kFirstDevice = "<string>00008030-001A2B3C4D5E6F70</string>";

// The test profile's property list with `extraDevices` more provisioned devices, which is how
// real development profiles grow. Each device adds a line of the same length, inserted after the
// first device; the profile stays unpadded when that device is not found.
std::string paddedPlist(std::size_t extraDevices) {
    std::string xml = testing::profilePlist("development");
    std::string devices;
    for (std::size_t i = 0; i < extraDevices; ++i) {
        char line[64];
        std::snprintf(line, sizeof line, "\n<string>00008110-%016zX</string>",
                      0x1A2B3C4D5E6F7000 + i * 0x1111);
        devices += line;
    }
    const auto at = xml.find(kFirstDevice);
    if (at != std::string::npos) {
        xml.insert(at + kFirstDevice.size(), devices);
    }
    return xml;
}

// A signed profile of about kProfileSize bytes in a directory of its own, used as the main
// bundle's resource directory; removed at exit.
class ProfileBundle {
  public:
    ProfileBundle() {
        const auto first = testing::makeSignedProfile(paddedPlist(0));
        if (!first) {
            return;
        }
        const std::size_t overhead = first->size() - paddedPlist(0).size();
        const std::size_t deviceLine = paddedPlist(1).size() - paddedPlist(0).size();
        const std::size_t fixed = overhead + paddedPlist(0).size();
        // deviceLine is 0 when the first device could not be found: no padding then.
        const std::size_t wanted =
            fixed < kProfileSize && deviceLine > 0 ? (kProfileSize - fixed) / deviceLine : 0;
        const auto profile = testing::makeSignedProfile(paddedPlist(wanted));
        if (!profile) {
            return;
        }
        std::error_code error;
        std::string pattern =
            (std::filesystem::temp_directory_path(error) / "nimborra-bench-XXXXXX").string();
        if (error || mkdtemp(pattern.data()) == nullptr) {
            return;
        }
        directory_ = pattern;
        std::ofstream out(*directory_ / "embedded.mobileprovision", std::ios::binary);
        out.write(profile->data(), static_cast<std::streamsize>(profile->size()));
        if (!out) {
            return;
        }
        size_ = profile->size();
        platform::Bundle::mainBundle().setResourceDirectory(*directory_);
    }
    ~ProfileBundle() {
        if (directory_) {
            std::error_code ignored;
            std::filesystem::remove_all(*directory_, ignored);
        }
    }
    ProfileBundle(const ProfileBundle&) = delete;
    ProfileBundle& operator=(const ProfileBundle&) = delete;

    // The profile's size, or 0 when it could not be made.
    std::size_t size() const { return size_; }

  private:
    std::optional<std::filesystem::path> directory_;
    std::size_t size_ = 0;
};

const ProfileBundle& profileBundle() {
    static const ProfileBundle bundle;
    return bundle;
}

std::size_t find(const std::vector<std::uint8_t>& bytes, std::string_view needle) {
    const auto it =
        std::search(bytes.begin(), bytes.end(), needle.begin(), needle.end(),
                    [](std::uint8_t a, char b) { return a == static_cast<std::uint8_t>(b); });
    return it == bytes.end() ? std::string_view::npos
                             : static_cast<std::size_t>(it - bytes.begin());
}

// The same job with libplist directly.
std::optional<std::string> readWithLibplist() {
    const auto url = platform::Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
    if (!url) {
        return "production";
    }
    const auto bytes = platform::Bundle::contentsOfFile(*url);
    if (!bytes) {
        return "production";
    }
    const std::size_t start = find(*bytes, "<plist");
    const std::size_t close = find(*bytes, "</plist>");
    if (start == std::string_view::npos || close == std::string_view::npos || start >= close) {
        return std::nullopt;
    }
    const std::size_t end = close + std::string_view("</plist>").size();
    plist_t root = nullptr;
    plist_from_xml(reinterpret_cast<const char*>(bytes->data() + start),
                   static_cast<std::uint32_t>(end - start), &root);
    const std::unique_ptr<void, void (*)(plist_t)> owner(root, plist_free);
    if (root == nullptr || plist_get_node_type(root) != PLIST_DICT) {
        return std::nullopt;
    }
    plist_t entitlements = plist_dict_get_item(root, "Entitlements");
    if (entitlements == nullptr || plist_get_node_type(entitlements) != PLIST_DICT) {
        return std::nullopt;
    }
    plist_t value = plist_dict_get_item(entitlements, "aps-environment");
    if (value == nullptr || plist_get_node_type(value) != PLIST_STRING) {
        return std::nullopt;
    }
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(value, &length);
    if (text == nullptr || length == 0) {
        return std::nullopt;
    }
    return std::string(text, length);
}

void ReadApsEnvironmentOurs(benchmark::State& state) {
    if (profileBundle().size() == 0) {
        state.SkipWithError("no signed profile (is the openssl command-line tool installed?)");
        return;
    }
    const apns::ApnsEntitlementReader reader;
    if (reader.readApsEnvironment() != "development") {
        state.SkipWithError("the profile does not read as development");
        return;
    }
    for (auto _ : state) {
        auto environment = reader.readApsEnvironment();
        benchmark::DoNotOptimize(environment);
    }
    state.counters["profile_bytes"] = static_cast<double>(profileBundle().size());
}

void ReadApsEnvironmentLibplist(benchmark::State& state) {
    if (profileBundle().size() == 0) {
        state.SkipWithError("no signed profile (is the openssl command-line tool installed?)");
        return;
    }
    if (readWithLibplist() != "development") {
        state.SkipWithError("the profile does not read as development");
        return;
    }
    for (auto _ : state) {
        auto environment = readWithLibplist();
        benchmark::DoNotOptimize(environment);
    }
    state.counters["profile_bytes"] = static_cast<double>(profileBundle().size());
}

BENCHMARK(ReadApsEnvironmentOurs)->Name("ApsEnvironmentFromSignedProfile12KiB/nimborra");
BENCHMARK(ReadApsEnvironmentLibplist)->Name("ApsEnvironmentFromSignedProfile12KiB/libplist_direct");

}  // namespace
}  // namespace nimborra::bench
