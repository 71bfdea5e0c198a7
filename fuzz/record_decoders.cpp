// Every record decoder of the plug-in on any input: the request records and the response records
// that carry fields. For each, JSONDecoder::decode (which reads the record from the views of the
// parsed document) must
//   - refuse as "not valid JSON" exactly the texts that the platform's JSON reader refuses, with
//     the reader's own reason;
//   - describe any other failure on one line that starts with its kind, at a coding path;
//   - give a record that encodes, decodes back to an equal record, and whose encoding stays the
//     same from one round trip to the next.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"

namespace {

using namespace nimborra;

[[noreturn]] void fault(const char* name, const char* what, const std::string& detail) {
    std::fprintf(stderr, "record_decoders: %s: %s\n  %s\n", name, what, detail.c_str());
    std::abort();
}

template <class Record>
void check(std::string_view text, bool isJSON, const std::string& reason, const char* name) {
    const core::JSONDecoder decoder = core::OrraJSONCoding::makeDecoder();
    const core::CodingResult<Record> decoded = decoder.decode<Record>(text);
    if (!decoded.ok()) {
        const core::CodingError& error = decoded.error();
        const std::string description = error.description();
        const bool notJSON = error.kind() == core::CodingErrorKind::dataCorrupted &&
                             error.codingPath().empty() &&
                             error.detail() == "the data is not valid JSON (" + reason + ")";
        if (notJSON == isJSON) {
            fault(name, isJSON ? "JSON refused as not JSON" : "not JSON, not refused as such",
                  description);
        }
        if (description.find('\n') != std::string::npos ||
            !description.starts_with(core::codingErrorKindName(error.kind()))) {
            fault(name, "a failure description that is not one line starting with its kind",
                  description);
        }
        return;
    }
    if (!isJSON) {
        fault(name, "decoded a text that is not JSON", std::string(text));
    }
    const core::JSONEncoder encoder = core::OrraJSONCoding::makeEncoder();
    const core::CodingResult<std::string> encoded = encoder.encode(decoded.value());
    if (!encoded.ok()) {
        fault(name, "a decoded record does not encode", encoded.error().description());
    }
    const core::CodingResult<Record> again = decoder.decode<Record>(encoded.value());
    if (!again.ok() || !(again.value() == decoded.value())) {
        fault(name, "a record does not decode back from its own encoding", encoded.value());
    }
    // A negative zero is written "-0", which reads back as the integer 0: from the second
    // encoding on, the bytes must not change.
    const core::CodingResult<std::string> second = encoder.encode(again.value());
    const core::CodingResult<Record> third =
        decoder.decode<Record>(second.ok() ? second.value() : "");
    const core::CodingResult<std::string> thirdEncoded =
        third.ok() ? encoder.encode(third.value()) : core::CodingResult<std::string>(third.error());
    if (!second.ok() || !thirdEncoded.ok() || thirdEncoded.value() != second.value()) {
        fault(name, "a record's encoding changes from one round trip to the next", encoded.value());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    std::string reason;
    const bool isJSON = platform::JSONSerialization::jsonObject(
                            text, platform::JSONReadingOptions{.fragmentsAllowed = true}, &reason)
                            .has_value();
    using namespace apns;
    check<APNSServiceGetTokenRequest>(text, isJSON, reason, "GetToken request");
    check<APNSServiceNotifyDidReceiveResponseRequest>(text, isJSON, reason,
                                                      "NotifyDidReceiveResponse request");
    check<APNSServiceNotifyWillPresentNotificationRequest>(text, isJSON, reason,
                                                           "NotifyWillPresentNotification request");
    check<APNSServiceRequestAuthorizationRequest>(text, isJSON, reason,
                                                  "RequestAuthorization request");
    check<APNSServiceSetBadgeCountRequest>(text, isJSON, reason, "SetBadgeCount request");
    check<APNSServiceNotifyDidRegisterForRemoteNotificationsRequest>(
        text, isJSON, reason, "NotifyDidRegisterForRemoteNotifications request");
    check<APNSServiceNotifyDidFailToRegisterRequest>(text, isJSON, reason,
                                                     "NotifyDidFailToRegister request");
    check<APNSServiceNotifyColdStartNotificationRequest>(text, isJSON, reason,
                                                         "NotifyColdStartNotification request");
    check<APNSServiceGetTokenResponse>(text, isJSON, reason, "GetToken response");
    check<APNSServiceGetProviderEnvironmentResponse>(text, isJSON, reason,
                                                     "GetProviderEnvironment response");
    check<APNSServiceGetColdStartNotificationResponse>(text, isJSON, reason,
                                                       "GetColdStartNotification response");
    check<APNSServiceGetNotificationSettingsResponse>(text, isJSON, reason,
                                                      "GetNotificationSettings response");
    check<APNSServiceNotifyWillPresentNotificationResponse>(
        text, isJSON, reason, "NotifyWillPresentNotification response");
    check<APNSServiceRequestAuthorizationResponse>(text, isJSON, reason,
                                                   "RequestAuthorization response");
    return 0;
}
