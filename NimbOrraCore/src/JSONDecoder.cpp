#include "NimbOrraCore/JSONDecoder.h"

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::core {

CodingResult<platform::Value> JSONDecoder::parse(std::string_view text) {
    std::string reason;
    auto parsed = platform::JSONSerialization::jsonObject(
        text, platform::JSONReadingOptions{.fragmentsAllowed = true}, &reason);
    if (!parsed) {
        return notJSON(reason);
    }
    return std::move(*parsed);
}

CodingError JSONDecoder::notJSON(std::string_view reason) {
    return CodingError(CodingErrorKind::dataCorrupted, {},
                       "the data is not valid JSON (" + std::string(reason) + ")");
}

}  // namespace nimborra::core
