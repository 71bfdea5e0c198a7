// Builds the reply texts of the "ApnsService" plug-in. Every reply is one JSON text whose only
// top-level member tells its kind:
//   {"success":R}                        the response record R, as the bridge's encoder wrote it
//   {"error":E}                          a NimbError's JSON object, or {"code":C,"message":M}
//   {"outcome":{"code":C,"data":D}}      an outcome this library does not model
// Replies built by the serialiser fall back to fixed texts when the tree cannot be written or is
// not UTF-8, so that a reply is never lost. Stateless; safe from any thread; never throws.
#pragma once

#include <string>
#include <string_view>

#include "NimbOrraCore/CodingError.h"
#include "NimbOrraCore/NimbError.h"
#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraPushAddonApns/ApnsServiceResults.h"
#include "NimbOrraPushAddonApns/Export.h"

namespace nimborra::apns {

struct NIMBORRA_APNS_EXPORT ApnsOutcomeEnvelope {
    ApnsOutcomeEnvelope() = delete;

    // Used when a reply tree cannot be serialised.
    static constexpr std::string_view serialisationFallback =
        R"({"error":{"code":"INTERNAL","message":"<unserialisable>"}})";
    // Used when a serialised reply is not valid UTF-8.
    static constexpr std::string_view textFallback =
        R"({"error":{"code":"INTERNAL","message":"<non-utf8>"}})";
    static constexpr std::string_view unknownOutcomeNotJSONMessage =
        "Unknown outcome rawJson was not valid JSON";

    // {"error":{"code":code,"message":message}}.
    [[nodiscard]] static std::string errorReply(std::string_view code, std::string_view message);
    // {"error":problem.toJSONObject()}.
    [[nodiscard]] static std::string failureReply(const core::NimbError& problem);
    // {"outcome":{"code":...,"data":...}}, or the "INTERNAL" error reply when rawJson is not JSON
    // (a top-level fragment such as 42 or null is accepted).
    [[nodiscard]] static std::string unknownReply(const ApnsServiceUnknownOutcome& outcome);
    // {"success":...}: joined as text, so the encoder's member order is kept. "{}" stands in for
    // an encoding that is not UTF-8.
    [[nodiscard]] static std::string successReply(std::string encodedResponse);

    // The reply for any operation result. Only the encoding of a `success` response can fail;
    // that failure is returned for the caller to answer.
    template <class Response>
    static core::CodingResult<std::string> reply(const ApnsServiceResult<Response>& result) {
        if (const Response* response = result.successValue()) {
            // The response is encoded straight after the reply's opening, in one buffer.
            std::string reply;
            reply.reserve(kSuccessReplyCapacity);
            reply += successOpening;
            if (auto failure =
                    core::OrraJSONCoding::makeEncoder().encodeAppending(*response, reply)) {
                return std::move(*failure);
            }
            closeSuccessReply(reply);
            return reply;
        }
        if (const auto* outcome = result.unknownValue()) {
            return unknownReply(*outcome);
        }
        return failureReply(*result.problem());
    }

    // The text of a success reply before its response record.
    static constexpr std::string_view successOpening = "{\"success\":";

    // Serialises a reply tree with the platform serialiser and applies both fall-backs.
    [[nodiscard]] static std::string serialise(const platform::Value& tree);

  private:
    // Room for the usual small success replies (a device token's is 86 bytes) without a second
    // allocation.
    static constexpr std::size_t kSuccessReplyCapacity = 128;

    // Completes a reply that holds successOpening and an encoded response: "{}" in place of an
    // encoding that is not UTF-8, then the closing brace.
    static void closeSuccessReply(std::string& reply);
};

}  // namespace nimborra::apns
