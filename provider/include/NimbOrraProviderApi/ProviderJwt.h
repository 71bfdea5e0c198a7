// Provider authentication tokens: the ES256-signed JSON Web Tokens a push server sends in its
// "authorization: bearer" header, made and checked.
//
// Threads: ProviderTokenVerifier is immutable once made and may be shared by every thread.
// Nothing here throws except std::bad_alloc; every failure is a value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraProviderApi/AuthKey.h"

namespace nimborra::provider {

// A signed token: header {"alg":"ES256","kid":keyId}, claims {"iss":teamId,"iat":issuedAt},
// base64url without padding, signature as the 64-byte R||S pair. Nothing when the key cannot
// sign.
std::optional<std::string> makeProviderToken(const AuthKey& key, std::string_view keyId,
                                             std::string_view teamId, std::int64_t issuedAt);

// What a token says and whether it holds.
struct ProviderTokenCheck {
    enum class Outcome {
        valid,
        // Malformed, another algorithm, unknown key or team, or a bad signature.
        invalid,
    };
    Outcome outcome = Outcome::invalid;
    std::string keyId;
    std::string teamId;
    // Any 64-bit value the token holds, the extremes included.
    std::int64_t issuedAt = 0;
    // Why an invalid token is invalid, for people (never sent to the client).
    std::string detail;
};

// Checks tokens against one key, key identifier and team. Without a key, any well-formed ES256
// token is taken as valid without checking its signature, key or team.
class ProviderTokenVerifier {
  public:
    ProviderTokenVerifier(std::optional<AuthKey> key, std::string keyId, std::string teamId);

    bool verifiesSignatures() const { return key_.has_value(); }
    // Parses and checks `token` (the text after "bearer ").
    ProviderTokenCheck check(std::string_view token) const;

  private:
    std::optional<AuthKey> key_;
    std::string keyId_;
    std::string teamId_;
};

}  // namespace nimborra::provider
