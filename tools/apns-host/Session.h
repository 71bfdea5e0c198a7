// One apns-host session: runs the commands of an input, line by line, against the plug-in and
// the simulated system, and writes what happens.
//
// Threads: run() (and with it every command) runs on one thread, the reading thread; it must
// not be the main thread, which has to keep draining the main queue. With the provider API, the
// push service's delivery thread presents notifications too, and the application delegate
// forwards device tokens from the main thread: one command lock lets one command or one
// notification run at a time (calls made by the delegate do not take it). Replies arrive on the
// plug-in's queue and are written from there; the count of calls still waiting for their reply
// is guarded by a lock, which is how "launch", "platform" and "inspect" wait for every earlier
// call. The session must outlive every call it started: run() returns only when all of them have
// been answered.
//
// Memory: at most maximumUnansweredCalls calls, holding at most maximumUnansweredBytes of payload
// between them, wait for their reply at any time; a call beyond that waits (and with it the
// reading of further input) until earlier ones are answered, so a fast input or a stalled reader
// of the output cannot make the host grow.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>

#include "Commands.h"
#include "LineReader.h"
#include "NimbOrraCore/OrraPlugin.h"
#include "NimbOrraPlatform/RemoteNotificationReceiver.h"
#include "Output.h"

namespace nimborra::provider {
class ProviderService;
}

namespace nimborra::host {

class SimulatedDevice;

// The exit status of a session.
enum class SessionStatus {
    // Every line was accepted.
    accepted = 0,
    // At least one line was refused.
    refused = 1,
    // The input could not be read, or the output could not be written.
    unreadable = 2,
};

class Session {
  public:
    // `plugin` receives the calls; with `echo`, each command and comment is written before it
    // runs, and runs only once every earlier call has been answered.
    Session(OutputWriter& output, std::shared_ptr<core::OrraPlugin> plugin, bool echo);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    static constexpr std::size_t maximumUnansweredCalls = 1024;
    static constexpr std::size_t maximumUnansweredBytes = std::size_t{4} << 20;

    // Runs every line of `input`, then waits until every call has been answered. Stops reading
    // at a read error (reported as readError()) or once the output has failed.
    SessionStatus run(LineReader& input);

    // The errno value of the read error that ended run(), or 0.
    int readError() const { return readError_; }

    // Runs one line, numbered from 1 in its input. False when the line was refused.
    bool runLine(std::string_view line, std::size_t lineNumber);

    // Blocks until every call started so far has been answered.
    void waitForReplies();

    // Once every earlier call has been answered, hands a push to the simulated system and runs
    // the callbacks it makes, each call answered before the next. False, with a refusal line for
    // `lineNumber`, when the push is addressed to another application.
    bool push(const PushCommand& command, std::size_t lineNumber);

    // With the provider API: the device the service delivers to and the service itself, for the
    // commands that change them. Both must outlive the session's use of them.
    void attachProviderApi(SimulatedDevice& device, provider::ProviderService& service);

    // Holds the command lock: no command or other notification runs meanwhile.
    std::unique_lock<std::recursive_mutex> commandLock() { return std::unique_lock(commandMutex_); }

    // The launch code's registration for remote notifications, through the add-on's
    // registration callback; returns once the token the system issued has been forwarded to the
    // plug-in and answered (false when none came).
    bool registerForRemoteNotifications();

    // The application delegate's didRegisterForRemoteNotificationsWithDeviceToken: forwards the
    // token through "NotifyDidRegisterForRemoteNotifications". Any thread.
    void didRegisterForRemoteNotifications(const platform::Data& deviceToken);

    // The system's push road for a notification from the push service, with the application in
    // `app`: whether the system showed it (nothing when it refused the payload). Runs once every
    // earlier call has been answered, and returns once the calls it causes have been.
    std::optional<bool> presentRemoteNotification(
        const platform::IncomingRemoteNotification& notification, platform::ApplicationState app);

  private:
    void call(const CallCommand& command);
    void launch(const LaunchCommand& command);
    bool changePlatform(const PlatformCommand& command, std::size_t lineNumber);
    void inspect(const InspectCommand& command);
    bool tap(const TapCommand& command, std::size_t lineNumber);
    // push() and presentRemoteNotification() with the command lock held; `tapOnly` runs only the
    // callbacks of a tap on a notification already shown.
    platform::RemoteNotificationDelivery runPushRoad(const platform::Dictionary& payload,
                                                     platform::ApplicationState app,
                                                     const std::optional<std::string>& tap,
                                                     bool tapOnly);

    OutputWriter& output_;
    const std::shared_ptr<core::OrraPlugin> plugin_;
    const bool echo_;
    // Calls so far: the default "id".
    std::atomic<std::int64_t> callCount_ = 0;
    // One command or one notification at a time.
    std::recursive_mutex commandMutex_;
    SimulatedDevice* device_ = nullptr;
    provider::ProviderService* service_ = nullptr;
    int readError_ = 0;

    std::mutex mutex_;
    std::condition_variable answered_;
    // Asynchronous calls whose reply has not been written yet, and the size of their payloads;
    // guarded by mutex_. answered_ is notified whenever a reply has been written.
    std::size_t outstanding_ = 0;
    std::size_t outstandingBytes_ = 0;
    // Device tokens forwarded to the plug-in so far; guarded by mutex_, notified by answered_.
    std::size_t tokensForwarded_ = 0;
};

}  // namespace nimborra::host
