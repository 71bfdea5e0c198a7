#include "support/SignedProfile.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <system_error>
#include <vector>

extern char** environ;

namespace nimborra::testing {

namespace {

// Runs a program found on PATH with its standard streams on /dev/null; true when it ran and
// exited with status 0.
bool run(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return false;
    }
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int spawned = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool writeFile(const std::filesystem::path& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    return static_cast<bool>(out);
}

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// The throw-away signing identity, made on first use and removed when the process exits.
class Signer {
  public:
    ~Signer() {
        if (directory_) {
            std::error_code ignored;
            std::filesystem::remove_all(*directory_, ignored);
        }
    }

    std::optional<std::string> sign(std::string_view content) {
        const std::lock_guard lock(mutex_);
        if (!prepared_) {
            prepared_ = true;
            prepare();
        }
        if (!directory_) {
            return std::nullopt;
        }
        const auto number = std::to_string(++signatures_);
        const auto input = *directory_ / ("content-" + number + ".xml");
        const auto output = *directory_ / ("signed-" + number + ".der");
        std::optional<std::string> result;
        if (writeFile(input, content) &&
            run({"openssl", "cms", "-sign", "-nodetach", "-binary", "-outform", "DER", "-in",
                 input.string(), "-out", output.string(), "-signer",
                 (*directory_ / "cert.pem").string(), "-inkey",
                 (*directory_ / "key.pem").string()})) {
            result = readWholeFile(output);
        }
        std::error_code ignored;
        std::filesystem::remove(input, ignored);
        std::filesystem::remove(output, ignored);
        return result;
    }

  private:
    void prepare() {
        std::error_code error;
        const auto base = std::filesystem::temp_directory_path(error);
        if (error) {
            return;
        }
        std::string pattern = (base / "nimborra-signed-profile-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            return;
        }
        const std::filesystem::path directory = pattern;
        if (!run({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=test",
                  "-days", "1", "-keyout", (directory / "key.pem").string(), "-out",
                  (directory / "cert.pem").string()})) {
            std::filesystem::remove_all(directory, error);
            return;
        }
        directory_ = directory;
    }

    std::mutex mutex_;
    bool prepared_ = false;
    std::optional<std::filesystem::path> directory_;
    unsigned long signatures_ = 0;
};

Signer& signer() {
    static Signer instance;
    return instance;
}

std::string escapedXML(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

}  // namespace

std::optional<std::string> makeSignedProfile(std::string_view content) {
    return signer().sign(content);
}

std::string profilePlist(std::optional<std::string> apsEnvironment) {
    std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
        "<plist version=\"1.0\">\n"
        "<dict>\n"
        "\t<key>AppIDName</key>\n"
        "\t<string>Nimb Orra Sample</string>\n"
        "\t<key>ApplicationIdentifierPrefix</key>\n"
        "\t<array>\n"
        "\t<string>A1B2C3D4E5</string>\n"
        "\t</array>\n"
        "\t<key>CreationDate</key>\n"
        "\t<date>2024-03-01T10:15:30Z</date>\n"
        "\t<key>Platform</key>\n"
        "\t<array>\n"
        "\t\t<string>iOS</string>\n"
        "\t</array>\n"
        "\t<key>IsXcodeManaged</key>\n"
        "\t<false/>\n"
        "\t<key>DeveloperCertificates</key>\n"
        "\t<array>\n"
        "\t\t<data>MIIFxjCCBK6gAwIBAgIQBj0Tqy3eOVJ4M2qSDmFXpDANBgkqhkiG9w0BAQsFADB1MUQwQgYDVQQD"
        "\nDDtBcHBsZSBXb3JsZHdpZGUgRGV2ZWxvcGVyIFJlbGF0aW9ucyBDZXJ0aWZpY2F0aW9uIEF1dGhv"
        "\ncml0eTELMAkGA1UECwwCRzMxEzARBgNVBAoMCkFwcGxlIEluYy4xCzAJBgNVBAYTAlVT</data>\n"
        "\t</array>\n"
        "\t<key>Entitlements</key>\n"
        "\t<dict>\n"
        "\t\t<key>application-identifier</key>\n"
        "\t\t<string>A1B2C3D4E5.com.nimborra.sample</string>\n"
        "\t\t<key>keychain-access-groups</key>\n"
        "\t\t<array>\n"
        "\t\t\t<string>A1B2C3D4E5.*</string>\n"
        "\t\t</array>\n";
    if (apsEnvironment) {
        xml += "\t\t<key>aps-environment</key>\n\t\t<string>" + escapedXML(*apsEnvironment) +
               "</string>\n";
    }
    xml +=
        "\t\t<key>get-task-allow</key>\n"
        "\t\t<true/>\n"
        "\t\t<key>com.apple.developer.team-identifier</key>\n"
        "\t\t<string>A1B2C3D4E5</string>\n"
        "\t</dict>\n"
        "\t<key>ExpirationDate</key>\n"
        "\t<date>2025-03-01T10:15:30Z</date>\n"
        "\t<key>Name</key>\n"
        "\t<string>Nimb Orra Sample Development</string>\n"
        "\t<key>ProvisionedDevices</key>\n"
        "\t<array>\n"
        "\t\t<string>00008030-001A2B3C4D5E6F70</string>\n"
        "\t</array>\n"
        "\t<key>TeamIdentifier</key>\n"
        "\t<array>\n"
        "\t\t<string>A1B2C3D4E5</string>\n"
        "\t</array>\n"
        "\t<key>TeamName</key>\n"
        "\t<string>Nimb Orra Test Team</string>\n"
        "\t<key>TimeToLive</key>\n"
        "\t<integer>365</integer>\n"
        "\t<key>UUID</key>\n"
        "\t<string>6f1c2a4e-8b3d-4e5f-9a7b-1c2d3e4f5a6b</string>\n"
        "\t<key>Version</key>\n"
        "\t<integer>1</integer>\n"
        "</dict>\n"
        "</plist>\n";
    return xml;
}

}  // namespace nimborra::testing
