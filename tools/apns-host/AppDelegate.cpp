#include "AppDelegate.h"

#include "NimbOrraCore/OrraJSONCoding.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPushAddonApns/APNSServiceRecords.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"
#include "NimbOrraPushAddonApns/ApnsNotificationMapper.h"

namespace nimborra::host {

namespace {

template <class Request>
CallCommand callFor(std::string method, const Request& request) {
    CallCommand call;
    call.method = std::move(method);
    // The records hold only text and numbers the mapper made finite, so encoding cannot fail;
    // should it, the plug-in answers the empty payload with its own error.
    auto payload = core::OrraJSONCoding::makeEncoder().encode(request);
    call.payload = payload ? std::move(payload).value() : std::string("{}");
    return call;
}

}  // namespace

CallCommand willPresentCall(const platform::UNNotificationContent& content) {
    return callFor("NotifyWillPresentNotification",
                   apns::APNSServiceNotifyWillPresentNotificationRequest{
                       apns::ApnsNotificationMapper::map(content)});
}

CallCommand didReceiveResponseCall(const platform::UNNotificationContent& content,
                                   const std::string& actionIdentifier) {
    return callFor("NotifyDidReceiveResponse",
                   apns::APNSServiceNotifyDidReceiveResponseRequest{
                       apns::ApnsNotificationMapper::map(content), actionIdentifier});
}

CallCommand didRegisterForRemoteNotificationsCall(const platform::Data& deviceToken) {
    return callFor("NotifyDidRegisterForRemoteNotifications",
                   apns::APNSServiceNotifyDidRegisterForRemoteNotificationsRequest{deviceToken});
}

void didFinishLaunching(const platform::Dictionary& remoteNotification) {
    apns::ApnsColdStartBuffer::shared()->capture(remoteNotification);
}

std::optional<std::string> applicationBundleIdentifier() {
    const auto url = platform::Bundle::mainBundle().urlForResource("embedded", "mobileprovision");
    if (!url) {
        return std::nullopt;
    }
    const auto bytes = platform::Bundle::contentsOfFile(*url);
    const auto entitlements = bytes ? apns::extractEntitlements(*bytes) : std::nullopt;
    const platform::Value* identifier =
        entitlements ? entitlements->find("application-identifier") : nullptr;
    if (identifier == nullptr || identifier->text() == nullptr) {
        return std::nullopt;
    }
    // "TEAMID.com.example.app": the team prefix ends at the first dot.
    const std::string& text = *identifier->text();
    const auto dot = text.find('.');
    return dot == std::string::npos ? text : text.substr(dot + 1);
}

std::optional<std::string> wrongTargetBundle(const std::string& target) {
    const auto identifier = applicationBundleIdentifier();
    if (!identifier || *identifier == target) {
        return std::nullopt;
    }
    return "\"Simulator Target Bundle\" is \"" + target + "\" but the application is \"" +
           *identifier + "\"";
}

}  // namespace nimborra::host
