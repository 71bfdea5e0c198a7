// The platform's property-list reader: turns an XML property list into a Value.
//
// Reading is done by libplist, behind guards: input larger than maximumLength or nested deeper
// than maximumDepth arrays and dictionaries is refused before it reaches the parser, and the
// contents of <data> elements are decoded as leniently as the platform does (characters outside
// the base64 alphabet are skipped, an incomplete final group of characters is ignored).
//
// Only XML property lists are read; anything else (a binary property list, say) yields nothing.
//
// All functions are stateless and safe to call from any thread at once. They never throw; a
// failure of any kind (malformed XML, a limit exceeded, memory exhaustion) yields nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "NimbOrraPlatform/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::platform {

class NIMBORRA_PLATFORM_EXPORT PropertyListSerialization {
  public:
    // The largest input that is read, in bytes (1 MiB).
    static constexpr std::size_t maximumLength = std::size_t{1} << 20;
    // The deepest nesting of arrays and dictionaries that is read.
    static constexpr std::size_t maximumDepth = 512;

    // Parses the bytes of an XML property list (the text from "<plist" through "</plist>",
    // optionally preceded by an XML declaration and a DOCTYPE) into a Value:
    //   <dict>    -> Dictionary with text keys (for a repeated key the last value wins)
    //   <array>   -> Array
    //   <string>  -> text (must be valid UTF-8, as must every key)
    //   <true/>, <false/> -> boolean
    //   <integer> -> integer; values above the signed 64-bit range as an unsigned integer
    //   <real>    -> double
    //   <date>    -> Date (seconds since 1970)
    //   <data>    -> Data
    // Yields nothing when the bytes are not such a property list.
    [[nodiscard]] static std::optional<Value> propertyList(
        std::span<const std::uint8_t> bytes) noexcept;

    // The same, for bytes held in a string.
    [[nodiscard]] static std::optional<Value> propertyList(std::string_view bytes) noexcept;
};

}  // namespace nimborra::platform
