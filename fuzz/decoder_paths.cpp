// The bridge decoder's two paths against each other. JSONDecoder::decode reads a record straight
// from the parsed document (JSONElement views); decodeFromValue reads it from the Value tree that
// JSONDecoder::parse builds. For any input, and for every request record of the plug-in, both
// must give the same record or the same CodingError (kind, coding path and description).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"

namespace {

using namespace nimborra;

template <class Record>
void compare(std::string_view text, const char* name) {
    const core::JSONDecoder decoder = core::OrraJSONCoding::makeDecoder();
    const core::CodingResult<Record> direct = decoder.decode<Record>(text);
    const core::CodingResult<platform::Value> parsed = core::JSONDecoder::parse(text);
    const core::CodingResult<Record> viaTree = parsed.ok()
                                                   ? decoder.decodeFromValue<Record>(parsed.value())
                                                   : core::CodingResult<Record>(parsed.error());
    const bool same =
        direct.ok() == viaTree.ok() &&
        (direct.ok() ? direct.value() == viaTree.value() : direct.error() == viaTree.error());
    if (!same) {
        std::fprintf(stderr,
                     "decoder_paths: %s decodes differently\n  direct:    %s\n  via tree:  %s\n",
                     name, direct.ok() ? "(a record)" : direct.error().description().c_str(),
                     viaTree.ok() ? "(a record)" : viaTree.error().description().c_str());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    compare<apns::APNSServiceNotifyDidReceiveResponseRequest>(text, "NotifyDidReceiveResponse");
    compare<apns::APNSServiceNotifyWillPresentNotificationRequest>(text,
                                                                   "NotifyWillPresentNotification");
    compare<apns::APNSServiceRequestAuthorizationRequest>(text, "RequestAuthorization");
    compare<apns::APNSServiceSetBadgeCountRequest>(text, "SetBadgeCount");
    compare<apns::APNSServiceNotifyDidRegisterForRemoteNotificationsRequest>(
        text, "NotifyDidRegisterForRemoteNotifications");
    compare<apns::APNSServiceNotifyDidFailToRegisterRequest>(text, "NotifyDidFailToRegister");
    compare<apns::APNSServiceNotifyColdStartNotificationRequest>(text,
                                                                 "NotifyColdStartNotification");
    compare<apns::APNSServiceGetTokenRequest>(text, "GetToken");
    compare<apns::APNSServiceGetColdStartNotificationResponse>(text, "GetColdStartNotification");
    compare<apns::APNSServiceGetNotificationSettingsResponse>(text, "GetNotificationSettings");
    compare<apns::APNSServiceNotifyWillPresentNotificationResponse>(text, "presentation options");
    return 0;
}
