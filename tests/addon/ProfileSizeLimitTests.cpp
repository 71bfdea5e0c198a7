// The provisioning profile is read no further than the property-list size limit.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/PropertyListSerialization.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"

namespace nimborra::apns {
namespace {

namespace fs = std::filesystem;

TEST(ProfileSizeLimit, LargerProfilesAnswerNothingAfterReadingAtMostTheLimit) {
    constexpr std::size_t limit = platform::PropertyListSerialization::maximumLength;
    const std::string plist =
        "<plist version=\"1.0\"><dict><key>Entitlements</key><dict><key>aps-environment</key>"
        "<string>development</string></dict></dict></plist>";
    auto& bundle = platform::Bundle::mainBundle();
    const auto previous = bundle.resourceDirectory();
    const fs::path directory = fs::temp_directory_path() /
                               ("nimborra-profile-size-" + std::to_string(std::random_device()()));
    fs::create_directories(directory);
    bundle.setResourceDirectory(directory);
    const fs::path profile = directory / "embedded.mobileprovision";

    const struct {
        std::uintmax_t fileSize;  // the property list first, then zero bytes
        std::optional<std::string> answer;
        std::size_t bytesRead;
    } cases[] = {
        {plist.size(), "development", plist.size()},
        {limit, "development", limit},
        {limit + 1, std::nullopt, limit + 1},
        {std::uintmax_t{512} << 20, std::nullopt, limit + 1},  // sparse: costs no disk
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileSize);
        std::ofstream(profile, std::ios::binary | std::ios::trunc) << plist;
        fs::resize_file(profile, c.fileSize);
        EXPECT_EQ(ApnsEntitlementReader().readApsEnvironment(), c.answer);
        const auto bytes = platform::Bundle::contentsOfFile(profile, limit);
        ASSERT_TRUE(bytes.has_value());
        EXPECT_EQ(bytes->size(), c.bytesRead);
    }
    bundle.setResourceDirectory(previous);
    fs::remove_all(directory);
}

}  // namespace
}  // namespace nimborra::apns
