// The host application's own code around the add-on, as an application that uses it would have
// it: the notification-center delegate, which maps each notification the system hands over with
// the add-on's mapper and forwards it to the plug-in, the application delegate, which forwards
// the device token the system issues, and the launch code, which hands the notification that
// launched the application to the add-on's cold-start buffer.
//
// Its calls go through the bridge as the application's own ({"app":METHOD,"reply":R} lines),
// never with one of the far side's ids.
//
// Threads: any thread. The presentation choice is guarded by a lock; continuations run on the
// plug-in's queue (see Bridge.h). The application must outlive every call it started, which
// Bridge::waitForReplies() waits for. Nothing throws except std::bad_alloc.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Bridge.h"
#include "NimbOrraPlatform/NotificationContent.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::host {

// The options with which a foreground notification is presented, as the application's delegate
// hands them to the system in willPresent.
struct PresentationOptions {
    bool badge = false;
    bool sound = false;
    bool list = false;
    bool banner = false;

    // From names ("badge", "sound", "list", "banner"); nothing when one is unknown.
    static std::optional<PresentationOptions> named(const std::vector<std::string>& names);
    // From the plug-in's reply to "NotifyWillPresentNotification": the options of a success
    // reply, none for anything else.
    static PresentationOptions fromReply(std::string_view reply);
    // The chosen options' names, in the order above, as a JSON array.
    std::string json() const;

    friend bool operator==(const PresentationOptions&, const PresentationOptions&) = default;
};

class Application {
  public:
    // `bridge` must outlive the application.
    explicit Application(Bridge& bridge);
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    // What the delegate hands the system in willPresent: the user's choice, or nothing for the
    // plug-in's own answer (the default).
    void setPresentation(std::optional<PresentationOptions> options);
    std::optional<PresentationOptions> presentation() const;

    // willPresent: forwards the notification ("NotifyWillPresentNotification"); once the plug-in
    // has answered, `decided` gets the options handed to the system.
    void willPresent(const platform::UNNotificationContent& content,
                     std::function<void(PresentationOptions)> decided, bool mayWait);
    // didReceiveResponse: forwards the user's action ("NotifyDidReceiveResponse"); `done` runs
    // once the plug-in has answered.
    void didReceiveResponse(const platform::UNNotificationContent& content,
                            const std::string& actionIdentifier, std::function<void()> done,
                            bool mayWait);
    // The launch code: the application was launched by a remote notification, or the far side's
    // launch command stands in for one.
    void didFinishLaunching(const platform::Dictionary& remoteNotification);

    // The launch code's registration for remote notifications, through the add-on's
    // registration callback; returns once the token the system issued has been forwarded and
    // answered (false when none came within ten seconds).
    bool registerForRemoteNotifications();
    // didRegisterForRemoteNotificationsWithDeviceToken: forwards the token
    // ("NotifyDidRegisterForRemoteNotifications"). Any thread.
    void didRegisterForRemoteNotifications(const platform::Data& deviceToken);

  private:
    Bridge& bridge_;

    mutable std::mutex mutex_;
    std::condition_variable forwarded_;
    std::optional<PresentationOptions> presentation_;
    // Device tokens forwarded and answered so far.
    std::size_t tokensForwarded_ = 0;
};

}  // namespace nimborra::host
