// `apns-host -- COMMAND`: push servers run unchanged in a private network where APNs's host names
// and ports reach the host and its certificate is trusted. The clients here (curl, the asyncio
// APNs client Debian packages) are given APNs's own addresses and nothing else.
//
// The private network needs user namespaces (or root with CAP_SYS_ADMIN): where the host cannot
// make them, the tests are skipped with its reason.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "HostProcess.h"
#include "NetworkSandbox.h"
#include "support/TestSupport.h"

namespace nimborra::testing {
namespace {

namespace fs = std::filesystem;

// What the host writes when the namespaces cannot be made.
const std::string kNoNamespaces = "cannot make private namespaces for COMMAND";

// The lines that hold every one of `texts`.
std::size_t countContaining(const std::vector<std::string>& lines,
                            std::initializer_list<std::string_view> texts) {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto& l) {
        return std::all_of(texts.begin(), texts.end(),
                           [&](auto text) { return l.find(text) != std::string::npos; });
    }));
}

struct SandboxRun {
    int status = -1;
    // What COMMAND wrote to standard output (the host's lines go to --output).
    std::vector<std::string> commandLines;
    std::vector<std::string> hostLines;
    std::string standardError;
};

class Sandbox : public ::testing::Test {
  protected:
    void SetUp() override {
        // Whether this machine lets the host make its namespaces, asked once. Only when the
        // system's own unshare cannot make them either (with or without a user namespace) is
        // the host's refusal the machine's doing rather than a fault.
        static const std::string unavailable = [] {
            const auto probe = run({"true"});
            const bool refused =
                probe.status == 2 && probe.standardError.find(kNoNamespaces) != std::string::npos;
            const bool systemRefuses = std::system("unshare -Urnm true >/dev/null 2>&1") != 0 &&
                                       std::system("unshare -nm true >/dev/null 2>&1") != 0;
            return refused && systemRefuses ? probe.standardError : std::string();
        }();
        if (!unavailable.empty()) {
            GTEST_SKIP() << "the private network cannot be made here: " << unavailable;
        }
    }

    // Runs `command` under the host (sample bundle, notifications authorized, tokens checked
    // against the test key), the host's lines going to a file. Standard output is read to its
    // end while the host's input stays open: COMMAND's end alone must end the host.
    static SandboxRun run(const std::vector<std::string>& command,
                          const std::vector<std::string>& options = {}) {
        const auto output = temporaryFile("output.jsonl");
        auto arguments = providerHostArguments();
        arguments.insert(arguments.end(), {"--output", output.string()});
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.push_back("--");
        arguments.insert(arguments.end(), command.begin(), command.end());
        HostProcess host(arguments);
        SandboxRun result;
        result.commandLines = host.readLinesThrough([](const auto&) { return false; });
        result.status = host.finish();
        result.standardError = host.standardError();
        result.hostLines = linesOf(readFile(output));
        std::error_code ignored;
        fs::remove(output, ignored);
        return result;
    }

    // A curl command line that pushes `text` to `url` and prints the HTTP status.
    static std::string curl(const std::string& url, const std::string& text,
                            const std::string& options = "") {
        return "curl -sS --http2 -o /dev/null -w '%{http_code}\\n' " + options +
               " -H 'apns-topic: " + kTopic + "' -H 'authorization: bearer " + providerToken() +
               "' -d '{\"aps\":{\"alert\":\"" + text + "\"}}' " + url;
    }
};

TEST_F(Sandbox, UnchangedClientsReachTheFarSideAtApnsAddresses) {
    const bool hasCurl = std::system("command -v curl >/dev/null 2>&1") == 0;
    const std::string device = "/3/device/$APNS_HOST_DEVICE_TOKEN";
    const struct {
        const char* what;
        bool available;
        std::string command;
        std::vector<std::string> answers;
        std::string alert;
    } rows[] = {
        {"curl, the sandbox host on 443, trusting the system's bundle",
         hasCurl,
         curl("https://api.sandbox.push.apple.com" + device, "Hello from curl"),
         {"200"},
         "Hello from curl"},
        // Each variable alone: --cacert replaces the system's bundle.
        {"curl, the development host on 2197, trusting each variable's file",
         hasCurl,
         "for file in \"$SSL_CERT_FILE\" \"$REQUESTS_CA_BUNDLE\" \"$NODE_EXTRA_CA_CERTS\"; do " +
             curl("https://api.development.push.apple.com:2197" + device, "Hello from 2197",
                  "--cacert \"$file\"") +
             " || exit 1; done",
         {"200", "200", "200"},
         "Hello from 2197"},
        {"aioapns with its defaults",
         std::system("/usr/bin/python3 -c 'import aioapns' 2>/dev/null") == 0,
         "/usr/bin/python3 " + (kSource / "tests/host/aioapns-send.py").string() + " " +
             keyFile().string() + " " + kKeyId + " " + kTeamId + " " + kTopic +
             " $APNS_HOST_DEVICE_TOKEN",
         {"200 None", "400 BadDeviceToken"},
         "Hello from aioapns"},
    };
    for (const auto& row : rows) {
        if (!row.available) {
            std::printf("skipped '%s': the client is not installed (scripts/setup.sh)\n", row.what);
            continue;
        }
        const auto result = run({"sh", "-c", row.command});
        EXPECT_EQ(result.status, 0) << row.what << "\n" << result.standardError;
        EXPECT_EQ(result.commandLines, row.answers) << row.what << "\n" << result.standardError;
        // Each push accepted went through the system to the plug-in and the far side; COMMAND
        // started once the application had registered.
        ASSERT_GE(result.hostLines.size(), 2u) << row.what;
        EXPECT_TRUE(result.hostLines[0].starts_with("{\"providerApi\":")) << row.what;
        EXPECT_NE(result.hostLines[1].find("APNSService.OnTokenRefreshed"), std::string::npos)
            << row.what;
        const auto accepted = countContaining(row.answers, {"200"});
        EXPECT_EQ(countContaining(result.hostLines, {"\"outcome\":\"delivered\""}), accepted)
            << row.what;
        const auto presented = "APNSService.OnNotificationPresented";
        EXPECT_EQ(countContaining(result.hostLines, {presented}), accepted) << row.what;
        EXPECT_EQ(countContaining(result.hostLines, {presented, row.alert}), accepted) << row.what;
    }
}

TEST_F(Sandbox, CommandSeesLoopbackApnsNamesAtHomeTheCertificateTrustedAndItsOwnIdentity) {
    // One "name value" line per fact.
    const std::string facts =
        "echo interfaces $(tail -n +3 /proc/net/dev | cut -d: -f1); "
        "for name in api.push.apple.com api.sandbox.push.apple.com "
        "api.development.push.apple.com localhost; do "
        "  echo $name $(getent hosts $name | head -n 1 | cut -d ' ' -f 1); "
        "done; "
        "echo token $APNS_HOST_DEVICE_TOKEN; "
        "echo input $(readlink /proc/self/fd/0 | cut -d [ -f 1); "
        "echo identity $(id -u) $(id -g); "
        "echo tuning ${GLIBC_TUNABLES-unset} ${APNS_HOST_ALLOCATOR_TUNED-unset}; "
        "for file in \"$SSL_CERT_FILE\" \"$REQUESTS_CA_BUNDLE\" \"$NODE_EXTRA_CA_CERTS\" "
        "/etc/ssl/certs/ca-certificates.crt; do "
        "  echo certificates $(grep -c 'BEGIN CERTIFICATE' \"$file\" 2>/dev/null || echo none); "
        "done";
    // The system's bundle as seen inside: the same plus the host's certificate.
    const fs::path system = "/etc/ssl/certs/ca-certificates.crt";
    const auto inside =
        fs::exists(system)
            ? std::to_string(countContaining(linesOf(readFile(system)), {"BEGIN CERTIFICATE"}) + 1)
            : "none";
    const auto bundle = fs::exists(system) ? inside : "1";
    const char* const tunables = std::getenv("GLIBC_TUNABLES");
    const auto script = temporaryFile("script.jsonl");
    std::ofstream(script) << "# a session with no commands\n";
    const struct {
        const char* what;
        std::vector<std::string> options;
        std::string input;
    } rows[] = {
        {"commands from standard input", {}, "/dev/null"},
        {"commands from a script", {"--script", script.string()}, "pipe:"},
    };
    for (const auto& row : rows) {
        const auto result = run({"sh", "-c", facts}, row.options);
        ASSERT_EQ(result.status, 0) << row.what << "\n" << result.standardError;
        ASSERT_FALSE(result.hostLines.empty()) << row.what;
        const auto token = member(result.hostLines[0], "deviceToken");
        EXPECT_EQ(token.size(), 64u) << row.what;
        const std::vector<std::string> expected{
            "interfaces lo", "api.push.apple.com 127.0.0.1", "api.sandbox.push.apple.com 127.0.0.1",
            "api.development.push.apple.com 127.0.0.1", "localhost", "token " + token,
            "input " + row.input,
            "identity " + std::to_string(getuid()) + " " + std::to_string(getgid()),
            // The host's own malloc tuning is not passed on; a user's is.
            "tuning " + std::string(tunables != nullptr ? tunables : "unset") + " unset",
            "certificates " + bundle,  // SSL_CERT_FILE
            "certificates " + bundle,  // REQUESTS_CA_BUNDLE
            "certificates 1",          // NODE_EXTRA_CA_CERTS
            "certificates " + inside,  // the system's bundle
        };
        ASSERT_EQ(result.commandLines.size(), expected.size()) << row.what << "\n"
                                                               << result.standardError;
        auto lines = result.commandLines;
        // localhost may be either loopback address.
        EXPECT_TRUE(lines[4] == "localhost 127.0.0.1" || lines[4] == "localhost ::1") << lines[4];
        lines[4] = "localhost";
        EXPECT_EQ(lines, expected) << row.what;
    }
}

TEST_F(Sandbox, TheHostExitsWithTheCommandsStatus) {
    const struct {
        std::vector<std::string> command;
        int status;
        std::vector<std::string> output;
        std::string standardError;
    } rows[] = {
        {{"true"}, 0, {}, ""},
        {{"sh", "-c", "echo from the command; exit 7"}, 7, {"from the command"}, ""},
        {{"sh", "-c", "kill -KILL $$"}, 128 + SIGKILL, {}, ""},
        {{"/no/such/command"}, 127, {}, "cannot run '/no/such/command'"},
        {{"/"}, 126, {}, "cannot run '/'"},
    };
    for (const auto& row : rows) {
        const auto result = run(row.command);
        const auto what = row.command.back();
        EXPECT_EQ(result.status, row.status) << what << "\n" << result.standardError;
        // Standard output is COMMAND's alone; the host's lines are in the file.
        EXPECT_EQ(result.commandLines, row.output) << what;
        ASSERT_FALSE(result.hostLines.empty()) << what;
        EXPECT_TRUE(result.hostLines[0].starts_with("{\"providerApi\":")) << what;
        EXPECT_NE(result.standardError.find(row.standardError), std::string::npos)
            << what << "\n"
            << result.standardError;
    }
}

TEST_F(Sandbox, SigtermReachesTheCommandWhichEndsTheHost) {
    const struct {
        const char* what;
        std::string command;
        int status;
        std::size_t saidSo;
    } rows[] = {
        {"a command that handles it",
         // Short sleeps: a shell runs its trap between commands, and a signal that comes
         // just before a long `wait` would be handled only when that ends.
         "trap 'echo terminated; exit 3' TERM; echo ready; while :; do sleep 0.1; done", 3, 1},
        // Killed once the grace period is over, so that the host ends anyway.
        {"a command that ignores it", "trap '' TERM; echo ready; exec sleep 60", 128 + SIGKILL, 0},
    };
    for (const auto& row : rows) {
        HostProcess host({"--bundle", kSampleBundle, "--", "sh", "-c", row.command});
        const auto lines = host.readLinesThrough([](const auto& line) { return line == "ready"; });
        ASSERT_EQ(lines.empty() ? "" : lines.back(), "ready") << row.what << "\n"
                                                              << host.standardError();
        host.signal(SIGTERM);
        EXPECT_EQ(host.finish(), row.status) << row.what << "\n" << host.standardError();
        EXPECT_EQ(countContaining(host.remainingLines(), {"terminated"}), row.saidSo) << row.what;
    }
}

// A host that dies outright (no signal it could pass on) takes the command with it, so that
// nothing is left running in a network that nobody serves.
TEST_F(Sandbox, AHostKilledOutrightTakesTheCommandWithIt) {
    HostProcess host({"--bundle", kSampleBundle, "--", "sh", "-c", "echo pid $$; exec sleep 60"});
    const auto lines =
        host.readLinesThrough([](const auto& line) { return line.starts_with("pid "); });
    ASSERT_FALSE(lines.empty()) << host.standardError();
    const std::string pid = lines.back().substr(4);
    host.signal(SIGKILL);
    // Gone, or dead and waiting for init to reap it.
    const auto running = [&] {
        const std::string fields = readFile("/proc/" + pid + "/stat");
        const auto end = fields.rfind(')');
        return end != std::string::npos && fields.substr(end + 2, 1) != "Z";
    };
    for (int i = 0; i < 500 && running(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (running()) {
        ADD_FAILURE() << "the command outlived the host";
        ::kill(std::stoi(pid), SIGKILL);  // it holds the host's output open
    }
    EXPECT_EQ(host.finish(), 128 + SIGKILL);
}

TEST(SandboxHostsFile, KeepsTheSystemsLinesButApnsNamesAndPointsThoseAtTheHost) {
    const auto apnsAt = [](const std::string& address) {
        return "# apns-host: APNs's provider API\n" + address +
               "\tapi.push.apple.com api.sandbox.push.apple.com api.development.push.apple.com\n";
    };
    const std::string apns = apnsAt("127.0.0.1");
    const std::string localhost = "127.0.0.1\tlocalhost\n::1\tlocalhost\n";
    const struct {
        const char* what;
        std::string system;
        std::string address;
        std::string expected;
    } rows[] = {
        {"Debian's", "127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost\n", "127.0.0.1",
         "127.0.0.1\tlocalhost\n::1\tlocalhost ip6-localhost\n" + apns},
        {"APNs's names in any case, beside others, before a comment",
         "10.0.0.1 API.Push.Apple.COM\n127.0.0.1 localhost\n"
         "192.168.1.2\tgateway api.sandbox.push.apple.com # old\n"
         "  10.0.0.2   api.development.push.apple.com\n"
         "# api.push.apple.com in a comment stays\n"
         "10.0.0.3 apis.push.apple.com api.push.apple.com.example\n",
         "127.0.0.1",
         "127.0.0.1 localhost\n# api.push.apple.com in a comment stays\n"
         "10.0.0.3 apis.push.apple.com api.push.apple.com.example\n" +
             apns},
        {"no localhost: one is added", "10.1.1.1 build-host\n127.0.1.1 mylocalhost\n", "127.0.0.1",
         "10.1.1.1 build-host\n127.0.1.1 mylocalhost\n" + localhost + apns},
        {"localhost as an address's second name", "127.0.0.1\tvm localhost\n", "127.0.0.1",
         "127.0.0.1\tvm localhost\n" + apns},
        {"a last line without a line break", "127.0.0.1 localhost", "127.0.0.1",
         "127.0.0.1 localhost\n" + apns},
        {"empty", "", "127.0.0.1", localhost + apns},
        {"only a name where the address goes", "localhost\n", "127.0.0.1",
         "localhost\n" + localhost + apns},
        {"IPv6", "::1 localhost\n", "::1", "::1 localhost\n" + apnsAt("::1")},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(host::NetworkSandbox::hostsFile(row.system, row.address), row.expected)
            << row.what;
    }
}

// Where namespaces are refused (here: a process whose identity a user namespace does not map may
// not make another), the host says why and what to do in one line, and exits 2.
TEST(SandboxOptions, NamespacesThatCannotBeMadeAreReportedInOneLine) {
    if (std::system("unshare -U true 2>/dev/null") != 0) {
        GTEST_SKIP() << "unshare -U is not allowed here";
    }
    const auto errors = temporaryFile("unshare.err");
    const std::string command = std::string("unshare -U ") + NIMBORRA_APNS_HOST + " --bundle " +
                                kSampleBundle + " -- true </dev/null >/dev/null 2>" +
                                errors.string();
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
    const auto text = readFile(errors);
    EXPECT_TRUE(text.starts_with("apns-host: " + kNoNamespaces + " (unshare: ")) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
}

TEST(SandboxOptions, OutputTakesTheHostsLinesInAnySession) {
    const auto output = temporaryFile("session.jsonl");
    const auto result =
        runHost("{\"inspect\":\"platform\"}\nnot json\n", {"--output", output.string()});
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(result.lines.empty());
    const auto written = linesOf(readFile(output));
    ASSERT_EQ(written.size(), 2u);
    EXPECT_TRUE(written[0].starts_with("{\"platform\":")) << written[0];
    EXPECT_TRUE(written[1].starts_with("{\"error\":")) << written[1];
}

}  // namespace
}  // namespace nimborra::testing
