// Decodes a codable value (see Codable.h) from JSON text.
// Failures come back as CodingError values: keyNotFound, valueNotFound (null), typeMismatch,
// dataCorrupted (not JSON, bad base64, a number not representable in the target type).
// Integer reads accept integral numbers written as 3.0 or 1e2; booleans are not numbers.
// No partly decoded value is ever returned.
//
// A decoder holds only its settings: one may be used from several threads at once.
#pragma once

#include <string>
#include <string_view>

#include "NimbOrraCore/Codable.h"
#include "NimbOrraCore/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::core {

class NIMBORRA_CORE_EXPORT JSONDecoder {
  public:
    enum class DataDecodingStrategy { base64 };

    DataDecodingStrategy dataDecodingStrategy = DataDecodingStrategy::base64;

    // Parses `text` as JSONSerialization::jsonObject does (UTF-8; a top-level fragment such as
    // "x" or 3 is accepted) and decodes it, reading the record straight from the parsed document
    // (no Value tree is built). Numbers beyond 64 bits read as the nearest double.
    template <class T>
    CodingResult<T> decode(std::string_view text) const {
        DecodingContext context;
        T result{};
        bool decoded = false;
        std::string reason;
        const bool parsed = platform::visitJSON(text, /*fragmentsAllowed=*/true, &reason,
                                                [&](const platform::JSONElement& root) {
                                                    decoded = decodeValue(context, root, result);
                                                });
        if (!parsed) {
            return notJSON(reason);
        }
        if (!decoded) {
            return context.error();
        }
        return result;
    }

  private:
    // The dataCorrupted failure for a text that is not JSON, with the reader's reason.
    static CodingError notJSON(std::string_view reason);
};

}  // namespace nimborra::core
