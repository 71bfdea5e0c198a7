// Encodes a codable value (see Codable.h) into JSON text: object members in the order the
// record declares them, compact, with the platform serialiser's escapes and number forms, byte
// strings as standard padded base64. NaN and infinities fail the encoding with invalidValue.
//
// An encoder holds only its settings: one may be used from several threads at once.
#pragma once

#include <optional>
#include <string>

#include "NimbOrraCore/Codable.h"
#include "NimbOrraCore/Export.h"

namespace nimborra::core {

class JSONEncoder {
  public:
    enum class DataEncodingStrategy { base64 };

    DataEncodingStrategy dataEncodingStrategy = DataEncodingStrategy::base64;

    template <class T>
    CodingResult<std::string> encode(const T& value) const {
        std::string text;
        if (auto failure = encodeAppending(value, text)) {
            return std::move(*failure);
        }
        return text;
    }

    // The same, appended to `out`, so that a caller wrapping the encoding builds it in one
    // buffer: nothing on success, the failure otherwise (`out` then holds a partial text).
    template <class T>
    std::optional<CodingError> encodeAppending(const T& value, std::string& out) const {
        EncodingContext context(out);
        encodeValue(context, value);
        if (context.failed()) {
            return context.error();
        }
        return std::nullopt;
    }
};

}  // namespace nimborra::core
