#include "NimbOrraCore/NimbError.h"

#include <array>
#include <utility>

namespace nimborra::core {

namespace {

constexpr std::array<std::pair<NimbErrorCode, std::string_view>, 17> kWireTexts{{
    {NimbErrorCode::ok, "OK"},
    {NimbErrorCode::cancelled, "CANCELLED"},
    {NimbErrorCode::unknown, "UNKNOWN"},
    {NimbErrorCode::invalidArgument, "INVALID_ARGUMENT"},
    {NimbErrorCode::deadlineExceeded, "DEADLINE_EXCEEDED"},
    {NimbErrorCode::notFound, "NOT_FOUND"},
    {NimbErrorCode::alreadyExists, "ALREADY_EXISTS"},
    {NimbErrorCode::permissionDenied, "PERMISSION_DENIED"},
    {NimbErrorCode::resourceExhausted, "RESOURCE_EXHAUSTED"},
    {NimbErrorCode::failedPrecondition, "FAILED_PRECONDITION"},
    {NimbErrorCode::aborted, "ABORTED"},
    {NimbErrorCode::outOfRange, "OUT_OF_RANGE"},
    {NimbErrorCode::unimplemented, "UNIMPLEMENTED"},
    {NimbErrorCode::internal, "INTERNAL"},
    {NimbErrorCode::unavailable, "UNAVAILABLE"},
    {NimbErrorCode::dataLoss, "DATA_LOSS"},
    {NimbErrorCode::unauthenticated, "UNAUTHENTICATED"},
}};

}  // namespace

std::string_view wireText(NimbErrorCode code) {
    for (const auto& [candidate, text] : kWireTexts) {
        if (candidate == code) {
            return text;
        }
    }
    return "UNKNOWN";
}

std::optional<NimbErrorCode> nimbErrorCodeFromWireText(std::string_view text) {
    for (const auto& [code, candidate] : kWireTexts) {
        if (candidate == text) {
            return code;
        }
    }
    return std::nullopt;
}

platform::Value NimbError::toJSONObject() const {
    platform::Dictionary object;
    object.set("code", std::string(wireText(code)));
    object.set("message", message);
    if (externalCode) {
        object.set("externalCode", *externalCode);
    }
    if (traceId) {
        object.set("traceId", *traceId);
    }
    if (details) {
        object.set("details", *details);
    }
    if (type) {
        object.set("type", *type);
    }
    if (instance) {
        object.set("instance", *instance);
    }
    return platform::Value(std::move(object));
}

}  // namespace nimborra::core
