// The SDK's error record, with which plug-ins report failures across the bridge, and its codes.
// Plain values: copy freely, use from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "NimbOrraCore/Export.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::core {

enum class NimbErrorCode {
    ok,
    cancelled,
    unknown,
    invalidArgument,
    deadlineExceeded,
    notFound,
    alreadyExists,
    permissionDenied,
    resourceExhausted,
    failedPrecondition,
    aborted,
    outOfRange,
    unimplemented,
    internal,
    unavailable,
    dataLoss,
    unauthenticated,
};

// The code's text on the wire, in upper snake case: "OK", "INTERNAL", "FAILED_PRECONDITION", ...
NIMBORRA_CORE_EXPORT std::string_view wireText(NimbErrorCode code);
// The reverse of wireText; nothing for a text that names no code.
[[nodiscard]] NIMBORRA_CORE_EXPORT std::optional<NimbErrorCode> nimbErrorCodeFromWireText(
    std::string_view text);

struct NIMBORRA_CORE_EXPORT NimbError {
    NimbError() = default;
    NimbError(NimbErrorCode code, std::string message) : code(code), message(std::move(message)) {}

    NimbErrorCode code = NimbErrorCode::unknown;
    std::string message;
    std::optional<std::string> externalCode;
    std::optional<std::string> traceId;
    // Free-form detail; it is written into the error's JSON as it is, so a value that JSON
    // cannot express makes that JSON unwritable.
    std::optional<platform::Value> details;
    std::optional<std::string> type;
    std::optional<std::string> instance;

    // An object with "code" (the wire text) and "message", then each optional field that is
    // present, in the order of the fields above; absent ones are left out.
    platform::Value toJSONObject() const;

    friend bool operator==(const NimbError&, const NimbError&) = default;
};

}  // namespace nimborra::core
