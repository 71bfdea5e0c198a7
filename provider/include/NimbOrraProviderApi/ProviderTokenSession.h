// The rules APNs applies to one connection's provider tokens: a token is checked once, goes stale
// an hour after it was issued, and may be replaced at most every 20 minutes.
//
// Threads: a ProviderTokenSession belongs to one connection and is used by one thread at a time.
// Nothing here throws except std::bad_alloc; every failure is a value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "NimbOrraProviderApi/ProviderJwt.h"

namespace nimborra::provider {

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
