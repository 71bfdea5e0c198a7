#include "NimbOrraPushAddonApns/ApnsEntitlementReader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "NimbOrraPlatform/Bundle.h"
#include "support/TestSupport.h"

namespace nimborra::apns {
namespace {

namespace fs = std::filesystem;

class ApnsEntitlementReaderTest : public ::testing::Test {
  protected:
    void writeProfile(std::string_view bytes) { bundle_.writeProfile(bytes); }
    std::optional<std::string> read() { return ApnsEntitlementReader().readApsEnvironment(); }

    const testing::TemporaryBundle bundle_;
    const fs::path& directory_ = bundle_.directory();
};

std::string plistWithEntitlements(std::string_view entitlementsBody) {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>Name</key><string>x</string><key>Entitlements</key><dict>)") +
           std::string(entitlementsBody) + "</dict></dict></plist>";
}

using ::nimborra::testing::repeated;

// No profile, or one that cannot be read, means production; a profile that is read but holds no
// usable entitlement answers nothing. The property list is found by a byte search.
TEST_F(ApnsEntitlementReaderTest, ProfilesAnswerTheStoredTextOrNothing) {
    EXPECT_EQ(read(), "production");
    fs::create_directory(directory_ / "embedded.mobileprovision");
    EXPECT_EQ(read(), "production") << "a directory cannot be read";
    fs::remove(directory_ / "embedded.mobileprovision");

    const std::string good =
        plistWithEntitlements("<key>aps-environment</key><string>development</string>");
    const std::pair<const char*, std::string> cases[] = {
        {"empty file", ""},
        {"no <plist", "binary garbage without the tag </plist>"},
        {"no </plist>", "<plist version=\"1.0\"><dict></dict>"},
        {"close before open", "</plist> junk " + good.substr(0, good.size() - 8)},
        {"array root", "<plist version=\"1.0\"><array><string>x</string></array></plist>"},
        {"empty root", "<plist version=\"1.0\"><dict/></plist>"},
        {"no Entitlements", "<plist version=\"1.0\"><dict><key>a</key><true/></dict></plist>"},
        {"Entitlements not a dictionary",
         "<plist version=\"1.0\"><dict><key>Entitlements</key><string>x</string></dict></plist>"},
        {"no aps-environment", plistWithEntitlements("<key>get-task-allow</key><true/>")},
        {"number", plistWithEntitlements("<key>aps-environment</key><integer>1</integer>")},
        {"dictionary", plistWithEntitlements("<key>aps-environment</key><dict/>")},
        {"empty text", plistWithEntitlements("<key>aps-environment</key><string></string>")},
        {"malformed XML", good.substr(0, good.size() - 20) + "</plist>"},
        {"deep nesting", "<plist version=\"1.0\">" + repeated("<array>", 100000) + "</plist>"},
        {"huge", "<plist version=\"1.0\"><dict><key>Entitlements</key><dict><key>k</key><string>" +
                     std::string(2 << 20, 'a') +
                     "</string><key>aps-environment</key><string>development</string></dict>"
                     "</dict></plist>"},
    };
    for (const auto& [name, bytes] : cases) {
        writeProfile(bytes);
        EXPECT_EQ(read(), std::nullopt) << name;
    }
    writeProfile("\x01\x02 prefix bytes " + good + " trailing bytes");
    EXPECT_EQ(read(), "development");
}

// Real profiles, signed (BER and DER), unsigned, binary and with odd base64: the expected
// answers come from the corpus's index.
TEST_F(ApnsEntitlementReaderTest, RealProfilesAnswerAsIndexed) {
    NIMBORRA_REQUIRE_CORPORA(corpora);
    const std::pair<const char*, std::optional<std::string>> expected[] = {
        {"ios-development-ber.mobileprovision", "development"},
        {"ios-development-der.mobileprovision", "development"},
        {"ios-adhoc.mobileprovision", "production"},
        {"ios-appstore.mobileprovision", "production"},
        {"ios-appstore-no-push.mobileprovision", std::nullopt},
        {"macos-development.provisionprofile", std::nullopt},
        {"unsigned-xml-doctype.mobileprovision", "production"},
        {"unsigned-binary-plist.mobileprovision", std::nullopt},
        {"enterprise-ber-odd-data.mobileprovision", "production"},
        {"unsigned-leading-byte-odd-data.mobileprovision", "production"},
    };
    for (const auto& [file, answer] : expected) {
        writeProfile(testing::readFile(corpora / "provisioning-profiles" / file));
        EXPECT_EQ(read(), answer) << file;
    }
}

}  // namespace
}  // namespace nimborra::apns
