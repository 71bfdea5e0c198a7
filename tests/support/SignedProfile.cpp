#include "support/SignedProfile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

namespace nimborra::testing {
namespace {

namespace fs = std::filesystem;

// Runs a shell command with its output discarded; true when it exited with status 0. Every path
// passed in comes from mkdtemp under the temporary directory, so none needs quoting.
bool run(const std::string& command) {
    return std::system((command + " </dev/null >/dev/null 2>&1").c_str()) == 0;
}

// The throw-away signing identity, made on first use and removed when the process exits.
struct Signer {
    Signer() {
        std::string pattern =
            (fs::temp_directory_path() / "nimborra-signed-profile-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr &&
            run("openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=test -days 1 -keyout " +
                pattern + "/key.pem -out " + pattern + "/cert.pem")) {
            directory = pattern;
        }
    }
    ~Signer() {
        std::error_code ignored;
        fs::remove_all(directory, ignored);
    }
    std::mutex mutex;
    fs::path directory;  // empty when openssl could not make the identity
};

// The benchmark program builds this file without the rest of the test support, so it reads the
// signed output itself.
std::string readWhole(const fs::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

}  // namespace

std::optional<std::string> makeSignedProfile(std::string_view content) {
    static Signer signer;
    const std::lock_guard lock(signer.mutex);
    const fs::path input = signer.directory / "content.xml";
    const fs::path output = signer.directory / "signed.der";
    if (signer.directory.empty() || !(std::ofstream(input, std::ios::binary) << content) ||
        !run("openssl cms -sign -nodetach -binary -outform DER -in " + input.string() + " -out " +
             output.string() + " -signer " + (signer.directory / "cert.pem").string() + " -inkey " +
             (signer.directory / "key.pem").string())) {
        return std::nullopt;
    }
    return readWhole(output);
}

std::string profilePlist(std::optional<std::string> apsEnvironment) {
    const std::string aps =
        apsEnvironment ? "<key>aps-environment</key><string>" + *apsEnvironment + "</string>\n"
                       : "";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD "
           "PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\"><dict>\n<key>AppIDName</key><string>Nimb Orra Sample</string>\n"
           "<key>ApplicationIdentifierPrefix</key><array><string>A1B2C3D4E5</string></array>\n"
           "<key>CreationDate</key><date>2024-03-01T10:15:30Z</date>\n"
           "<key>DeveloperCertificates</key><array><data>MIIFxjCCBK6gAwIBAgIQBj0Tqy3eOVJ4M2qS\n"
           "DmFXpDANBgkqhkiG9w0BAQsFADB1MUQwQgYDVQQDDDtBcHBsZSBXb3JsZHdpZGUg</data></array>\n"
           "<key>Entitlements</key><dict>\n<key>application-identifier</key>"
           "<string>A1B2C3D4E5.com.nimborra.sample</string>\n<key>keychain-access-groups</key>"
           "<array><string>A1B2C3D4E5.*</string></array>\n" +
           aps +
           "<key>get-task-allow</key><true/>\n<key>com.apple.developer.team-identifier</key>"
           "<string>A1B2C3D4E5</string>\n</dict>\n<key>ExpirationDate</key>"
           "<date>2025-03-01T10:15:30Z</date>\n<key>Name</key><string>Nimb Orra Sample</string>\n"
           "<key>ProvisionedDevices</key><array><string>00008030-001A2B3C4D5E6F70</string></array>"
           "\n<key>TeamIdentifier</key><array><string>A1B2C3D4E5</string></array>\n"
           "<key>TeamName</key><string>Nimb Orra Test Team</string>\n<key>TimeToLive</key>"
           "<integer>365</integer>\n<key>UUID</key><string>6f1c2a4e-8b3d-4e5f-9a7b-1c2d3e4f5a6b"
           "</string>\n<key>Version</key><integer>1</integer>\n</dict>\n</plist>\n";
}

}  // namespace nimborra::testing
