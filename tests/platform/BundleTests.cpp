#include "NimbOrraPlatform/Bundle.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace nimborra::platform {
namespace {

// A resource is a file directly in the resource directory: a name that reaches into a
// subdirectory or out of the directory names nothing, even where such a file exists.
TEST(Bundle, FindsResourcesOnlyDirectlyInItsDirectory) {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("nimborra-bundle-test-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory / "sub");
    std::ofstream(directory / "top.txt") << "x";
    std::ofstream(directory / "sub" / "inner.txt") << "x";
    std::ofstream(directory / "plain") << "x";
    auto& bundle = Bundle::mainBundle();
    const auto saved = bundle.resourceDirectory();
    bundle.setResourceDirectory(directory);

    EXPECT_EQ(bundle.urlForResource("top", "txt"), directory / "top.txt");
    EXPECT_EQ(bundle.urlForResource("plain", ""), directory / "plain");
    const std::string outside = "../" + directory.filename().string() + "/top";
    for (const auto& [name, extension] : {std::pair<std::string, std::string>{"sub/inner", "txt"},
                                          {outside, "txt"},
                                          {"sub", "/inner.txt"},
                                          {"", "txt"},
                                          {std::string("top\0x", 5), "txt"},
                                          {"top", std::string("txt\0", 4)},
                                          {"missing", "txt"}}) {
        EXPECT_EQ(bundle.urlForResource(name, extension), std::nullopt) << name << "." << extension;
    }

    bundle.setResourceDirectory(saved);
    std::filesystem::remove_all(directory);
}

}  // namespace
}  // namespace nimborra::platform
