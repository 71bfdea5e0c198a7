// Decodes a codable value (see Codable.h) from JSON text or from an already parsed value.
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

    // Parses `text` (UTF-8; a top-level fragment such as "x" or 3 is accepted) and decodes it.
    // The same as decodeFromValue on the result of parse, without building the Value tree: the
    // record is read straight from the parsed document.
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
            return *context.error();
        }
        return result;
    }

    template <class T>
    CodingResult<T> decodeFromValue(const platform::Value& value) const {
        DecodingContext context;
        T result{};
        if (!decodeValue(context, value, result)) {
            return *context.error();
        }
        return result;
    }

    // The parsing step alone: dataCorrupted when `text` is not JSON.
    static CodingResult<platform::Value> parse(std::string_view text);

  private:
    // The dataCorrupted failure for a text that is not JSON, with the reader's reason.
    static CodingError notJSON(std::string_view reason);
};

}  // namespace nimborra::core
