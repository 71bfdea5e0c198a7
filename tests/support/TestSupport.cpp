#include "support/TestSupport.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace nimborra::testing {

std::optional<std::filesystem::path> corporaDirectory() {
    std::filesystem::path shared = NIMBORRA_DEFAULT_SHARED_DIR;
    if (const char* overridden = std::getenv("NIMBORRA_SHARED_DIR")) {
        shared = overridden;
    }
    std::error_code ec;
    auto corpora = shared / "corpora";
    if (std::filesystem::is_directory(corpora, ec)) {
        return corpora;
    }
    return std::nullopt;
}

std::string repeated(std::string_view piece, std::size_t count) {
    std::string text;
    text.reserve(piece.size() * count);
    for (std::size_t i = 0; i < count; ++i) {
        text += piece;
    }
    return text;
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace nimborra::testing
