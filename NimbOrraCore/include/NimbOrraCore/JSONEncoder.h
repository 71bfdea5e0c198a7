// Encodes a codable value (see Codable.h) into JSON text: object members in the order the
// record declares them, compact, with the platform serialiser's escapes and number forms, byte
// strings as standard padded base64. NaN and infinities fail the encoding with invalidValue.
//
// An encoder holds only its settings: one may be used from several threads at once.
#pragma once

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
        return encode(value, std::string());
    }

    // The same, written after what `prefix` holds: the text that comes back starts with it, so
    // that a caller wrapping the encoding builds it in one buffer.
    template <class T>
    CodingResult<std::string> encode(const T& value, std::string prefix) const {
        EncodingContext context(std::move(prefix));
        encodeValue(context, value);
        if (context.failed()) {
            return context.error();
        }
        return std::move(context.out());
    }
};

}  // namespace nimborra::core
