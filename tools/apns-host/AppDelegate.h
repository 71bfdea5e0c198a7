// The host application's own code around the add-on, as an application that uses it would have
// it: the notification-center delegate, which maps each notification the system hands over with
// the add-on's mapper and forwards it to the plug-in, and the launch code, which hands the
// notification that launched the application to the add-on's cold-start buffer.
//
// Everything here is stateless and may run on any thread; nothing throws except std::bad_alloc.
#pragma once

#include <optional>
#include <string>

#include "Commands.h"
#include "NimbOrraPlatform/NotificationContent.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::host {

// The delegate's will-present callback: the "NotifyWillPresentNotification" call for `content`.
CallCommand willPresentCall(const platform::UNNotificationContent& content);

// The delegate's did-receive-response callback: the "NotifyDidReceiveResponse" call for the
// user's `actionIdentifier` on `content`.
CallCommand didReceiveResponseCall(const platform::UNNotificationContent& content,
                                   const std::string& actionIdentifier);

// The delegate's didRegisterForRemoteNotificationsWithDeviceToken: the
// "NotifyDidRegisterForRemoteNotifications" call for the token the system issued.
CallCommand didRegisterForRemoteNotificationsCall(const platform::Data& deviceToken);

// The launch code: the application was launched by a remote notification.
void didFinishLaunching(const platform::Dictionary& remoteNotification);

// The application's bundle identifier: the provisioning profile's "application-identifier"
// entitlement without its team prefix; nothing when the main bundle has no readable profile or
// the profile names no identifier.
std::optional<std::string> applicationBundleIdentifier();

// Why a push addressed to `target` (its "Simulator Target Bundle") is not for this application;
// nothing when it is, or when the application's identifier is not known.
std::optional<std::string> wrongTargetBundle(const std::string& target);

}  // namespace nimborra::host
