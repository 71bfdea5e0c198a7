#include "NimbOrraPlatform/Bundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using nimborra::platform::Bundle;
namespace fs = std::filesystem;

fs::path makeTemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "nimborra-bundle-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        return {};
    }
    return pattern;
}

void writeFile(const fs::path& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
}

// Points the main bundle at a fresh directory for the test and restores it afterwards.
class BundleTest : public ::testing::Test {
  protected:
    void SetUp() override {
        previous_ = Bundle::mainBundle().resourceDirectory();
        directory_ = makeTemporaryDirectory();
        ASSERT_FALSE(directory_.empty());
        Bundle::mainBundle().setResourceDirectory(directory_);
    }

    void TearDown() override {
        Bundle::mainBundle().setResourceDirectory(previous_);
        std::error_code ignored;
        if (!directory_.empty()) {
            fs::permissions(directory_ / "locked.mobileprovision", fs::perms::owner_all, ignored);
            fs::remove_all(directory_, ignored);
        }
    }

    const fs::path& directory() const { return directory_; }

  private:
    fs::path previous_;
    fs::path directory_;
};

TEST(BundleDefaultTest, ResourcesLiveBesideTheExecutable) {
    // The fixture below restores the directory after each test, so this is still the default.
    EXPECT_EQ(Bundle::mainBundle().resourceDirectory(),
              fs::read_symlink("/proc/self/exe").parent_path());
}

TEST_F(BundleTest, FindsAPresentFileAndReadsItExactly) {
    std::vector<std::uint8_t> content(200000);
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<std::uint8_t>(i * 7 + i / 251);
    }
    writeFile(directory() / "embedded.mobileprovision", content);

    const auto url = Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(*url, directory() / "embedded.mobileprovision");
    const auto read = Bundle::contentsOfFile(*url);
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(*read, content);
}

TEST_F(BundleTest, EmptyFileReadsAsNoBytesNotAsAFailure) {
    writeFile(directory() / "embedded.mobileprovision", {});
    const auto url = Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
    ASSERT_TRUE(url.has_value());
    const auto read = Bundle::contentsOfFile(*url);
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(read->empty());
}

TEST_F(BundleTest, LooksUpByExactNameAndExtension) {
    writeFile(directory() / "embedded.mobileprovision", {1});
    writeFile(directory() / "README", {2});
    struct Case {
        const char* name;
        const char* extension;
        bool found;
    };
    const Case cases[] = {
        {"embedded", "mobileprovision", true},
        {"embedded", "plist", false},
        {"Embedded", "mobileprovision", false},
        {"missing", "mobileprovision", false},
        {"embedded.mobileprovision", "", true},
        {"README", "", true},
        {"", "mobileprovision", false},
        {"../embedded", "mobileprovision", false},
        {"embedded", "mobileprovision/..", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Bundle::mainBundle().urlForResource(c.name, c.extension).has_value(), c.found)
            << c.name << " . " << c.extension;
    }
}

TEST_F(BundleTest, ADirectoryIsFoundButCannotBeRead) {
    fs::create_directory(directory() / "embedded.mobileprovision");
    const auto url = Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
    ASSERT_TRUE(url.has_value());
    EXPECT_FALSE(Bundle::contentsOfFile(*url).has_value());
}

TEST_F(BundleTest, AnUnreadableFileIsFoundButCannotBeRead) {
    if (geteuid() == 0) {
        GTEST_SKIP() << "running as root, which reads files whatever their permissions";
    }
    const auto path = directory() / "locked.mobileprovision";
    writeFile(path, {1, 2, 3});
    fs::permissions(path, fs::perms::none);
    const auto url = Bundle::mainBundle().urlForResource("locked", "mobileprovision");
    ASSERT_TRUE(url.has_value());
    EXPECT_FALSE(Bundle::contentsOfFile(*url).has_value());
}

TEST_F(BundleTest, SymbolicLinksAreFollowed) {
    writeFile(directory() / "target", {4, 5});
    fs::create_symlink(directory() / "target", directory() / "linked.mobileprovision");
    fs::create_symlink(directory() / "nowhere", directory() / "dangling.mobileprovision");

    const auto linked = Bundle::mainBundle().urlForResource("linked", "mobileprovision");
    ASSERT_TRUE(linked.has_value());
    EXPECT_EQ(Bundle::contentsOfFile(*linked), (std::vector<std::uint8_t>{4, 5}));
    EXPECT_FALSE(Bundle::mainBundle().urlForResource("dangling", "mobileprovision").has_value());
}

TEST_F(BundleTest, ReadingFailsForMissingFilesAndPipes) {
    EXPECT_FALSE(Bundle::contentsOfFile(directory() / "missing").has_value());
    EXPECT_FALSE(Bundle::contentsOfFile("").has_value());
    // A pipe with no writer must be refused, not waited on.
    const auto pipe = directory() / "pipe.mobileprovision";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_TRUE(Bundle::mainBundle().urlForResource("pipe", "mobileprovision").has_value());
    EXPECT_FALSE(Bundle::contentsOfFile(pipe).has_value());
}

TEST_F(BundleTest, DirectoryMayChangeWhileOtherThreadsLookUp) {
    const auto other = makeTemporaryDirectory();
    ASSERT_FALSE(other.empty());
    writeFile(directory() / "embedded.mobileprovision", {1});
    writeFile(other / "embedded.mobileprovision", {2});

    std::atomic<bool> stop{false};
    std::atomic<int> unexpected{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const auto url = Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
                if (!url || (*url != directory() / "embedded.mobileprovision" &&
                             *url != other / "embedded.mobileprovision")) {
                    ++unexpected;
                }
            }
        });
    }
    for (int i = 0; i < 2000; ++i) {
        Bundle::mainBundle().setResourceDirectory(i % 2 == 0 ? other : directory());
    }
    stop = true;
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(unexpected.load(), 0);
    std::error_code ignored;
    fs::remove_all(other, ignored);
}

}  // namespace
