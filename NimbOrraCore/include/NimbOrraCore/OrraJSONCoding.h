// The bridge's configured JSON coders. Every plug-in decodes its requests and encodes its
// responses with coders made here, so that all plug-ins agree on the wire forms (byte strings
// as base64, the platform's number and escape rules). Make a fresh one per use; they are cheap.
#pragma once

#include "NimbOrraCore/Export.h"
#include "NimbOrraCore/JSONDecoder.h"
#include "NimbOrraCore/JSONEncoder.h"

namespace nimborra::core {

struct NIMBORRA_CORE_EXPORT OrraJSONCoding {
    static JSONEncoder makeEncoder();
    static JSONDecoder makeDecoder();
};

}  // namespace nimborra::core
