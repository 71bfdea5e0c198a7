// apns-host run as a person would: commands on standard input (or a script), JSON Lines on
// standard output, log lines on standard error, and the exit status.
//
// Most behaviour is checked by sessions in scripts/: each NAME.jsonl is fed to the host and its
// whole standard output must equal NAME.out byte for byte. Header comments (which the host skips
// as comments) set up the run:
//   # args: ARG ...     the host's arguments, split at spaces
//   # exit: N           the expected exit status (default 0)
//   # stderr: TEXT      standard error must hold TEXT (repeatable)
// @SOURCE@ stands for the source tree in the arguments, the commands and the standard error.
// Run the tests with NIMBORRA_UPDATE_EXPECTED=1 to write the .out files afresh after a deliberate
// change, then read the difference before committing it.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "HostProcess.h"
#include "support/TestSupport.h"

namespace nimborra::testing {
namespace {

namespace fs = std::filesystem;

const fs::path kScripts = kSource / "tests" / "host" / "scripts";

std::string withSource(std::string text) {
    for (auto at = text.find("@SOURCE@"); at != std::string::npos; at = text.find("@SOURCE@")) {
        text.replace(at, 8, kSource.string());
    }
    return text;
}

std::vector<std::string> scriptNames() {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(kScripts, error)) {
        if (entry.path().extension() == ".jsonl") {
            names.push_back(entry.path().stem().string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

class HostScript : public ::testing::TestWithParam<std::string> {};

TEST_P(HostScript, WritesExactlyTheExpectedOutput) {
    const fs::path script = kScripts / (GetParam() + ".jsonl");
    const std::string input = readFile(script);
    std::vector<std::string> arguments;
    std::vector<std::string> stderrNeedles;
    int expectedStatus = 0;
    std::string fed;
    std::istringstream lines(input);
    for (std::string line; std::getline(lines, line);) {
        // Comment lines are fed as written, so that an echoed header does not depend on where
        // the source tree is.
        fed += (line.starts_with("#") ? line : withSource(line)) + "\n";
        if (line.starts_with("# args:")) {
            std::istringstream words(withSource(line.substr(7)));
            for (std::string word; words >> word;) {
                arguments.push_back(word);
            }
        } else if (line.starts_with("# exit:")) {
            expectedStatus = std::stoi(line.substr(7));
        } else if (line.starts_with("# stderr: ")) {
            stderrNeedles.push_back(withSource(line.substr(10)));
        }
    }
    const HostRun result = runHost(fed, arguments);
    std::string output;
    for (const auto& line : result.lines) {
        output += line + "\n";
    }
    const fs::path expectedFile = fs::path(script).replace_extension(".out");
    if (getenv("NIMBORRA_UPDATE_EXPECTED") != nullptr) {
        std::ofstream(expectedFile, std::ios::binary) << output;
    }
    EXPECT_EQ(output, readFile(expectedFile));
    EXPECT_EQ(result.status, expectedStatus) << result.standardError;
    for (const auto& needle : stderrNeedles) {
        EXPECT_NE(result.standardError.find(needle), std::string::npos)
            << "standard error lacks: " << needle << "\n"
            << result.standardError;
    }
}

INSTANTIATE_TEST_SUITE_P(Scripts, HostScript, ::testing::ValuesIn(scriptNames()),
                         [](const auto& info) {
                             std::string name = info.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

TEST(Host, ExitStatusSaysWhetherEveryLineWasAccepted) {
    const std::string pushes = (kSource / "examples" / "pushes").string() + "/";
    const struct {
        std::vector<std::string> arguments;
        std::string input;
        int status;
        std::string standardError;  // what it must hold
    } rows[] = {
        // clang-format off
        {{}, "", 0, ""},
        {{}, "# only a comment\n\n   \n", 0, ""},
        // A refused line makes it 1 (scripts/refused.jsonl); an error reply is an answer, not a
        // refused line (scripts/ids.jsonl).
        // An endless line is refused without being held; the session goes on.
        {{}, std::string((1 << 20) + 1, ' ') + "\n{\"call\":\"GetToken\"}", 1, ""},
        // A script, and --push files, replace standard input.
        {{"--script", (kScripts / "launch.jsonl").string()}, "not json\n", 0, ""},
        {{"--push", pushes + "order-shipped.apns"}, "not json\n", 0, ""},
        {{"--bogus"}, "", 2, "unknown option '--bogus'"},
        {{"--log-level", "loud"}, "", 2, "unknown log level"},
        {{"--script"}, "", 2, "needs a value"},
        {{"--script", "/no/such/script"}, "", 2, "cannot read script"},
        {{"--script", pushes}, "", 2, "it is a directory"},
        {{"--demo", "--script", "/no/such/script"}, "", 2, "takes no --script"},
        {{"--status", "two"}, "", 2, "needs an integer"},
        // The phone needs a bundle it can read.
        {{"--bundle", "/no/such/bundle"}, "", 2, "the bundle /no/such/bundle does not exist"},
        {{"--bundle", pushes + "order-shipped.apns"}, "", 2, "is not a directory"},
        {{"--present", "badge,popup"}, "", 2, "a comma list of badge, sound, list and banner"},
        {{"--app", "asleep", "--push", pushes + "order-shipped.apns"}, "", 2, "application state"},
        {{"--push", pushes + "order-shipped.apns", "--tap"}, "", 2, "none follows"},
        {{"--push", pushes + "order-shipped.apns", "--demo"}, "", 2, "takes no --demo"},
        // Every file is checked before any is delivered: nothing is written.
        {{"--push", pushes + "order-shipped.apns", "--push", pushes + "oversize.apns"}, "", 2,
         "oversize.apns: the payload is 4328 bytes of compact JSON; at most 4096 are delivered"},
        {{"--push", "/no/such.apns"}, "", 2, "/no/such.apns: No such file or directory"},
        {{"--push", kSampleBundle + "/embedded.mobileprovision"}, "", 2, "not JSON"},
        // The provider API's options go together, and it needs an application to serve.
        {{"--provider-api", "65536"}, "", 2, "needs [HOST:]PORT"},
        {{"--provider-api", "::1:80"}, "", 2, "needs [HOST:]PORT"},
        {{"--tls-cert-out", "/tmp/x.pem"}, "", 2, "'--tls-cert-out' needs --provider-api"},
        {{"--provider-api", "0", "--auth-key", "k.p8"}, "", 2, "needs --key-id and --team-id"},
        {{"--provider-api", "0", "--key-id", "K"}, "", 2, "--auth-key, which is missing"},
        {{"--provider-api", "0", "--cleartext", "--client-ca", "ca.pem"}, "", 2, "without TLS"},
        {{"--provider-api", "0", "--device-token", "abc"}, "", 2, "64 hexadecimal digits"},
        {{"--print-provider-token", "--auth-key", "k.p8"}, "", 2, "needs --auth-key, --key-id"},
        {{"--provider-api", "0", "--bundle", "/"}, "", 2, "needs the application's bundle"},
        {{"--provider-api", "no-such-host.invalid:0", "--bundle", kSampleBundle}, "", 2,
         "host is unknown"},
        {{"--provider-api", "0", "--bundle", kSampleBundle, "--auth-key", "/no/key.p8", "--key-id",
          "K", "--team-id", "T"}, "", 2, "/no/key.p8"},
        {{"--provider-api", "0", "--push", pushes + "order-shipped.apns"}, "", 2, "no --push"},
        // `-- COMMAND` and --output: refused before anything runs (no namespace is made).
        {{"--"}, "", 2, "'--' needs a COMMAND after it"},
        {{"--print-provider-token", "--auth-key", "k.p8", "--key-id", "K", "--team-id", "T", "--",
          "true"}, "", 2, "takes no COMMAND"},
        {{"--push", "x.apns", "--", "true"}, "", 2, "takes no --push"},
        {{"--output", "/no/such/directory/out.jsonl"}, "", 2,
         "cannot write /no/such/directory/out.jsonl: No such file or directory"},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.arguments) + " <<< " + row.input);
        const HostRun result = runHost(row.input, row.arguments);
        EXPECT_EQ(result.status, row.status) << result.standardError;
        EXPECT_NE(result.standardError.find(row.standardError), std::string::npos)
            << result.standardError;
        if (row.status == 2) {
            EXPECT_TRUE(result.lines.empty());
        }
    }
}

// Input that cannot be read and output that cannot be written end the host with status 2 and
// say why, instead of losing replies silently.
TEST(Host, ReadAndWriteErrorsExitWithTwo) {
    const std::string host = NIMBORRA_APNS_HOST;
    const std::string errors = temporaryFile("errors.txt");
    const std::pair<std::string, std::string> rows[] = {
        {host + " < /", "reading standard input failed: Is a directory"},
        {"echo '{\"call\":\"GetToken\"}' | " + host + " > /dev/full",
         "writing standard output failed: No space left on device"},
        {"echo '{\"call\":\"GetToken\"}' | " + host + " >&-",
         "writing standard output failed: Bad file descriptor"},
    };
    for (const auto& [command, message] : rows) {
        SCOPED_TRACE(command);
        const int status = std::system((command + " 2>" + errors).c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
        EXPECT_NE(readFile(errors).find(message), std::string::npos) << readFile(errors);
    }
}

}  // namespace
}  // namespace nimborra::testing
