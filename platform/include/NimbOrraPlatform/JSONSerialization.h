// The platform's JSON serialiser: reads JSON text into a Value and writes a Value as JSON text
// the way the platform does (compact, "/" escaped as "\/", shortest round-trip numbers).
//
// All functions are stateless and safe to call from any thread at once. They never throw
// (except std::bad_alloc); failures are reported as an empty result and, when asked for, a
// one-line description.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraPlatform/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

struct JSONReadingOptions {
    // Accept a bare string, number, boolean or null at the top level as well as an object or
    // an array.
    bool fragmentsAllowed = false;
};

struct JSONWritingOptions {
    // Write the members of every object in the byte order of their keys, at every level.
    bool sortedKeys = false;
    // Accept a top-level value that is neither an array nor a dictionary.
    bool fragmentsAllowed = false;
};

class NIMBORRA_PLATFORM_EXPORT JSONSerialization {
  public:
    // The deepest nesting of arrays and dictionaries that is read or written.
    static constexpr std::size_t maximumDepth = 512;

    // Parses strict JSON (RFC 8259) held in UTF-8, after skipping one leading UTF-8 byte-order
    // mark. Invalid UTF-8 is an error. For duplicate keys in an object, the last one wins.
    // Integers that fit are read as signed 64-bit, larger ones as unsigned 64-bit, others as
    // doubles.
    [[nodiscard]] static std::optional<Value> jsonObject(std::string_view text,
                                                         JSONReadingOptions options = {},
                                                         std::string* error = nullptr);

    // Writes `value` as compact JSON. Fails when the value is not valid JSON (see
    // isValidJSONObject; a fragment is accepted only with fragmentsAllowed).
    [[nodiscard]] static std::optional<std::string> data(const Value& value,
                                                         JSONWritingOptions options = {},
                                                         std::string* error = nullptr);
    // The same for a dictionary, written as the top-level object without being copied into a
    // Value first.
    [[nodiscard]] static std::optional<std::string> data(const Dictionary& object,
                                                         JSONWritingOptions options = {},
                                                         std::string* error = nullptr);

    // True when `value` can be written: the top level is an array or a dictionary and, at any
    // depth (at most maximumDepth), keys are text and values are null, booleans, numbers
    // (finite), text, arrays or dictionaries. Byte data and dates are not JSON.
    [[nodiscard]] static bool isValidJSONObject(const Value& value);
};

// Appends `text` as a JSON string literal (quotes included) with the platform's escapes:
// \" \\ \/ \b \f \n \r \t, \u00xx for the other control characters, all else as raw bytes.
NIMBORRA_PLATFORM_EXPORT void appendJSONString(std::string& out, std::string_view text);

// Appends a finite double in the platform's number form: the shortest text that reads back to
// the same value; integral values up to 2^53 in magnitude as plain digits; exponent form (at
// least two exponent digits, signed) when the decimal exponent is below -4 or the value is
// integral beyond 2^53. Returns false, appending nothing, for NaN and infinities.
[[nodiscard]] NIMBORRA_PLATFORM_EXPORT bool appendJSONNumber(std::string& out, double number);

// Appends a 64-bit integer in decimal.
NIMBORRA_PLATFORM_EXPORT void appendJSONNumber(std::string& out, std::int64_t number);
NIMBORRA_PLATFORM_EXPORT void appendJSONNumber(std::string& out, std::uint64_t number);

// True when `bytes` are well-formed UTF-8.
[[nodiscard]] NIMBORRA_PLATFORM_EXPORT bool isValidUTF8(std::string_view bytes);

}  // namespace nimborra::platform
