#include "support/TestSupport.h"

#include <stdlib.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "NimbOrraPlatform/Bundle.h"

namespace nimborra::testing {

std::optional<std::filesystem::path> corporaDirectory() {
    const char* overridden = std::getenv("NIMBORRA_SHARED_DIR");
    const auto corpora =
        std::filesystem::path(overridden ? overridden : NIMBORRA_DEFAULT_SHARED_DIR) / "corpora";
    std::error_code ec;
    return std::filesystem::is_directory(corpora, ec) ? std::optional(corpora) : std::nullopt;
}

std::string repeated(std::string_view piece, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

std::string readFile(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

TemporaryBundle::TemporaryBundle() : previous_(platform::Bundle::mainBundle().resourceDirectory()) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "nimborra-bundle-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) {
        directory_ = pattern;
        platform::Bundle::mainBundle().setResourceDirectory(directory_);
    }
}

TemporaryBundle::~TemporaryBundle() {
    platform::Bundle::mainBundle().setResourceDirectory(previous_);
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void TemporaryBundle::writeProfile(std::string_view bytes) const {
    std::ofstream(directory_ / "embedded.mobileprovision", std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace nimborra::testing
