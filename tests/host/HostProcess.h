// Runs the built apns-host as a child process, talking to it through its standard input and
// output as a person or a script would. Standard error goes to an in-memory file.
//
// Waiting for output is bounded by a generous limit so that a hung host fails the test instead
// of hanging it; nothing here measures how fast the host is.
#pragma once

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "NimbOrraProviderApi/ProviderToken.h"

namespace nimborra::testing {

class HostProcess {
  public:
    // Starts apns-host with `arguments` (not including the program name).
    explicit HostProcess(const std::vector<std::string>& arguments);
    // Kills the host if it still runs.
    ~HostProcess();
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Sends `signal` to the host.
    void signal(int signal);

    // Sends `text` to the host's standard input. Blocks while the pipe is full, which the small
    // inputs of the tests never make it: the host keeps reading while it answers.
    void write(std::string_view text);

    // The next line of standard output without its line break; nothing at the end of the
    // output or when none arrives within the limit.
    std::optional<std::string> readLine();
    // Lines up to and including the first that `last` accepts, or to the end of the output.
    std::vector<std::string> readLinesThrough(const std::function<bool(const std::string&)>& last);

    // Closes the input, reads everything up to the end of the output and waits for the host to
    // exit. Returns its exit status (128 + the signal when it was killed, -1 when it could not be
    // started or waited for). The
    // lines not yet read are in remainingLines() afterwards.
    int finish();

    std::vector<std::string> remainingLines() const;
    std::string standardError() const;

  private:
    // Reads what the host has written, waiting at most until `deadline`. False at the end of
    // the output or when the deadline has passed.
    bool readMore(std::chrono::steady_clock::time_point deadline);

    pid_t child_ = -1;
    int input_ = -1;
    int output_ = -1;
    int errors_ = -1;
    std::string out_;
};

// Runs apns-host once on `input` and collects everything it wrote.
struct HostRun {
    int status = -1;
    std::vector<std::string> lines;
    std::string standardError;
};
HostRun runHost(std::string_view input, const std::vector<std::string>& arguments = {});

// What the tests that run the host with a provider API share: the sample application, the
// credentials of its push server, and ways to read the host's lines.
inline const std::filesystem::path kSource = NIMBORRA_SOURCE_DIR;
inline const std::string kSampleBundle = (kSource / "examples" / "bundle").string();
inline const std::string kTopic = "com.nimborra.sample";
inline const std::string kKeyId = "KEY1234567";
inline const std::string kTeamId = "TEAM123456";

// A file of this test process's own (ctest runs tests at once), removed when the process exits.
std::filesystem::path temporaryFile(const std::string& name);
// The push server's signing key, made once per process, and the file that holds it.
const provider::AuthKey& testKey();
const std::filesystem::path& keyFile();
// A provider token from `key` for kKeyId and kTeamId, issued `age` seconds ago.
std::string providerToken(std::int64_t age = 0, const provider::AuthKey& key = testKey());
// The host's arguments for the sample application, notifications authorized, provider tokens
// checked against testKey().
std::vector<std::string> providerHostArguments();

std::vector<std::string> linesOf(const std::string& text);
// The text of member `name` in a flat JSON line ("..." or a number), or "".
std::string member(const std::string& line, const std::string& name);

}  // namespace nimborra::testing
