// The "ApnsService" method table: each bridge method's name, the adapter operation that runs it
// and, through the operation's type, its request and response records. The plug-in dispatches
// through it in this order (the first equal name wins), and tools that describe the protocol
// read it too, so the two cannot disagree. Compile-time data only: no state, no threads.
#pragma once

#include <string_view>
#include <tuple>

#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapter.h"

namespace nimborra::apns {

// One method: its bridge name and the adapter operation, whose parameter is the request record
// and whose result carries the response record.
template <class Request, class Response>
struct ApnsServiceMethod {
    using RequestRecord = Request;
    using ResponseRecord = Response;
    std::string_view name;
    ApnsServiceResult<Response> (ApnsServiceNativeAdapter::*operation)(Request);
};

template <class Request, class Response>
ApnsServiceMethod(std::string_view,
                  ApnsServiceResult<Response> (ApnsServiceNativeAdapter::*)(Request))
    -> ApnsServiceMethod<Request, Response>;

// The eleven methods, in dispatch order.
constexpr auto apnsServiceMethods() {
    using A = ApnsServiceNativeAdapter;
    return std::tuple{
        ApnsServiceMethod{"GetToken", &A::getToken},
        ApnsServiceMethod{"GetProviderEnvironment", &A::getProviderEnvironment},
        ApnsServiceMethod{"GetColdStartNotification", &A::getColdStartNotification},
        ApnsServiceMethod{"RequestAuthorization", &A::requestAuthorization},
        ApnsServiceMethod{"SetBadgeCount", &A::setBadgeCount},
        ApnsServiceMethod{"GetNotificationSettings", &A::getNotificationSettings},
        ApnsServiceMethod{"NotifyDidRegisterForRemoteNotifications",
                          &A::notifyDidRegisterForRemoteNotifications},
        ApnsServiceMethod{"NotifyDidFailToRegister", &A::notifyDidFailToRegister},
        ApnsServiceMethod{"NotifyWillPresentNotification", &A::notifyWillPresentNotification},
        ApnsServiceMethod{"NotifyDidReceiveResponse", &A::notifyDidReceiveResponse},
        ApnsServiceMethod{"NotifyColdStartNotification", &A::notifyColdStartNotification},
    };
}

}  // namespace nimborra::apns
