#include "Options.h"

#include <array>
#include <charconv>
#include <utility>

namespace nimborra::host {

namespace {

constexpr std::string_view kHelp = R"(Usage: apns-host [OPTIONS]

Plays an application that loads the "ApnsService" push-notification plug-in, the simulated
system underneath it and the far side of the bridge. Commands are read as JSON Lines, one
JSON object per line, from standard input (or --script FILE); everything the host reports
is written to standard output as JSON Lines, one object per line, flushed per line. Blank
lines and lines whose first non-blank character is "#" are skipped. A line longer than
1048576 bytes is refused unread. At most 1024 calls (holding at most 4 MiB of payload) wait
for their reply at a time; reading pauses until earlier calls are answered, so the host's
memory stays bounded however long the input and however slowly the output is read.

Options:
  --script FILE      read the commands from FILE instead of standard input
  --bundle DIR       look the provisioning profile (embedded.mobileprovision) up in DIR;
                     default: the directory of the executable (for --demo: examples/bundle)
  --log-level LEVEL  write log lines of LEVEL and above to standard error: debug, info,
                     error or off (default: info); each line reads
                     "LEVEL [SUBSYSTEM:CATEGORY] MESSAGE", the message unchanged
  --echo             write every command to standard output before running it, as
                     {"command":COMMAND} (comments as {"comment":TEXT}), and run it only
                     once every earlier call has been answered, so that each command is
                     followed by its own events and reply
  --demo             run a built-in session against the sample bundle in examples/bundle
                     that calls every method once, with the commands echoed (--echo)
  --status N         the simulated authorization status at start (see "authorizationStatus"
                     below; default 0, not determined)
  --push FILE        deliver the push payload in FILE (a .apns file: one JSON object, the
                     payload, optionally with a "Simulator Target Bundle" member) instead of
                     reading commands; repeatable, delivered in order. Standard input is not
                     read. Every file is checked before any is delivered: a file that cannot
                     be read or breaks a payload rule ends the host with status 2, the file's
                     name and the reason on standard error
  --app STATE        the application's state for the --push files after it: foreground
                     (default), background or notRunning
  --tap [ACTION]     the user taps the notifications of the --push files after it: the
                     default action, or ACTION (--tap=ACTION, or the next argument unless it
                     starts with "-"); --no-tap ends it
  -h, --help         print this text and exit

Commands:
  {"call": M, "payload": P, "id": N}
      Calls method M asynchronously and goes on at once. The payload text is P itself when
      P is a JSON string, the compact JSON of P otherwise, and {} when "payload" is absent.
      "id" (optional, an integer) defaults to the count of accepted call and callSync
      commands so far, starting at 1. When the reply arrives: {"id":N,"reply":REPLY}.
  {"callSync": M, "payload": P, "id": N}
      The synchronous call, same payload and id rules; writes {"id":N,"reply":REPLY} at once.
  {"cancel": N}
      Cancels the bridge call with callback identifier N. Writes nothing.
  {"launch": O}
      Waits until every earlier call has been answered, then hands the object O to the
      application's launch hook as the launch notification's payload. Inside O (not O
      itself, which is always the payload), {"$data": BASE64} stands for byte data and
      {"$date": SECONDS} for a date (seconds since 1970). Writes nothing.
  {"platform": S}
      Waits until every earlier call has been answered, then changes the simulated system
      for later calls. S may hold:
        "authorization": {"granted": BOOL} or {"error": {"domain": TEXT, "code": INT}}
        "authorizationStatus": INT      (raw platform status: 0 not determined, 1 denied,
                                         2 authorized, 3 provisional, 4 ephemeral, or any)
        "badgeError": null or {"domain": TEXT, "code": INT}
        "bundle": DIR                   (where the provisioning profile is looked up)
      Writes nothing. At start the system grants authorization, reports status 0 (or
      --status) and has no badge error. It remembers the answer to "RequestAuthorization":
      a grant makes the status 2 (authorized), or 3 (provisional) when the provisional
      option was asked for; a refusal makes it 1 (denied); an error leaves it unchanged.
  {"push": PAYLOAD, "app": STATE, "tap": ACTION}
      Waits until every earlier call has been answered, then delivers the remote
      notification PAYLOAD (a JSON object) the way the system does (see "Push rules"): it
      writes a "system" line, then runs the application callbacks the system makes, each
      call answered before the next. STATE is "foreground" (default), "background" or
      "notRunning". ACTION is absent when the user leaves the notification alone, true for
      a plain tap (the action "com.apple.UNNotificationDefaultActionIdentifier"), or a
      custom action identifier. The calls the callbacks make are numbered like "call"
      commands. A "Simulator Target Bundle" member is taken out of PAYLOAD and must name
      this application.
  {"inspect": "platform"}
      Waits until every earlier call has been answered, then writes
      {"platform":{"authorizationOptions":MASK|null,"badgeCount":INT|null,
      "registrations":INT}}: the last option mask and badge count that reached the
      notification center, and how many remote-notification registrations ran on the main
      thread.

Push rules (what the simulated system does with a push):
  - The payload must be a JSON object whose "aps", when present, is an object, and its
    compact JSON ("/" not escaped) at most 4096 bytes; otherwise nothing is delivered and
    the line is refused. A "Simulator Target Bundle" must equal the application's bundle
    identifier: the profile's "application-identifier" without its team prefix (any target
    is accepted when the bundle has no profile).
  - Content from "aps": "alert" as text is the body; as an object its "title", "subtitle",
    "body" and "launch-image"; a "title-loc-key", "subtitle-loc-key" or "loc-key" is used
    as the format of its text, as when the application has no translation for it: "%@"
    takes the next of its "-args", "%n$@" the n-th; a placeholder without an argument is
    empty, extra arguments are ignored. "badge" (a number) is the badge; "sound" (text, or
    an object's "name") the sound; "category", "thread-id", "target-content-id" their
    fields; "interruption-level" passive, active, time-sensitive or critical (absent or
    unknown: active); "relevance-score" (absent: 0). The user info is the whole payload.
  - A payload is visible when "aps" has "alert", "badge" or "sound"; any other is silent:
    never shown, and nothing reaches the plug-in (waking the app for a background fetch is
    outside this add-on).
  - A visible notification is shown only while the authorization status is 2, 3 or 4
    (authorized, provisional, ephemeral); then the system also sets the badge count to its
    "badge". Otherwise nothing is shown and nothing reaches the plug-in.
  - Foreground: the delegate's willPresent maps the content and calls
    "NotifyWillPresentNotification"; its reply's presentation options decide the banner,
    and the add-on answers none, so nothing appears on screen. A tap then runs
    didReceiveResponse: "NotifyDidReceiveResponse" with the action identifier.
  - Background: the notification waits in the notification centre; only a tap reaches
    the plug-in, through didReceiveResponse.
  - Not running: only a tap reaches the plug-in: the application launches
    (didFinishLaunching: the launch code hands the payload to the cold-start buffer, as
    "launch" does), then didReceiveResponse runs.

Output:
  {"id":N,"reply":REPLY}          a call's reply text, as the plug-in gave it
  {"event":NAME,"payload":P}      a bridge event, written when it is emitted, so an event
                                  emitted by a call comes before that call's reply
  {"error":TEXT,"line":N}         input line N (counting from 1) was refused: too long,
                                  not a JSON object, not a command, or a field of the wrong
                                  type; the session goes on with the next line
  {"platform":{...}}              the answer to {"inspect": "platform"}
  {"system":{...}}                what the simulated system did with a push, before the
                                  calls it causes: "app" (the state), "visible" (false:
                                  silent), "shown", "reason" (why nothing reached the
                                  application: "silent", "not authorized", "not tapped",
                                  "not running"; null when a callback ran), "badge" (the
                                  badge count the system set, or null), "tap" (the action
                                  the user took, or null), "callbacks" (in order, from
                                  "didFinishLaunching", "willPresent", "didReceiveResponse")
  {"command":C} {"comment":T}     echoed input (--echo, --demo); a line that is not JSON is
                                  echoed as a string, bytes that are not UTF-8 replaced
                                  by U+FFFD

Exit status (once every call has been answered at the end of the input):
  0  every line was accepted
  1  a line was refused
  2  the script, standard input or a --push file cannot be read (or a file is refused),
     standard output cannot be written, or an option is wrong; one line on standard
     error says why
)";

// The options that take a value.
enum class ValueOption { script, bundle, logLevel, push, app, status };

std::optional<ValueOption> valueOption(std::string_view name) {
    if (name == "--script") {
        return ValueOption::script;
    }
    if (name == "--bundle") {
        return ValueOption::bundle;
    }
    if (name == "--log-level") {
        return ValueOption::logLevel;
    }
    if (name == "--push") {
        return ValueOption::push;
    }
    if (name == "--app") {
        return ValueOption::app;
    }
    if (name == "--status") {
        return ValueOption::status;
    }
    return std::nullopt;
}

std::optional<platform::LogLevel> logLevelNamed(std::string_view name) {
    constexpr std::array levels{platform::LogLevel::debug, platform::LogLevel::info,
                                platform::LogLevel::error, platform::LogLevel::off};
    for (const auto level : levels) {
        if (platform::logLevelName(level) == name) {
            return level;
        }
    }
    return std::nullopt;
}

}  // namespace

ParsedOptions parseOptions(std::span<const std::string_view> arguments) {
    HostOptions options;
    // What --app and --tap set for the --push files after them, and the option that set it last
    // when no file has used it yet.
    PushFile next;
    std::optional<std::string_view> unusedPushSetting;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string_view argument = arguments[index];
        if (argument == "-h" || argument == "--help") {
            return HelpRequest{};
        }
        if (argument == "--tap" || argument.starts_with("--tap=")) {
            // The action is optional: "--tap" alone is a plain tap; "--tap ACTION" names one
            // unless the next argument is an option.
            if (argument.size() > 6) {
                next.tap = std::string(argument.substr(6));
            } else if (index + 1 < arguments.size() && !arguments[index + 1].starts_with("-")) {
                next.tap = std::string(arguments[++index]);
            } else {
                next.tap = std::string(platform::UNNotificationDefaultActionIdentifier);
            }
            if (next.tap->empty()) {
                return OptionError{"option '--tap' needs a non-empty action identifier"};
            }
            unusedPushSetting = "--tap";
            continue;
        }
        if (argument == "--no-tap") {
            next.tap.reset();
            unusedPushSetting = "--no-tap";
            continue;
        }
        if (argument == "--demo") {
            options.demo = true;
            continue;
        }
        if (argument == "--echo") {
            options.echo = true;
            continue;
        }

        // An option with a value, as "--name value" or "--name=value".
        const std::size_t equals = argument.find('=');
        const std::string_view name = argument.substr(0, equals);
        const auto option = argument.starts_with("--") ? valueOption(name) : std::nullopt;
        if (!option) {
            return OptionError{"unknown option '" + std::string(argument) + "'"};
        }
        std::string_view value;
        if (equals != std::string_view::npos) {
            value = argument.substr(equals + 1);
        } else if (index + 1 < arguments.size()) {
            value = arguments[++index];
        } else {
            return OptionError{"option '" + std::string(name) + "' needs a value"};
        }
        if (value.empty()) {
            return OptionError{"option '" + std::string(name) + "' needs a non-empty value"};
        }

        switch (*option) {
            case ValueOption::script:
                options.script = std::filesystem::path(value);
                break;
            case ValueOption::bundle:
                options.bundle = std::filesystem::path(value);
                break;
            case ValueOption::logLevel: {
                const auto level = logLevelNamed(value);
                if (!level) {
                    return OptionError{"unknown log level '" + std::string(value) +
                                       "' (expected debug, info, error or off)"};
                }
                options.logLevel = *level;
                break;
            }
            case ValueOption::push:
                next.path = std::filesystem::path(value);
                options.pushes.push_back(next);
                unusedPushSetting.reset();
                break;
            case ValueOption::app: {
                const auto state = platform::applicationStateNamed(value);
                if (!state) {
                    return OptionError{"unknown application state '" + std::string(value) +
                                       "' (expected foreground, background or notRunning)"};
                }
                next.app = *state;
                unusedPushSetting = "--app";
                break;
            }
            case ValueOption::status: {
                std::int64_t status = 0;
                const auto [end, error] =
                    std::from_chars(value.data(), value.data() + value.size(), status);
                if (error != std::errc() || end != value.data() + value.size()) {
                    return OptionError{
                        "option '--status' needs an integer (0 not determined, 1 "
                        "denied, 2 authorized, 3 provisional, 4 ephemeral), not '" +
                        std::string(value) + "'"};
                }
                options.authorizationStatus = status;
                break;
            }
        }
    }
    if (options.demo && options.script) {
        return OptionError{"--demo runs its own session and takes no --script"};
    }
    if (!options.pushes.empty() && (options.demo || options.script)) {
        return OptionError{"--push delivers its files instead of a session: it takes no " +
                           std::string(options.demo ? "--demo" : "--script")};
    }
    if (unusedPushSetting) {
        return OptionError{"option '" + std::string(*unusedPushSetting) +
                           "' applies to the --push files after it, and none follows"};
    }
    return options;
}

std::string_view helpText() {
    return kHelp;
}

}  // namespace nimborra::host
