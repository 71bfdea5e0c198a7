#include "Session.h"

#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include "AppDelegate.h"
#include "NimbOrraPlatform/Application.h"
#include "NimbOrraPlatform/Bundle.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraPushAddonApns/ApnsColdStartBuffer.h"

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
                changePlatform(command);
            } else if constexpr (std::is_same_v<T, PushCommand>) {
                return push(command, lineNumber);
            } else {
                inspect();
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
    ++callCount_;
    const std::int64_t id = command.id.value_or(callCount_);
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
    waitForReplies();
    if (command.targetBundle) {
        if (auto wrong = wrongTargetBundle(*command.targetBundle)) {
            output_.writeLine(refusalLine("push: " + *wrong, lineNumber));
            return false;
        }
    }
    auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    const auto delivery = platform::deliverRemoteNotification(
        command.payload, command.app, center.authorizationStatus(), command.tap);
    if (delivery.badge) {
        center.setBadgeCountFromNotification(*delivery.badge);
    }
    output_.writeLine(systemLine(command.app, delivery));
    for (const auto callback : delivery.callbacks) {
        switch (callback) {
            case platform::RemoteNotificationCallback::didFinishLaunching:
                didFinishLaunching(command.payload);
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
    return true;
}

void Session::launch(const LaunchCommand& command) {
    waitForReplies();
    apns::ApnsColdStartBuffer::shared()->capture(command.payload);
}

void Session::changePlatform(const PlatformCommand& command) {
    waitForReplies();
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
}

void Session::inspect() {
    waitForReplies();
    const auto& center = platform::UNUserNotificationCenter::currentNotificationCenter();
    output_.writeLine(
        platformLine(center.lastAuthorizationOptions(), center.lastBadgeCount(),
                     platform::UIApplication::sharedApplication().mainThreadRegistrationCount()));
}

}  // namespace nimborra::host
