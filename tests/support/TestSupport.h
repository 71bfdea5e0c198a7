// Helpers shared by the test programs.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace nimborra::testing {

// The shared corpora directory (../shared/corpora beside the source tree, or
// $NIMBORRA_SHARED_DIR/corpora), or nothing when it is absent.
std::optional<std::filesystem::path> corporaDirectory();

// `piece` written `count` times in a row (nesting bombs, large inputs).
std::string repeated(std::string_view piece, std::size_t count);

// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::filesystem::path& path);

// For one test, the main bundle reads its resources from a fresh temporary directory; on
// destruction the previous directory comes back and the temporary one is removed.
class TemporaryBundle {
  public:
    TemporaryBundle();
    ~TemporaryBundle();
    TemporaryBundle(const TemporaryBundle&) = delete;
    TemporaryBundle& operator=(const TemporaryBundle&) = delete;

    const std::filesystem::path& directory() const { return directory_; }
    // Writes `bytes` as the bundle's provisioning profile, embedded.mobileprovision.
    void writeProfile(std::string_view bytes) const;

  private:
    std::filesystem::path previous_;
    std::filesystem::path directory_;
};

}  // namespace nimborra::testing

// Skips the current test, saying why, when the shared corpora are not there.
#define NIMBORRA_REQUIRE_CORPORA(dirVar)                                               \
    const auto dirVar##Optional = ::nimborra::testing::corporaDirectory();             \
    if (!dirVar##Optional) {                                                           \
        GTEST_SKIP() << "the shared test corpora (../shared/corpora) are not present"; \
    }                                                                                  \
    const std::filesystem::path dirVar = *dirVar##Optional
