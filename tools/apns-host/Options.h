// The command line of apns-host: which session to run (standard input, a script file or the
// built-in demo), where the application bundle is, which log lines are written, and whether
// commands are echoed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "NimbOrraPlatform/Logger.h"
#include "NimbOrraPlatform/RemoteNotification.h"

namespace nimborra::host {

// A --push file with the --app and --tap options in force where it was named.
struct PushFile {
    std::filesystem::path path;
    platform::ApplicationState app = platform::ApplicationState::foreground;
    std::optional<std::string> tap;
};

// The provider API (--provider-api and the options that go with it).
struct ProviderApiOptions {
    // Loopback unless the user names an address.
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;
    bool cleartext = false;
    std::optional<std::filesystem::path> tlsCertificate;
    std::optional<std::filesystem::path> tlsKey;
    std::optional<std::filesystem::path> tlsCertificateOut;
    std::optional<std::filesystem::path> clientCa;
    std::optional<std::filesystem::path> authKey;
    std::optional<std::string> keyId;
    std::optional<std::string> teamId;
    // 32 bytes; nothing for random ones.
    std::optional<std::vector<std::uint8_t>> deviceToken;
    // More ports served on the same host, by the same service (the COMMAND's 2197).
    std::vector<std::uint16_t> additionalPorts;
};

struct HostOptions {
    // Read commands from this file instead of standard input.
    std::optional<std::filesystem::path> script;
    // The application bundle directory; by default the main bundle's own default (the
    // directory of the executable), or the sample bundle for the demo.
    std::optional<std::filesystem::path> bundle;
    platform::LogLevel logLevel = platform::LogLevel::info;
    // Run the built-in demo session instead of reading commands.
    bool demo = false;
    // Write each command before running it, and run it only once every earlier call has been
    // answered.
    bool echo = false;
    // The simulated authorization status at start (--status); the system's default otherwise.
    std::optional<std::int64_t> authorizationStatus;
    // Deliver these payload files, in order, instead of reading commands.
    std::vector<PushFile> pushes;
    // Serve the provider API while the session runs, and after its input has ended until
    // SIGINT or SIGTERM.
    std::optional<ProviderApiOptions> providerApi;
    // Print a provider token made from --auth-key, --key-id and --team-id, and exit.
    bool printProviderToken = false;
    // Write the description of the far side's protocol, and exit.
    bool describe = false;
    // The application's state at start (--app without a --push file after it).
    platform::ApplicationState app = platform::ApplicationState::foreground;
    // The foreground presentation options the application hands the system (--present);
    // nothing for the plug-in's own answer.
    std::optional<std::vector<std::string>> present;

    // --output FILE: the host's lines go to FILE instead of standard output.
    std::optional<std::filesystem::path> output;
    // The COMMAND after "--" and its arguments: run in a private network where APNs's host
    // names reach the provider API (implied on ports 443 and 2197); the host exits with its
    // status.
    std::optional<std::vector<std::string>> command;
};

// Asked for the help text.
struct HelpRequest {};

// A wrong command line, with the one-line reason.
struct OptionError {
    std::string message;
};

using ParsedOptions = std::variant<HostOptions, HelpRequest, OptionError>;

// Reads the arguments after the program name. Options take their value either as the next
// argument or after "=" ("--log-level debug", "--log-level=debug"). Never throws except
// std::bad_alloc.
ParsedOptions parseOptions(std::span<const std::string_view> arguments);

// The text printed by --help: every option, the commands, the output lines and the exit
// statuses.
std::string_view helpText();

}  // namespace nimborra::host
