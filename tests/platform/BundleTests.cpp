#include "NimbOrraPlatform/Bundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

using nimborra::platform::Bundle;
namespace fs = std::filesystem;

void writeFile(const fs::path& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

// By default resources live beside the executable. Anything present under the exact name is
// found (a directory, a pipe, a link to a file), but only files, through links too, can be read,
// exactly; a pipe with no writer is refused, not waited on. A dangling link is not found, and
// names that would leave the directory name nothing.
TEST(BundleTest, FindsResourcesByExactNameAndReadsOnlyFiles) {
    EXPECT_EQ(Bundle::mainBundle().resourceDirectory(),
              fs::read_symlink("/proc/self/exe").parent_path());
    const nimborra::testing::TemporaryBundle bundle;
    const fs::path& directory = bundle.directory();
    ASSERT_FALSE(directory.empty());

    std::vector<std::uint8_t> large(200000);  // more than one read's worth
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    }
    writeFile(directory / "embedded.mobileprovision", large);
    writeFile(directory / "empty", {});
    fs::create_directory(directory / "folder.mobileprovision");
    ASSERT_EQ(mkfifo((directory / "pipe.mobileprovision").c_str(), 0600), 0);
    fs::create_symlink(directory / "embedded.mobileprovision",
                       directory / "linked.mobileprovision");
    fs::create_symlink(directory / "nowhere", directory / "dangling.mobileprovision");
    enum Expected { absent, unreadable, readable };
    struct Case {
        const char* name;
        const char* extension;
        Expected expected;
    };
    std::vector<Case> cases = {
        {"embedded", "mobileprovision", readable},  {"empty", "", readable},
        {"embedded.mobileprovision", "", readable}, {"linked", "mobileprovision", readable},
        {"folder", "mobileprovision", unreadable},  {"pipe", "mobileprovision", unreadable},
        {"dangling", "mobileprovision", absent},    {"embedded", "plist", absent},
        {"missing", "mobileprovision", absent},     {"", "mobileprovision", absent},
        {"../embedded", "mobileprovision", absent}, {"embedded", "mobileprovision/..", absent},
    };
    if (geteuid() != 0) {  // root reads files whatever their permissions
        writeFile(directory / "locked.mobileprovision", {1, 2, 3});
        fs::permissions(directory / "locked.mobileprovision", fs::perms::none);
        cases.push_back({"locked", "mobileprovision", unreadable});
    }
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " . " + c.extension);
        const auto url = Bundle::mainBundle().urlForResource(c.name, c.extension);
        EXPECT_EQ(url.has_value(), c.expected != absent);
        if (url) {
            EXPECT_EQ(url->parent_path(), directory);
            EXPECT_EQ(Bundle::contentsOfFile(*url).has_value(), c.expected == readable);
        }
    }
    EXPECT_EQ(Bundle::contentsOfFile(directory / "linked.mobileprovision"), large);
    EXPECT_EQ(Bundle::contentsOfFile(directory / "empty"), std::vector<std::uint8_t>{});
    EXPECT_FALSE(Bundle::contentsOfFile("").has_value());
}

}  // namespace
