// Builders for provisioning-profile test input: a realistic profile property list, and a real
// signed (CMS) container around any bytes, as the embedded profile of an application is.
//
// Signing runs the openssl command-line tool with a throw-away self-signed certificate that is
// generated once per process into a temporary directory (removed at exit). When openssl cannot
// be run, makeSignedProfile yields nothing and the caller skips:
//
//     const auto signedProfile = nimborra::testing::makeSignedProfile(xml);
//     if (!signedProfile) {
//         GTEST_SKIP() << "the openssl command-line tool is not available";
//     }
//
// Safe to call from any thread; signing calls are serialised.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace nimborra::testing {

// A signed CMS container (DER) holding `content` as its signed data, or nothing when openssl is
// missing or fails. The content is stored unchanged, so a byte search finds it in the result.
std::optional<std::string> makeSignedProfile(std::string_view content);

// A provisioning-profile property list (XML declaration, DOCTYPE and <plist> element) with the
// usual keys: AppIDName, ApplicationIdentifierPrefix, CreationDate, DeveloperCertificates,
// Entitlements (application-identifier, keychain-access-groups, get-task-allow,
// com.apple.developer.team-identifier and, when given, aps-environment), ExpirationDate, Name,
// ProvisionedDevices, TeamIdentifier, TeamName, TimeToLive, UUID, Version.
// The aps-environment text is written as given (no XML escaping).
std::string profilePlist(std::optional<std::string> apsEnvironment);

}  // namespace nimborra::testing
