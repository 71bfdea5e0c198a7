// The simulated phone's system: one state shared by every road a push can take (the push
// command, --push files, the provider API) and the rules by which the system handles a remote
// notification, as the device does.
//
// The phone owns: the application bundle and what its provisioning profile says (read once per
// bundle, through the add-on's own profile reader, so that the provider API, the start line and
// "GetProviderEnvironment" agree); the authorization status and the badge (the platform's
// notification center); the application's state; the notification centre (what the system
// lists, at most maximumListedNotifications, the oldest dropped) and the banner on screen; and,
// with the provider API, the device's registration, token and online state (through the push
// service).
//
// A push's road: the system turns the payload into content and decides by the authorization
// status and the application's state. In the foreground the application's delegate is asked
// (willPresent) and the options it hands back decide: "badge" applies the badge, "list" adds the
// notification to the notification centre, "banner" shows it; with "list" or "banner" it can be
// tapped. In the background or not running, a shown notification is listed and sets the badge.
// A tap runs didReceiveResponse (launching the application first when it was not running) and
// takes the notification off the screen and out of the list. Each push ends with one system line
// saying what happened, written after the lines of the callbacks it caused.
//
// Threads: every member may be called from any thread; the state is guarded by one lock, never
// held while the application runs. Roads started by the provider API run concurrently, each
// waiting only for its own replies (their calls are pipelined through the plug-in's queue); their
// system lines are written in the order the roads started. exclusive() gives a session command
// the phone to itself: no new road starts until it is released, and it waits for the running
// ones to finish; roads the holding thread starts itself (a device coming online delivers what was
// kept) do not wait. The push service hands notifications over on its queue, which is the
// plug-in's: that thread never waits, neither for the phone nor for room on the bridge (the replies
// that make room come on it). A notification delivered while a session command has the phone is
// kept, in order, and its road starts on the push service's queue once the phone is released;
// exclusive() waits for such roads to start first. Nothing here throws except std::bad_alloc.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "Application.h"
#include "NimbOrraPlatform/RemoteNotification.h"
#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "NimbOrraPlatform/Value.h"
#include "NimbOrraProviderApi/ProviderService.h"
#include "Output.h"

namespace nimborra::host {

// One remote notification on its way through the phone. The payload is shared, never copied.
struct PushNotification {
    // Its apns-id.
    std::string apnsId;
    std::optional<std::string> collapseId;
    std::shared_ptr<const platform::Dictionary> payload;
    // The content the system made of the payload, once made (a road makes it when there is none);
    // its user info is then the very payload above.
    std::shared_ptr<const platform::UNNotificationContent> content;
};

// What the bundle's provisioning profile says.
struct ProfileFacts {
    // The application's bundle identifier: "application-identifier" without its team prefix.
    std::optional<std::string> bundleIdentifier;
    // "aps-environment" as the add-on reads it ("production" without a profile).
    std::optional<std::string> environment;
};

class Phone final : public platform::RemoteNotificationReceiver, public provider::ProviderObserver {
  public:
    static constexpr std::size_t maximumListedNotifications = 64;

    // `output` and `application` must outlive the phone.
    Phone(OutputWriter& output, Application& application);
    // Waits for the work it gave the push service's queue (kept notifications to start).
    ~Phone() override;
    Phone(const Phone&) = delete;
    Phone& operator=(const Phone&) = delete;

    // Uses `directory` as the application bundle (the main bundle's default when nothing) and
    // reads its profile: nothing, or why the directory cannot be used (it does not exist, is
    // not a directory, cannot be read).
    std::optional<std::string> openBundle(const std::optional<std::filesystem::path>& directory);
    ProfileFacts profile() const;
    // Why a push addressed to `target` (its "Simulator Target Bundle") is not for this
    // application; nothing when it is, or when the application's identifier is not known.
    std::optional<std::string> wrongTargetBundle(const std::string& target) const;

    platform::ApplicationState applicationState() const;
    void setApplicationState(platform::ApplicationState app);

    // A push from the push command or a --push file: runs its road with the application in
    // `app` (the phone's state when nothing) and the user's `tap`, and returns once its system
    // line has been written. Call while holding exclusive().
    void push(PushNotification notification, std::optional<platform::ApplicationState> app,
              const std::optional<std::string>& tap);
    // An apns-id for a push that came without one: UUID-shaped and counted from 1
    // (00000000-0000-4000-8000-000000000001, ...), so that a session's output is the same on
    // every run.
    std::string newApnsId();

    // The user taps a tappable notification, by apns-id (any case) or "latest": false when
    // there is none. Returns once its system line has been written. Call while holding
    // exclusive().
    bool tap(std::string_view identifier, const std::string& action);

    // {"notificationCenter":[{"apnsId":ID,"collapseId":ID|null,"payload":P}...]}, oldest first.
    std::string notificationCenterLine() const;
    // {"platform":{...}}: the authorization options last asked for, the badge, the number of
    // registrations, the authorization status, the application's state and the presentation.
    std::string platformLine() const;

    // Holds the phone for one session command: new roads wait until the guard goes, and the
    // constructor returns once the running roads have written their system lines.
    class Exclusive {
      public:
        explicit Exclusive(Phone& phone);
        ~Exclusive();
        Exclusive(const Exclusive&) = delete;
        Exclusive& operator=(const Exclusive&) = delete;

      private:
        Phone& phone_;
    };
    Exclusive exclusive() { return Exclusive(*this); }
    // Returns once every road started so far has written its system line.
    void waitForRoads();

    // The push service (provider API only): the device's registration and online state. The
    // service must outlive its use here; nothing detaches it.
    void attachProviderService(provider::ProviderService& service);
    provider::ProviderService* providerService() const;

    // From the push service (see ProviderService.h for its threads).
    Taken take(const platform::IncomingRemoteNotification& notification) override;
    void present(platform::IncomingRemoteNotification&& notification) override;
    void requestHandled(const provider::ProviderRecord& record) override;
    void keptNotificationDelivered(std::string_view apnsId,
                                   provider::ProviderOutcome outcome) override;

  private:
    struct Road;
    struct Listed {
        PushNotification notification;
        // Start order of the road that showed it: the newest is "latest".
        std::uint64_t order = 0;
    };

    // Starts a road for a session command that holds the phone, with the application in `app`
    // (the phone's state when nothing).
    std::shared_ptr<Road> start(PushNotification notification,
                                std::optional<platform::ApplicationState> app,
                                std::optional<std::string> tap, bool tapOnly);
    // With mutex_ held: a new road, in start order and among the running ones; it keeps the
    // push service's token for the notification, if any, until it ends.
    std::shared_ptr<Road> admitLocked(PushNotification notification,
                                      std::optional<platform::ApplicationState> app,
                                      std::optional<std::string> tap, bool tapOnly,
                                      std::shared_ptr<const void> presence = nullptr);
    // On the push service's queue: starts the kept notifications while nobody else has the
    // phone.
    void startDeferred();
    void run(const std::shared_ptr<Road>& road);
    void presented(const std::shared_ptr<Road>& road, PresentationOptions options);
    void respond(const std::shared_ptr<Road>& road);
    void finish(const std::shared_ptr<Road>& road);
    void waitFinished(const std::shared_ptr<Road>& road);
    // With mutex_ held: the notification's place on screen or in the list, replaced by collapse
    // identifier, oldest dropped.
    void listLocked(const PushNotification& notification, std::uint64_t order);
    void removeLocked(const std::string& apnsId);

    OutputWriter& output_;
    Application& application_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    ProfileFacts profile_;
    platform::ApplicationState app_ = platform::ApplicationState::foreground;
    std::deque<Listed> listed_;
    std::optional<Listed> banner_;
    provider::ProviderService* service_ = nullptr;
    // Roads in start order (their orders increase), until their system line is written in that
    // order: only the oldest ever leaves.
    std::deque<std::shared_ptr<Road>> running_;
    // Notifications the push service delivered while another thread had the phone, in order,
    // with the service's tokens for them (see IncomingRemoteNotification::presence).
    struct Deferred {
        PushNotification notification;
        std::shared_ptr<const void> presence;
    };
    std::deque<Deferred> deferred_;
    // startDeferred() work items queued and not yet finished.
    std::size_t resumesQueued_ = 0;
    std::uint64_t nextOrder_ = 1;
    std::uint64_t apnsIdsIssued_ = 0;
    bool exclusive_ = false;
    // The thread holding the phone: roads it starts itself do not wait for it.
    std::thread::id exclusiveOwner_;
};

}  // namespace nimborra::host
