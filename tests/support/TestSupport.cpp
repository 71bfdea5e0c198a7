#include "support/TestSupport.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

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

}  // namespace nimborra::testing
