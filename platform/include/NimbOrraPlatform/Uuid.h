// UUIDs as text: the 8-4-4-4-12 form of hexadecimal digits that notification identifiers take.
// Safe from any thread; nothing here throws except std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

#include "NimbOrraPlatform/Export.h"

namespace nimborra::platform {

// True when `text` is 36 characters: 32 hexadecimal digits of either case with "-" after the
// 8th, 12th, 16th and 20th.
NIMBORRA_PLATFORM_EXPORT bool isUuidText(std::string_view text);

// A new random UUID (version 4, RFC 4122 variant) in lower case. Unique, not secret: the
// generator is seeded once per thread from the system's entropy.
NIMBORRA_PLATFORM_EXPORT std::string makeUuid();

}  // namespace nimborra::platform
