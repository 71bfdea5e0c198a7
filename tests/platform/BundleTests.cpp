#include "NimbOrraPlatform/Bundle.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "support/TestSupport.h"

namespace nimborra::platform {
namespace {

// A resource is a file directly in the resource directory: a name that reaches into a
// subdirectory or out of the directory names nothing, even where such a file exists.
TEST(Bundle, FindsResourcesOnlyDirectlyInItsDirectory) {
    const testing::TemporaryBundle temporary;
    const auto& directory = temporary.directory();
    std::filesystem::create_directories(directory / "sub");
    std::ofstream(directory / "top.txt") << "x";
    std::ofstream(directory / "sub" / "inner.txt") << "x";
    std::ofstream(directory / "plain") << "x";
    auto& bundle = Bundle::mainBundle();

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
}

// A program started with its standard input closed gets descriptor 0 for the next file it opens;
// that file is read like any other.
TEST(Bundle, ReadsAFileOpenedAsDescriptorZero) {
    const testing::TemporaryBundle temporary;
    const auto path = temporary.directory() / "zero";
    std::ofstream(path) << "zero";
    const int input = ::dup(STDIN_FILENO);
    ASSERT_GE(input, 0);
    ::close(STDIN_FILENO);
    const auto bytes = Bundle::contentsOfFile(path);
    ::dup2(input, STDIN_FILENO);
    ::close(input);
    EXPECT_EQ(bytes, (std::vector<std::uint8_t>{'z', 'e', 'r', 'o'}));
}

}  // namespace
}  // namespace nimborra::platform
