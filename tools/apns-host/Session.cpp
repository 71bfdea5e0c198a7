#include "Session.h"

#include <string>
#include <type_traits>
#include <utility>

#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPlatform/UserNotificationCenter.h"
#include "NimbOrraProviderApi/ProviderService.h"

namespace nimborra::host {

Session::Session(OutputWriter& output, Bridge& bridge, Phone& phone, Application& application,
                 bool echo)
    : output_(output), bridge_(bridge), phone_(phone), application_(application), echo_(echo) {}

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
        case InputLine::Kind::refused: {
            std::string refusal = refusalLine(input.text, lineNumber);
            output_.writeLine(input.id ? withId(std::move(refusal), *input.id) : refusal);
            return false;
        }
        case InputLine::Kind::command:
            break;
    }
    if (input.id) {
        const std::lock_guard lock(idMutex_);
        if (waitingIds_.contains(*input.id)) {
            // Not answered with that id: the command that holds it still will be.
            output_.writeLine(refusalLine(
                "\"id\" " + *input.id + " is still waiting for its answer", lineNumber));
            return false;
        }
    }
    return runCommand(input.command, input.id, lineNumber);
}

bool Session::runCommand(const Command& command, const std::optional<std::string>& id,
                         std::size_t lineNumber) {
    // Each command other than a call answers, when it has an id, with one line.
    const auto refuse = [&](const std::string& reason) {
        std::string line = refusalLine(reason, lineNumber);
        output_.writeLine(id ? withId(std::move(line), *id) : line);
        return false;
    };
    const auto done = [&](std::string_view name) {
        if (id) {
            output_.writeLine(doneLine(*id, name));
        }
        return true;
    };
    return std::visit(
        [&](const auto& command) -> bool {
            using T = std::decay_t<decltype(command)>;
            if constexpr (std::is_same_v<T, CallCommand>) {
                call(command, id);
                return true;
            } else if constexpr (std::is_same_v<T, CancelCommand>) {
                bridge_.cancel(command.callbackId);
                return done("cancel");
            } else {
                // Everything else runs once every earlier call has been answered, with the
                // phone to itself.
                bridge_.waitForReplies();
                const auto exclusive = phone_.exclusive();
                bridge_.waitForReplies();
                if constexpr (std::is_same_v<T, LaunchCommand>) {
                    application_.didFinishLaunching(command.payload);
                    return done("launch");
                } else if constexpr (std::is_same_v<T, PlatformCommand>) {
                    std::string refusal;
                    if (!changePlatform(command, refusal)) {
                        return refuse(refusal);
                    }
                    return done("platform");
                } else if constexpr (std::is_same_v<T, PushCommand>) {
                    if (command.targetBundle) {
                        if (auto wrong = phone_.wrongTargetBundle(*command.targetBundle)) {
                            return refuse("push: " + *wrong);
                        }
                    }
                    push(command);
                    return done("push");
                } else if constexpr (std::is_same_v<T, TapCommand>) {
                    if (!phone_.tap(command.identifier, command.action)) {
                        return refuse("tap: no notification \"" + command.identifier +
                                      "\" can be tapped");
                    }
                    return done("tap");
                } else {
                    std::string line = command.what == InspectCommand::What::notificationCenter
                                           ? phone_.notificationCenterLine()
                                           : phone_.platformLine();
                    output_.writeLine(id ? withId(std::move(line), *id) : line);
                    return true;
                }
            }
        },
        command);
}

void Session::waitForReplies() {
    bridge_.waitForReplies();
    { const auto exclusive = phone_.exclusive(); }
    bridge_.waitForReplies();
}

void Session::call(const CallCommand& command, const std::optional<std::string>& id) {
    const std::int64_t count = ++callCount_;
    std::string replyId;
    if (id) {
        replyId = *id;
    } else {
        platform::appendJSONNumber(replyId, count);
    }
    if (command.synchronous) {
        bridge_.callSync(command.method, command.payload, replyId);
        return;
    }
    // A default id that an explicit one already holds is still used: the far side chose to
    // mix them.
    const bool claimed = claimId(replyId);
    bridge_.call(command.method, command.payload, replyId, [this, claimed, replyId] {
        if (claimed) {
            releaseId(replyId);
        }
    });
}

bool Session::claimId(const std::string& id) {
    const std::lock_guard lock(idMutex_);
    return waitingIds_.insert(id).second;
}

void Session::releaseId(const std::string& id) {
    const std::lock_guard lock(idMutex_);
    waitingIds_.erase(id);
}

void Session::push(const PushCommand& command) {
    PushNotification notification;
    notification.apnsId = command.apnsId ? *command.apnsId : phone_.newApnsId();
    notification.collapseId = command.collapseId;
    notification.payload = std::make_shared<const platform::Dictionary>(command.payload);
    phone_.push(std::move(notification), command.appOverride, command.tap);
}

bool Session::changePlatform(const PlatformCommand& command, std::string& refusal) {
    provider::ProviderService* service = phone_.providerService();
    if ((command.deviceRegistered || command.deviceOnline) && service == nullptr) {
        refusal = "platform: \"deviceRegistered\" and \"deviceOnline\" need --provider-api";
        return false;
    }
    if (command.bundle) {
        if (auto reason = phone_.openBundle(*command.bundle)) {
            refusal = "platform: " + *reason;
            return false;
        }
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
    if (command.present) {
        application_.setPresentation(
            *command.present ? PresentationOptions::named(**command.present) : std::nullopt);
    }
    if (command.app) {
        phone_.setApplicationState(*command.app);
    }
    if (command.deviceOnline) {
        // Coming online delivers the kept notification; its lines come before this command's
        // answer.
        service->setDeviceOnline(*command.deviceOnline);
        phone_.waitForRoads();
    }
    if (command.deviceRegistered) {
        const bool wasRegistered = service->deviceToken().has_value();
        service->setDeviceRegistered(*command.deviceRegistered);
        if (*command.deviceRegistered && !wasRegistered) {
            // The application is installed again: it registers at launch and gets a new token.
            application_.registerForRemoteNotifications();
        }
    }
    return true;
}

}  // namespace nimborra::host
