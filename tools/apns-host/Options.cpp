#include "Options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <utility>

#include "NimbOrraPlatform/Hex.h"

namespace nimborra::host {

namespace {

constexpr std::string_view kHelp = R"(Usage: apns-host [OPTIONS]
       apns-host [OPTIONS] -- COMMAND [ARGS...]

Plays a phone: an application that loads the "ApnsService" push-notification plug-in, the
simulated system underneath it, and the far side of the bridge. Commands are read as JSON
Lines, one JSON object per line, from standard input (or --script FILE); everything the host
reports is written to standard output as JSON Lines, one object per line, each within a
millisecond of being complete (lines that come together are written together). Blank lines
and lines whose first non-blank character is "#" are skipped. A line longer than 1048576
bytes is refused unread. At most 1024 calls (holding at most 4 MiB of payload) wait for
their reply at a time; reading pauses until earlier calls are answered, so the host's
memory stays bounded however long the input and however slowly the output is read.

Ids belong to the far side. Any command may carry "id": a string or an integer. A command
with an id is answered by exactly one line carrying that id, written after every line the
command caused: a call by its reply, an inspection by its answer (with "id" added), a refused
line by its error (with "id" added), any other command by {"id":ID,"done":NAME}. An id still
waiting for its answer is refused (that refusal carries no id). The application's own calls
(the registration at launch, the delegate's callbacks for a push) never take an id: their
replies are {"app":METHOD,"reply":REPLY}. `apns-host --describe` writes the protocol's methods,
records, enumerations, events, commands and output lines as one JSON document.

Options:
  --script FILE      read the commands from FILE instead of standard input
  --bundle DIR       the application bundle: its provisioning profile
                     (embedded.mobileprovision) is read once, for the application's bundle
                     identifier and APNs environment; default: the directory of the
                     executable (for --demo: examples/bundle). A DIR that does not exist or
                     cannot be read ends the host with status 2
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
  --present OPTIONS  the presentation options the application's delegate hands the system
                     for a foreground notification: a comma list of badge, sound, list and
                     banner, or none; default: the plug-in's own answer (none)
  --push FILE        deliver the push payload in FILE (a .apns file: one JSON object, the
                     payload, optionally with a "Simulator Target Bundle" member) instead of
                     reading commands; repeatable, delivered in order. Standard input is not
                     read. Every file is checked before any is delivered: a file that cannot
                     be read or breaks a payload rule ends the host with status 2, the file's
                     name and the reason on standard error
  --app STATE        the application's state for the --push files after it: foreground
                     (default), background or notRunning; with no --push file after it, the
                     application's state at start
  --tap [ACTION]     the user taps the notifications of the --push files after it: the
                     default action, or ACTION (--tap=ACTION, or the next argument unless it
                     starts with "-"); --no-tap ends it
  --describe         write the description of the protocol (one JSON document) and exit
  --output FILE      write the host's lines to FILE instead of standard output (log lines
                     still go to standard error)
  -h, --help         print this text and exit

Provider API (a push server's requests reach the application; see "Provider API" below):
  --provider-api [HOST:]PORT
                     serve APNs's provider API (HTTP/2, POST /3/device/TOKEN) on PORT (0: a
                     free one) of HOST (default 127.0.0.1; an IPv6 address in brackets).
                     The host then goes on serving after its input ends, until SIGINT or
                     SIGTERM, and exits once every request and call has been answered
  --cleartext        serve HTTP/2 without TLS (prior knowledge), e.g. for
                     curl --http2-prior-knowledge or h2load
  --tls-cert FILE --tls-key FILE
                     the server's certificate (chain) and key in PEM; default: a self-signed
                     certificate made at start for localhost, 127.0.0.1, ::1,
                     api.push.apple.com, api.sandbox.push.apple.com and
                     api.development.push.apple.com
  --tls-cert-out FILE
                     write the certificate in use (PEM) to FILE, for clients to trust
  --auth-key FILE    check provider tokens against this key: the .p8 file (PKCS#8) as
                     downloaded, or its public key; needs --key-id and --team-id. Without
                     it, any well-formed ES256 token is accepted unverified
  --key-id ID        the key identifier tokens must name ("kid")
  --team-id ID       the team tokens must name ("iss")
  --client-ca FILE   authenticate connections by client certificates issued by this CA
                     (PEM) instead of tokens; a certificate's subject UID is its topic
  --device-token HEX the device's token, 64 hexadecimal digits (default: 32 random bytes)
  --print-provider-token
                     print a provider token signed now with --auth-key, --key-id and
                     --team-id, and exit: the token for curl's "authorization: bearer" header

Running a push server (-- COMMAND):
  Everything after "--" is COMMAND, run as a child in a private network made for it (user,
  network and mount namespaces: no root needed), which the host's provider API serves as
  APNs would: "--" implies --provider-api on ports 443 and 2197 (the ports APNs serves;
  the start line names 443) unless --provider-api is given. Inside:
    - the only network is loopback; api.push.apple.com, api.sandbox.push.apple.com and
      api.development.push.apple.com resolve to the host (a generated /etc/hosts, the
      system's lines kept);
    - the host's certificate is trusted: the system's CA bundles (such as
      /etc/ssl/certs/ca-certificates.crt) read as themselves plus the certificate, and
      COMMAND's environment has SSL_CERT_FILE and REQUESTS_CA_BUNDLE (that bundle) and
      NODE_EXTRA_CA_CERTS (the certificate alone);
    - APNS_HOST_DEVICE_TOKEN holds the device's token in lower-case hex.
  So an APNs client reaches the host with its default address and no change, e.g.
    apns-host --bundle examples/bundle -- sh -c 'curl --http2 \
      https://api.sandbox.push.apple.com/3/device/$APNS_HOST_DEVICE_TOKEN ...'
  COMMAND starts once the application has registered for remote notifications, with the
  host's environment (plus the variables above), standard output and standard error, in the
  host's process group. The host's session reads its commands as it does without COMMAND,
  from standard input or --script FILE; COMMAND's standard input is /dev/null, or the host's
  standard input with --script. Use --output FILE to keep the host's lines apart from
  COMMAND's output. SIGINT and SIGTERM sent to the host are passed on to COMMAND (a
  terminal's Ctrl-C reaches both at once); COMMAND still running 10 s later is killed, and
  it is killed at once if the host itself dies (SIGKILL, a crash). When
  COMMAND ends, the host stops as on SIGTERM and exits with COMMAND's status (see "Exit
  status"). The generated files live in a private temporary directory, removed at exit.

Commands (each may also carry "id"; see above):
  {"call": M, "payload": P}
      Calls method M asynchronously and goes on at once. The payload text is P itself when
      P is a JSON string, the compact JSON of P otherwise, and {} when "payload" is absent.
      Without "id", the id is the count of the far side's call and callSync commands so
      far, starting at 1. When the reply arrives: {"id":ID,"reply":REPLY}.
  {"callSync": M, "payload": P}
      The synchronous call, same payload and id rules; writes {"id":ID,"reply":REPLY} at
      once.
  {"cancel": N}
      Cancels the bridge call with callback identifier N.
  {"launch": O}
      Waits until every earlier call has been answered, then hands the object O to the
      application's launch code as the launch notification's payload. Inside O (not O
      itself, which is always the payload), {"$data": BASE64} stands for byte data and
      {"$date": SECONDS} for a date (seconds since 1970).
  {"platform": S}
      Waits until every earlier call has been answered, then changes the phone for later
      commands. S may hold:
        "authorization": {"granted": BOOL} or {"error": {"domain": TEXT, "code": INT}}
        "authorizationStatus": INT      (raw platform status: 0 not determined, 1 denied,
                                         2 authorized, 3 provisional, 4 ephemeral, or any)
        "badgeError": null or {"domain": TEXT, "code": INT}
        "bundle": DIR                   (the application bundle, as --bundle)
        "app": STATE                    (the application's state: foreground, background
                                         or notRunning)
        "present": [OPTION...] or null  (as --present; null: the plug-in's answer)
        "deviceOnline": BOOL            (--provider-api: false takes the device offline)
        "deviceRegistered": BOOL        (--provider-api: false removes the application;
                                         true installs it again: it registers at launch,
                                         gets a new token, and the far side sees
                                         "APNSService.OnTokenRefreshed")
      At start the system grants authorization, reports status 0 (or --status) and has no
      badge error. It remembers the answer to "RequestAuthorization": a grant makes the
      status 2 (authorized), or 3 (provisional) when the provisional option was asked for;
      a refusal makes it 1 (denied); an error leaves it unchanged.
  {"push": PAYLOAD, "app": STATE, "tap": ACTION, "apnsId": UUID, "collapseId": ID}
      Waits until every earlier call has been answered, then delivers the remote
      notification PAYLOAD (a JSON object) the way the system does (see "Push rules"): the
      callbacks the system makes, then a "system" line. STATE is the application's state for
      this push (default: the phone's). ACTION is absent when the user leaves the
      notification alone, true for a plain tap (the action
      "com.apple.UNNotificationDefaultActionIdentifier"), or a custom action identifier.
      "apnsId" and "collapseId" are the provider API's apns-id (a UUID, any case; default
      00000000-0000-4000-8000-00000000000N for the N-th push without one) and
      apns-collapse-id (1 to 64 bytes: replaces the listed notification with the same one).
      A "Simulator Target Bundle" member is taken out of PAYLOAD and must name this
      application.
  {"tap": ID, "action": ACTION}
      The user taps a notification the system shows (listed, or on the banner): ID is its
      apns-id (any case) or "latest"; ACTION defaults to the plain tap. The tap runs for
      the application's state at that moment: the callbacks (didFinishLaunching when not
      running, didReceiveResponse), then a "system" line. The notification leaves the
      screen and the notification centre. Refused when there is no such notification.
  {"inspect": "notificationCenter"}
      Writes {"notificationCenter":[{"apnsId":ID,"collapseId":ID|null,"payload":P}...]}:
      the notifications the system lists, oldest first (at most 64; the oldest is dropped
      first).
  {"inspect": "platform"}
      Waits until every earlier call has been answered, then writes
      {"platform":{"authorizationOptions":MASK|null,"badgeCount":INT|null,
      "registrations":INT,"authorizationStatus":INT,"app":STATE,"present":[...]|null}}: the
      last option mask and badge count that reached the notification center, how many
      remote-notification registrations ran on the main thread, the authorization status,
      the application's state and the presentation options chosen (null: the plug-in's).

Push rules (what the simulated system does with a push, from any road):
  - The payload must be a JSON object whose "aps", when present, is an object, and its
    compact JSON ("/" not escaped) at most 4096 bytes; otherwise nothing is delivered and
    the line is refused. A "Simulator Target Bundle" must equal the application's bundle
    identifier: the profile's "application-identifier" without its team prefix (any target
    is accepted when the bundle has no profile). The provider API's pushes are delivered as
    it accepted them.
  - Content from "aps": "alert" as text is the body; as an object its "title", "subtitle",
    "body" and "launch-image"; a "title-loc-key", "subtitle-loc-key" or "loc-key" is used
    as the format of its text, as when the application has no translation for it: "%@"
    takes the next of its "-args", "%n$@" the n-th; a placeholder without an argument is
    empty, extra arguments are ignored. "badge" (a number) is the badge; "sound" (text, or
    an object's "name") the sound; "category", "thread-id", "target-content-id" their
    fields; "interruption-level" passive, active, time-sensitive or critical (absent or
    unknown: active); "relevance-score" (absent: 0). The user info is the whole payload.
    (The add-on's mapper leaves the sound out of the events' records.)
  - A payload is visible when "aps" has "alert", "badge" or "sound"; any other is silent:
    never shown, and nothing reaches the plug-in (waking the app for a background fetch is
    outside this add-on).
  - A visible notification is shown only while the authorization status is 2, 3 or 4
    (authorized, provisional, ephemeral). Otherwise nothing is shown and nothing reaches
    the plug-in.
  - Foreground: the delegate's willPresent maps the content and calls
    "NotifyWillPresentNotification"; the options it then hands the system (--present, or
    the plug-in's answer: none) decide: "badge" sets the badge count, "list" adds the
    notification to the notification centre, "banner" shows it; with "list" or "banner"
    it can be tapped: a tap runs didReceiveResponse ("NotifyDidReceiveResponse" with the
    action identifier). With none of them nothing is shown and there is nothing to tap.
  - Background: the notification is listed and sets the badge count; only a tap reaches
    the plug-in, through didReceiveResponse.
  - Not running: the same, and a tap first launches the application
    (didFinishLaunching: the launch code hands the payload to the cold-start buffer, as
    "launch" does), then didReceiveResponse runs.

Provider API:
  At start the application registers for remote notifications (as at launch), the system
  issues the device token and the delegate forwards it with
  "NotifyDidRegisterForRemoteNotifications": the far side sees
  "APNSService.OnTokenRefreshed" with the token in lower-case hex, the token a push server
  sends to. Each request is checked by APNs's rules, in this order, and the first that
  fails answers it with its status and {"reason":...}:
    405 MethodNotAllowed, 404 BadPath, 400 DuplicateHeaders, 400 BadMessageId,
    403 MissingProviderToken / InvalidProviderToken / ExpiredProviderToken,
    429 TooManyProviderTokenUpdates, 400 MissingDeviceToken / BadDeviceToken,
    400 MissingTopic / BadTopic, 400 InvalidPushType, 400 TopicDisallowed,
    400 BadPriority, 400 BadExpirationDate, 400 BadCollapseId,
    413 PayloadTooLarge (4096 bytes, 5120 for VoIP), 400 PayloadEmpty, 400 BadPayload,
    then against the device: 400 BadDeviceToken, 400 TopicDisallowed,
    400 DeviceTokenNotForTopic, 410 Unregistered
  (the README has the whole table). An accepted request is answered 200 once the device
  has taken it: online, it goes down the push road ("alert" and "background" pushes; other
  push types are accepted as "not handled by this add-on"), its calls pipelined with the
  next request's; offline, only the newest notification with an apns-expiration still to
  come is kept, and delivered when the device comes back online.

Output:
  {"id":ID,"reply":REPLY}         a far-side call's reply text, as the plug-in gave it
  {"app":METHOD,"reply":REPLY}    the reply to one of the application's own calls
  {"event":NAME,"payload":P}      a bridge event, written when it is emitted, so an event
                                  emitted by a call comes before that call's reply
  {"error":TEXT,"line":N}         input line N (counting from 1) was refused: too long,
                                  not a JSON object, not a command, or a field of the wrong
                                  type; the session goes on with the next line ("id" added
                                  when the line carried a valid one)
  {"id":ID,"done":NAME}           a command with an id ("push", "platform", "launch", "tap",
                                  "cancel") has finished
  {"platform":{...}}              the answer to {"inspect": "platform"}
  {"notificationCenter":[...]}    the answer to {"inspect": "notificationCenter"}
  {"system":{...}}                what the system did with a push or a tap, after the
                                  lines of the callbacks it caused: "apnsId", "app" (the
                                  state), "visible" (false: silent), "shown" (on screen or
                                  listed), "listed" (in the notification centre now),
                                  "presentation" (foreground: the options handed to the
                                  system; else null), "reason" (why nothing more happened:
                                  "silent", "not authorized", "not presented", "not
                                  tapped", "not running"; else null), "badge" (the badge
                                  count the system set, or null), "tap" (the action the
                                  user took, or null), "callbacks" (in order, from
                                  "didFinishLaunching", "willPresent", "didReceiveResponse")
  {"providerApi":{...}}           (--provider-api) where it listens: "listening",
                                  "port" (the actual one), "tls", "fingerprint" (SHA-256
                                  of the certificate, or null), "environment" (the
                                  profile's aps-environment), "topic", "deviceToken",
                                  "authentication" (what is checked)
  {"provider":{...}}              one per request, before the "system" line it causes:
                                  "apnsId", "status" (null for a stream the transport
                                  reset instead of answering), "reason" (null for 200),
                                  "topic", "pushType", "priority" (null when unreadable),
                                  "outcome": "delivered", "replaced", "kept while
                                  offline", "discarded", "not handled by this add-on",
                                  "refused" or "reset", "explanation" (why, for people;
                                  null when accepted)
  {"providerDelivery":{...}}      a notification kept while the device was offline, once
                                  it is back online: "apnsId", "outcome" ("delivered",
                                  "replaced" or "discarded")
  {"command":C} {"comment":T}     echoed input (--echo, --demo); a line that is not JSON is
                                  echoed as a string, bytes that are not UTF-8 replaced
                                  by U+FFFD

Exit status (once every call has been answered at the end of the input):
  0  every line was accepted
  1  a line was refused
  2  the script, standard input, the bundle or a --push file cannot be read (or a file is
     refused), standard output cannot be written, an option is wrong, or the provider API
     cannot start (port taken, certificate or key unreadable); one line on standard error
     says why
  With --provider-api, the host exits once SIGINT or SIGTERM has ended the session: 0, or 2
  as above; refused lines were answered on standard output and do not count.
  With COMMAND, the host exits with COMMAND's exit status once COMMAND has ended: 128+N when
  signal N ended it, 127 when it cannot be found, 126 when it cannot be run; 2 when the host
  itself fails (as above, COMMAND then gets SIGTERM), and 2 with one line on standard error
  saying why and what to do when the private namespaces cannot be made (for example
  kernel.unprivileged_userns_clone=0, user.max_user_namespaces=0, or a container's seccomp
  policy).
)";

// The options that take a value.
enum class ValueOption {
    script,
    bundle,
    logLevel,
    push,
    app,
    status,
    present,
    output,
    providerApi,
    tlsCert,
    tlsKey,
    tlsCertOut,
    clientCa,
    authKey,
    keyId,
    teamId,
    deviceToken,
};

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
    if (name == "--present") {
        return ValueOption::present;
    }
    if (name == "--output") {
        return ValueOption::output;
    }
    static constexpr std::array<std::pair<std::string_view, ValueOption>, 9> kProviderOptions{{
        {"--provider-api", ValueOption::providerApi},
        {"--tls-cert", ValueOption::tlsCert},
        {"--tls-key", ValueOption::tlsKey},
        {"--tls-cert-out", ValueOption::tlsCertOut},
        {"--client-ca", ValueOption::clientCa},
        {"--auth-key", ValueOption::authKey},
        {"--key-id", ValueOption::keyId},
        {"--team-id", ValueOption::teamId},
        {"--device-token", ValueOption::deviceToken},
    }};
    for (const auto& [known, option] : kProviderOptions) {
        if (name == known) {
            return option;
        }
    }
    return std::nullopt;
}

// "[HOST:]PORT", HOST an IPv6 address in brackets or anything without ":"; false when it is
// not.
bool readListenAddress(std::string_view text, ProviderApiOptions& provider) {
    std::string_view port = text;
    const auto colon = text.rfind(':');
    if (colon != std::string_view::npos) {
        std::string_view host = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
            host = host.substr(1, host.size() - 2);
        } else if (host.find(':') != std::string_view::npos) {
            return false;
        }
        if (host.empty()) {
            return false;
        }
        provider.host = std::string(host);
    }
    unsigned value = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || error != std::errc() || end != port.data() + port.size() || value > 65535) {
        return false;
    }
    provider.port = static_cast<std::uint16_t>(value);
    return true;
}

// Exactly 64 hexadecimal digits: a 32-byte device token.
std::optional<std::vector<std::uint8_t>> readDeviceToken(std::string_view text) {
    if (text.size() != 64) {
        return std::nullopt;
    }
    return platform::hexDecodedData(text);
}

// The provider options that only make sense together; the reason when they do not.
std::optional<std::string> checkProviderOptions(
    const HostOptions& options, bool providerApi, const ProviderApiOptions& provider,
    std::optional<std::string_view> firstProviderOption) {
    if (options.printProviderToken) {
        if (!provider.authKey || !provider.keyId || !provider.teamId) {
            return "--print-provider-token needs --auth-key, --key-id and --team-id";
        }
        return std::nullopt;
    }
    if (!providerApi) {
        if (firstProviderOption) {
            return "option '" + std::string(*firstProviderOption) + "' needs --provider-api";
        }
        return std::nullopt;
    }
    if (options.demo || !options.pushes.empty()) {
        return "--provider-api serves a session: it takes no " +
               std::string(options.demo ? "--demo" : "--push");
    }
    if (provider.tlsCertificate.has_value() != provider.tlsKey.has_value()) {
        return "--tls-cert and --tls-key go together";
    }
    if (provider.cleartext &&
        (provider.tlsCertificate || provider.clientCa || provider.tlsCertificateOut)) {
        return "--cleartext serves without TLS: it takes no --tls-cert, --tls-key, "
               "--tls-cert-out or --client-ca";
    }
    if (provider.clientCa && (provider.authKey || provider.keyId || provider.teamId)) {
        return "--client-ca authenticates with certificates: it takes no --auth-key, --key-id "
               "or --team-id";
    }
    if ((provider.keyId || provider.teamId) && !provider.authKey) {
        return "--key-id and --team-id name the key of --auth-key, which is missing";
    }
    if (provider.authKey && (!provider.keyId || !provider.teamId)) {
        return "--auth-key needs --key-id and --team-id";
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
    // when no file has used it yet (empty when none). A plain view, not an optional: GCC 12 at -O2
    // reports a false maybe-uninitialized for an optional view.
    PushFile next;
    std::string_view unusedPushSetting;
    ProviderApiOptions provider;
    bool providerApi = false;
    // The first option given that needs --provider-api, for the message when it is missing.
    std::optional<std::string_view> firstProviderOption;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        const std::string_view argument = arguments[index];
        if (argument == "-h" || argument == "--help") {
            return HelpRequest{};
        }
        if (argument == "--") {
            // Everything after it is the COMMAND, taken as given.
            if (index + 1 == arguments.size()) {
                return OptionError{"'--' needs a COMMAND after it"};
            }
            options.command.emplace(arguments.begin() + static_cast<std::ptrdiff_t>(index) + 1,
                                    arguments.end());
            break;
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
        if (argument == "--cleartext") {
            provider.cleartext = true;
            firstProviderOption = firstProviderOption.value_or("--cleartext");
            continue;
        }
        if (argument == "--print-provider-token") {
            options.printProviderToken = true;
            continue;
        }
        if (argument == "--describe") {
            options.describe = true;
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
                unusedPushSetting = {};
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
            case ValueOption::present: {
                std::vector<std::string> names;
                if (value != "none") {
                    for (std::size_t start = 0; start <= value.size();) {
                        const auto comma = std::min(value.find(',', start), value.size());
                        const std::string name(value.substr(start, comma - start));
                        if (name != "badge" && name != "sound" && name != "list" &&
                            name != "banner") {
                            return OptionError{
                                "option '--present' needs a comma list of badge, sound, list "
                                "and banner, or none, not '" +
                                std::string(value) + "'"};
                        }
                        names.push_back(name);
                        start = comma + 1;
                    }
                }
                options.present = std::move(names);
                break;
            }
            case ValueOption::output:
                options.output = std::filesystem::path(value);
                break;
            case ValueOption::providerApi:
                if (!readListenAddress(value, provider)) {
                    return OptionError{
                        "option '--provider-api' needs [HOST:]PORT with PORT 0 to "
                        "65535 (an IPv6 HOST in brackets), not '" +
                        std::string(value) + "'"};
                }
                providerApi = true;
                break;
            case ValueOption::deviceToken: {
                auto token = readDeviceToken(value);
                if (!token) {
                    return OptionError{
                        "option '--device-token' needs 64 hexadecimal digits, not '" +
                        std::string(value) + "'"};
                }
                provider.deviceToken = std::move(*token);
                break;
            }
            case ValueOption::tlsCert:
                provider.tlsCertificate = std::filesystem::path(value);
                break;
            case ValueOption::tlsKey:
                provider.tlsKey = std::filesystem::path(value);
                break;
            case ValueOption::tlsCertOut:
                provider.tlsCertificateOut = std::filesystem::path(value);
                break;
            case ValueOption::clientCa:
                provider.clientCa = std::filesystem::path(value);
                break;
            case ValueOption::authKey:
                provider.authKey = std::filesystem::path(value);
                break;
            case ValueOption::keyId:
                provider.keyId = std::string(value);
                break;
            case ValueOption::teamId:
                provider.teamId = std::string(value);
                break;
        }
        if (*option >= ValueOption::tlsCert) {
            firstProviderOption = firstProviderOption.value_or(name);
        }
    }
    if (options.command && options.printProviderToken) {
        return OptionError{"--print-provider-token prints a token and exits: it takes no COMMAND"};
    }
    if (options.command && !providerApi) {
        // COMMAND reaches the provider API where APNs serves: ports 443 and 2197.
        providerApi = true;
        provider.port = 443;
        provider.additionalPorts = {2197};
    }
    if (auto problem = checkProviderOptions(options, providerApi, provider, firstProviderOption)) {
        return OptionError{std::move(*problem)};
    }
    if (options.printProviderToken || providerApi) {
        options.providerApi = std::move(provider);
    }
    // --app without a --push file after it sets the application's state at start.
    options.app = next.app;
    if (unusedPushSetting == "--app") {
        unusedPushSetting = {};
    }
    if (options.demo && options.script) {
        return OptionError{"--demo runs its own session and takes no --script"};
    }
    if (!options.pushes.empty() && (options.demo || options.script)) {
        return OptionError{"--push delivers its files instead of a session: it takes no " +
                           std::string(options.demo ? "--demo" : "--script")};
    }
    if (!unusedPushSetting.empty()) {
        return OptionError{"option '" + std::string(unusedPushSetting) +
                           "' applies to the --push files after it, and none follows"};
    }
    return options;
}

std::string_view helpText() {
    return kHelp;
}

}  // namespace nimborra::host
