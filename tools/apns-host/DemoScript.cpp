#include "DemoScript.h"

namespace nimborra::host {

namespace {

// Runs against the sample bundle in examples/bundle, whose provisioning profile is a
// development profile.
constexpr std::string_view kDemo =
    R"(# apns-host demo: each method of the "ApnsService" plug-in once; after each command come its events and its reply.
# The sample bundle holds a development provisioning profile: the APNs sandbox (environment 2).
{"call":"GetProviderEnvironment"}
# Device tokens are never issued on the simulator.
{"call":"GetToken"}
# The simulated user grants authorization for alert (3), badge (1) and sound (2).
{"call":"RequestAuthorization","payload":{"options":[3,1,2]}}
# The system remembers the answer: the app is now authorized (raw platform status 2, wire status 3).
{"call":"GetNotificationSettings"}
{"call":"SetBadgeCount","payload":{"count":3}}
# The host forwards the system's registration outcome: a device token becomes an event...
{"call":"NotifyDidRegisterForRemoteNotifications","payload":{"deviceToken":"ChssPQ=="}}
# ...and a failure is only logged (at debug level: run with --log-level debug to see it).
{"call":"NotifyDidFailToRegister","payload":{"errorDescription":"no network"}}
# A notification arrives while the app is in the foreground...
{"call":"NotifyWillPresentNotification","payload":{"notification":{"title":"New message","subtitle":"From Ada","body":"Are we still on for lunch?","badge":4,"sound":"default","categoryIdentifier":"MESSAGE","threadIdentifier":"chat-7","launchImageName":"","targetContentIdentifier":"chat-7","interruptionLevel":2,"relevanceScore":0.5,"userInfoJson":"{\"chatId\":7}"}}}
# ...and the user opens it.
{"call":"NotifyDidReceiveResponse","payload":{"notification":{"title":"New message","subtitle":"From Ada","body":"Are we still on for lunch?","badge":4,"sound":"default","categoryIdentifier":"MESSAGE","threadIdentifier":"chat-7","launchImageName":"","targetContentIdentifier":"chat-7","interruptionLevel":2,"relevanceScore":0.5,"userInfoJson":"{\"chatId\":7}"},"actionIdentifier":"open"}}
# A push reaches the simulated system while the app is in the foreground: the system hands it to
# the app's delegate, which maps it and forwards it to the plug-in. The add-on asks for no banner,
# so the system shows nothing (the system line comes last: what the system did).
{"push":{"aps":{"alert":{"title":"New message","body":"Lunch at noon?"},"badge":5,"sound":"default","thread-id":"chat-7"},"chatId":7}}
# The host application may decide otherwise (--present, or this): listed in the notification
# centre, so the user can tap it later; every command can carry an id, answered once it is done.
{"platform":{"present":["list","badge"]},"id":"present"}
{"push":{"aps":{"alert":{"title":"New message","body":"Still hungry?"},"badge":6},"chatId":7},"apnsId":"6d3e2f10-5c4b-4a39-8e71-0f2a9b8c7d61","id":"listed"}
{"inspect":"notificationCenter"}
{"tap":"6d3e2f10-5c4b-4a39-8e71-0f2a9b8c7d61","action":"open","id":"tapped"}
# A push arrives while the app is not running and the user taps it: the app launches, its launch
# code hands the payload to the add-on, and the delegate reports the tap...
{"push":{"aps":{"alert":{"title":"Your order has shipped","body":"Order A-1042 is on its way."},"badge":1,"sound":"default"},"orderId":"A-1042"},"app":"notRunning","tap":true}
# ...and the far side asks for it once it is ready (a second ask would get the empty record).
{"call":"GetColdStartNotification"}
# A launch notification can also be handed over through the bridge.
{"call":"NotifyColdStartNotification","payload":{"userInfoJson":"{\"aps\":{\"alert\":\"Welcome back\"}}"}}
# The plug-in has no synchronous methods.
{"callSync":"GetToken"}
# What reached the simulated system: the option mask 7 (alert, badge, sound) and the last badge,
# set by the tapped push.
{"inspect":"platform"}
)";

}  // namespace

std::string_view demoScript() {
    return kDemo;
}

}  // namespace nimborra::host
