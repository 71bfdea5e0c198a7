#include "NimbOrraCore/JSONDecoder.h"

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::core {

CodingError JSONDecoder::notJSON(std::string_view reason) {
    return CodingError(CodingErrorKind::dataCorrupted, {},
                       "the data is not valid JSON (" + std::string(reason) + ")");
}

}  // namespace nimborra::core
