// Provider authentication tokens: the ES256-signed JSON Web Tokens a push server sends in its
// "authorization: bearer" header, and the per-connection rules APNs applies to them.
//
// Threads: AuthKey and ProviderTokenVerifier are immutable once made and may be shared by every
// thread; a ProviderTokenSession belongs to one connection and is used by one thread at a time.
// Nothing here throws except std::bad_alloc; every failure is a value.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

// OpenSSL's key type, kept out of this header.
struct evp_pkey_st;

namespace nimborra::provider {

// An EC P-256 key: a private key (the PKCS#8 ".p8" file APNs hands out), which can sign and
// verify, or a public key only, which can verify.
class AuthKey {
  public:
    // Reads a PEM file: "PRIVATE KEY" (PKCS#8), "EC PRIVATE KEY" or "PUBLIC KEY". The reason when
    // the file cannot be read or holds no P-256 key.
    static std::variant<AuthKey, std::string> load(const std::filesystem::path& path);
    static std::variant<AuthKey, std::string> fromPem(std::string_view pem);
    // A new random private key (for tests and tools).
    static AuthKey generate();

    bool canSign() const;
    // The key in PEM: the private key as PKCS#8 when there is one, else the public key.
    std::string pem() const;
    std::string publicKeyPem() const;

    evp_pkey_st* native() const { return key_.get(); }

  private:
    explicit AuthKey(std::shared_ptr<evp_pkey_st> key) : key_(std::move(key)) {}
    std::shared_ptr<evp_pkey_st> key_;
};

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
    std::int64_t issuedAt = 0;
    // Why an invalid token is invalid, for the log (never sent to the client).
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

// A token is stale this long after its "iat".
inline constexpr std::int64_t kProviderTokenLifetimeSeconds = 3600;
// A connection may change its token at most this often.
inline constexpr std::int64_t kProviderTokenUpdateIntervalSeconds = 20 * 60;

// The refusal of a request's authorization, as APNs answers it.
struct TokenRefusal {
    int status = 403;
    // "MissingProviderToken", "InvalidProviderToken", "ExpiredProviderToken" or
    // "TooManyProviderTokenUpdates".
    std::string_view reason;
    std::string detail;
};

// One connection's token state: the token it uses and when it started using it. A token's
// signature is checked once, when the connection first presents it; the same token on later
// requests is only checked for age.
class ProviderTokenSession {
  public:
    explicit ProviderTokenSession(std::shared_ptr<const ProviderTokenVerifier> verifier);

    // Checks the "authorization" header of one request (nothing when absent) at `nowSeconds`
    // (seconds since 1970). Nothing when the request may go on.
    std::optional<TokenRefusal> authorize(std::optional<std::string_view> authorization,
                                          std::int64_t nowSeconds);

    // How many signatures this connection has verified (for tests and the benchmark).
    std::size_t verifiedCount() const { return verifiedCount_; }

  private:
    std::shared_ptr<const ProviderTokenVerifier> verifier_;
    std::string token_;
    std::int64_t issuedAt_ = 0;
    std::int64_t adoptedAt_ = 0;
    // A valid token refused only because the connection changed its token too recently, kept
    // so that presenting it again does not verify its signature again.
    std::string pending_;
    std::int64_t pendingIssuedAt_ = 0;
    std::size_t verifiedCount_ = 0;
};

}  // namespace nimborra::provider
