#include "Session.h"

#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "AppDelegate.h"
#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraProviderApi/ProviderService.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"
#include "NimbOrraPushAddonApns/ApnsServiceNativeAdapterDefault.h"
#include "ProviderLines.h"
#include "SimulatedDevice.h"

namespace nimborra::host {

Session::Session(OutputWriter& output, std::shared_ptr<core::OrraPlugin> plugin, bool echo)
    : output_(output), plugin_(std::move(plugin)), echo_(echo) {}

SessionStatus Session::run(LineReader& input) {
    bool refused = false;
    std::size_t lineNumber = 0;
    while (!output_.failed()) {
        LineReader::Line line = input.next();
        if (line.kind == LineReader::Line::Kind::end) {
            break;
        }
        if (line.kind == LineReader::Line::Kind::failed) {
            readError_ = line.error;
            break;
        }
        ++lineNumber;
        if (line.kind == LineReader::Line::Kind::tooLong) {
            output_.writeLine(refusalLine(
                "line longer than " + std::to_string(LineReader::maximumLineLength) + " bytes",
                lineNumber));
            refused = true;
        } else if (!runLine(line.text, lineNumber)) {
            refused = true;
        }
    }
    waitForReplies();
    if (readError_ != 0 || output_.failed()) {
        return SessionStatus::unreadable;
    }
    return refused ? SessionStatus::refused : SessionStatus::accepted;
}

bool Session::runLine(std::string_view line, std::size_t lineNumber) {
    InputLine input = readInputLine(line);
    if (input.kind == InputLine::Kind::blank) {
        return true;
    }
    if (echo_) {
        // Let the previous command finish first, so that its events and reply come before the
        // next echoed line.
        waitForReplies();
        output_.writeLine(input.kind == InputLine::Kind::comment ? commentLine(input.text)
                                                                 : commandLine(input.json, line));
    }
    const std::lock_guard commandLock(commandMutex_);
    switch (input.kind) {
        case InputLine::Kind::blank:
        case InputLine::Kind::comment:
            return true;
        case InputLine::Kind::refused:
            output_.writeLine(refusalLine(input.text, lineNumber));
            return false;
        case InputLine::Kind::command:
            break;
    }

    return std::visit(
        [this, lineNumber](const auto& command) {
            using T = std::decay_t<decltype(command)>;
            if constexpr (std::is_same_v<T, CallCommand>) {
                call(command);
            } else if constexpr (std::is_same_v<T, CancelCommand>) {
                plugin_->cancel(command.callbackId);
            } else if constexpr (std::is_same_v<T, LaunchCommand>) {
                launch(command);
            } else if constexpr (std::is_same_v<T, PlatformCommand>) {
                return changePlatform(command, lineNumber);
            } else if constexpr (std::is_same_v<T, PushCommand>) {
                return push(command, lineNumber);
            } else if constexpr (std::is_same_v<T, TapCommand>) {
                return tap(command, lineNumber);
            } else {
                inspect(command);
            }
            return true;
        },
        input.command);
}

void Session::waitForReplies() {
    std::unique_lock lock(mutex_);
    answered_.wait(lock, [this] { return outstanding_ == 0; });
}

void Session::call(const CallCommand& command) {
    const std::int64_t count = ++callCount_;
    const std::int64_t id = command.id.value_or(count);
    if (command.synchronous) {
        output_.writeLine(replyLine(id, plugin_->callSync(command.method, command.payload)));
        return;
    }
    const std::size_t bytes = command.payload.size();
    {
        // Wait for room; a call larger than the byte limit goes alone.
        std::unique_lock lock(mutex_);
        answered_.wait(lock, [this, bytes] {
            return outstanding_ == 0 || (outstanding_ < maximumUnansweredCalls &&
                                         outstandingBytes_ + bytes <= maximumUnansweredBytes);
        });
        ++outstanding_;
        outstandingBytes_ += bytes;
    }
    plugin_->callAsync(command.method, command.payload, [this, id, bytes](std::string reply) {
        output_.writeLine(replyLine(id, reply));
        // Notified under the lock: once a waiter sees the count reach zero, this callback no
        // longer touches the session.
        const std::lock_guard lock(mutex_);
        --outstanding_;
        outstandingBytes_ -= bytes;
        answered_.notify_all();
    });
}

bool Session::push(const PushCommand& command, std::size_t lineNumber) {
    const std::lock_guard commandLock(commandMutex_);
    waitForReplies();
    if (command.targetBundle) {
        if (auto wrong = wrongTargetBundle(*command.targetBundle)) {
            output_.writeLine(refusalLine("push: " + *wrong, lineNumber));
            return false;
        }
    }
    runPushRoad(command.payload, command.app, command.tap, false);
    return true;
}

platform::RemoteNotificationDelivery Session::runPushRoad(const platform::Dictionary& payload,
                                                          platform::ApplicationState app,
                                                          const std::optional<std::string>& tap,
                                                          bool tapOnly) {
    waitForReplies();
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    auto delivery =
        platform::deliverRemoteNotification(payload, app, center.authorizationStatus(), tap);
    if (tapOnly) {
        // The notification is on screen already: only what the tap causes runs again.
        std::erase(delivery.callbacks, platform::RemoteNotificationCallback::willPresent);
        delivery.badge.reset();
    }
    if (delivery.badge) {
        center.setBadgeCountFromNotification(*delivery.badge);
    }
    output_.writeLine(systemLine(app, delivery));
    for (const auto callback : delivery.callbacks) {
        switch (callback) {
            case platform::RemoteNotificationCallback::didFinishLaunching:
                didFinishLaunching(payload);
                break;
            case platform::RemoteNotificationCallback::willPresent:
                call(willPresentCall(delivery.content));
                break;
            case platform::RemoteNotificationCallback::didReceiveResponse:
                call(didReceiveResponseCall(delivery.content, delivery.tap.value_or("")));
                break;
        }
        waitForReplies();
    }
    return delivery;
}

std::optional<bool> Session::presentRemoteNotification(
    const platform::IncomingRemoteNotification& notification, platform::ApplicationState app) {
    const std::lock_guard commandLock(commandMutex_);
    PushCommand push;
    if (auto refusal = readPushPayload(platform::Value(notification.payload), push)) {
        output_.writeLine(notificationRefusalLine("push: " + *refusal, notification.identifier));
        return std::nullopt;
    }
    return runPushRoad(push.payload, app, std::nullopt, false).shown;
}

bool Session::tap(const TapCommand& command, std::size_t lineNumber) {
    waitForReplies();
    if (device_ == nullptr) {
        output_.writeLine(refusalLine("tap: needs --provider-api", lineNumber));
        return false;
    }
    const auto notification = device_->takeShown(command.identifier);
    if (!notification) {
        output_.writeLine(refusalLine(
            "tap: no notification \"" + command.identifier + "\" is shown", lineNumber));
        return false;
    }
    runPushRoad(notification->payload, device_->applicationState(), command.action, true);
    return true;
}

void Session::attachProviderApi(SimulatedDevice& device, provider::ProviderService& service) {
    device_ = &device;
    service_ = &service;
}

bool Session::registerForRemoteNotifications() {
    std::size_t before = 0;
    {
        const std::lock_guard lock(mutex_);
        before = tokensForwarded_;
    }
    // As an application does at launch: the add-on's own registration callback, which hops to
    // the main queue.
    const auto registerCallback =
        apns::ApnsServiceNativeAdapterDefault().registerForRemoteNotifications();
    registerCallback();
    bool forwarded = false;
    {
        std::unique_lock lock(mutex_);
        forwarded = answered_.wait_for(lock, std::chrono::seconds(10),
                                       [&] { return tokensForwarded_ > before; });
    }
    waitForReplies();
    return forwarded;
}

void Session::didRegisterForRemoteNotifications(const platform::Data& deviceToken) {
    call(didRegisterForRemoteNotificationsCall(deviceToken));
    const std::lock_guard lock(mutex_);
    ++tokensForwarded_;
    answered_.notify_all();
}

void Session::launch(const LaunchCommand& command) {
    waitForReplies();
    apns::ApnsColdStartBuffer::shared()->capture(command.payload);
}

bool Session::changePlatform(const PlatformCommand& command, std::size_t lineNumber) {
    waitForReplies();
    if ((command.deviceRegistered || command.deviceOnline || command.app) && device_ == nullptr) {
        output_.writeLine(refusalLine(
            "platform: \"deviceRegistered\", \"deviceOnline\" and \"app\" need --provider-api",
            lineNumber));
        return false;
    }
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    if (command.authorization) {
        center.setAuthorizationAnswer(command.authorization->granted, command.authorization->error);
    }
    if (command.authorizationStatus) {
        center.setAuthorizationStatus(*command.authorizationStatus);
    }
    if (command.badgeError) {
        center.setBadgeError(*command.badgeError);
    }
    if (command.bundle) {
        std::error_code error;
        auto directory = std::filesystem::absolute(*command.bundle, error);
        platform::Bundle::mainBundle().setResourceDirectory(error ? *command.bundle : directory);
    }
    if (command.app) {
        device_->setApplicationState(*command.app);
    }
    if (command.deviceOnline) {
        service_->setDeviceOnline(*command.deviceOnline);
    }
    if (command.deviceRegistered) {
        const bool wasRegistered = service_->deviceToken().has_value();
        service_->setDeviceRegistered(*command.deviceRegistered);
        if (*command.deviceRegistered && !wasRegistered) {
            // The application is installed again: it registers at launch and gets a new token.
            registerForRemoteNotifications();
        }
    }
    return true;
}

void Session::inspect(const InspectCommand& command) {
    waitForReplies();
    if (command.what == InspectCommand::What::notificationCenter) {
        output_.writeLine(device_ != nullptr ? device_->notificationCenterLine()
                                             : std::string("{\"notificationCenter\":[]}"));
        return;
    }
    const auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    output_.writeLine(
        platformLine(center.lastAuthorizationOptions(), center.lastBadgeCount(),
                     platform::UIApplication::sharedApplication().mainThreadRegistrationCount()));
}

}  // namespace nimborra::host
