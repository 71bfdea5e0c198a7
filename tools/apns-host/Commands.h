// The commands of an apns-host session, and the reading of one input line into one of them.
// Reading checks everything a command needs (types, known members, base64) before anything
// runs, so a refused line has no effect at all.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "NimbOrraPlatform/NSError.h"
#include "NimbOrraPlatform/RemoteNotification.h"
#include "NimbOrraPlatform/Value.h"

namespace nimborra::host {

// Every command may also carry "id": a string or an integer that its answer line repeats.

// {"call": M, ...} (asynchronous) or {"callSync": M, ...}.
struct CallCommand {
    bool synchronous = false;
    std::string method;
    // The payload text handed to the plug-in.
    std::string payload;
};

// {"cancel": N}
struct CancelCommand {
    std::int64_t callbackId = 0;
};

// {"launch": O}, with the "$data" and "$date" forms already turned into byte data and dates.
struct LaunchCommand {
    platform::Dictionary payload;
};

// The authorization answer of a {"platform": ...} command.
struct AuthorizationAnswer {
    bool granted = false;
    std::optional<platform::NSError> error;
};

// {"platform": S}; each member is set only when S holds it.
struct PlatformCommand {
    std::optional<AuthorizationAnswer> authorization;
    std::optional<std::int64_t> authorizationStatus;
    // Outer: whether "badgeError" was given; inner: the error, or none for null.
    std::optional<std::optional<platform::NSError>> badgeError;
    std::optional<std::filesystem::path> bundle;
    // The provider API's device and application (with --provider-api only).
    std::optional<bool> deviceRegistered;
    std::optional<bool> deviceOnline;
    std::optional<platform::ApplicationState> app;
    // Outer: whether "present" was given; inner: the option names, or none for null (the
    // plug-in's own answer).
    std::optional<std::optional<std::vector<std::string>>> present;
};

// {"inspect": "platform"} or {"inspect": "notificationCenter"}
struct InspectCommand {
    enum class What { platform, notificationCenter };
    What what = What::platform;
};

// {"tap": ID, "action": ACTION}: the user taps a shown notification, by apns-id or "latest".
struct TapCommand {
    std::string identifier;
    std::string action;
};

// {"push": PAYLOAD, "app": STATE, "tap": ACTION, "apnsId": UUID, "collapseId": ID}, or a
// --push file.
struct PushCommand {
    // The payload as delivered: accepted by the system's rules, "Simulator Target Bundle" taken
    // out.
    platform::Dictionary payload;
    // The "Simulator Target Bundle" the payload named, if any.
    std::optional<std::string> targetBundle;
    // The action identifier the user taps; nothing when the notification is left alone.
    std::optional<std::string> tap;
    // The application's state for this push; the phone's own when nothing.
    std::optional<platform::ApplicationState> appOverride;
    // As the provider API's apns-id and apns-collapse-id headers: a canonical UUID (any case;
    // a new one when nothing) and the identifier that replaces a listed notification.
    std::optional<std::string> apnsId;
    std::optional<std::string> collapseId;
};

using Command = std::variant<CallCommand, CancelCommand, LaunchCommand, PlatformCommand,
                             InspectCommand, PushCommand, TapCommand>;

// One input line, read.
struct InputLine {
    enum class Kind { blank, comment, command, refused };
    Kind kind = Kind::blank;
    // For a command: what to run.
    Command command;
    // For a command or a refused line that is JSON: the line's JSON value.
    std::optional<platform::Value> json;
    // For a comment: its text after "#", trimmed. For a refused line: why it was refused.
    std::string text;
    // The command's "id" (a string or an integer) as compact JSON, when it has a valid one;
    // also for a line refused for another reason.
    std::optional<std::string> id;
};

// One command's members, as the reader accepts them: the command's own name first. For
// "platform", `settings` lists the members its object may hold.
struct CommandShape {
    std::string_view name;
    std::span<const std::string_view> members;
    std::span<const std::string_view> settings;
};

// Every command, in the order the help text lists them.
std::span<const CommandShape> commandShapes();

// Reads one line (without its line break). Never throws except std::bad_alloc.
InputLine readInputLine(std::string_view line);

// Fills `push` from a push payload as a file or a "push" command holds it: takes the "Simulator
// Target Bundle" member out and applies the system's payload rules. The reason when refused.
std::optional<std::string> readPushPayload(const platform::Value& payload, PushCommand& push);

}  // namespace nimborra::host
