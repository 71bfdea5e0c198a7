// The per-connection rules of provider tokens: when a token may change and when it goes stale.
#include "NimbOrraProviderApi/ProviderTokenSession.h"

#include "NimbOrraPlatform/Text.h"

namespace nimborra::provider {
namespace {

// How far in the future an "iat" may lie and still be taken for clock drift between the push
// server and this service. A later one would let a token outlive its hour, so it is refused.
constexpr std::int64_t kClockDriftSeconds = 5 * 60;

// The comparisons keep `now` (a clock reading) on the side with arithmetic, so that any 64-bit
// "iat" a token carries, the extremes included, compares without overflow.
bool isFromTheFuture(std::int64_t issuedAt, std::int64_t now) {
    return issuedAt > now + kClockDriftSeconds;
}
bool isStale(std::int64_t issuedAt, std::int64_t now) {
    return issuedAt < now - kProviderTokenLifetimeSeconds;
}

}  // namespace

ProviderTokenSession::ProviderTokenSession(std::shared_ptr<const ProviderTokenVerifier> verifier)
    : verifier_(std::move(verifier)) {}

// A token the connection presents for the first time is checked (signature, key, team) once.
// A valid one from the future (beyond clock drift) is refused as invalid and a stale one as
// expired, without counting as an update; any other valid one replaces the connection's token
// unless that was adopted less than 20 minutes ago. A token refused only for the update rate is
// remembered, so presenting it again is not checked again. Every request then needs the
// connection's token to be at most one hour old.
std::optional<TokenRefusal> ProviderTokenSession::authorize(
    std::optional<std::string_view> authorization, std::int64_t nowSeconds) {
    constexpr std::string_view scheme = "bearer ";
    if (!authorization) {
        return TokenRefusal{403, "MissingProviderToken", "the request has no authorization header"};
    }
    std::string_view value = *authorization;
    if (!platform::startsWithIgnoringASCIICase(value, scheme)) {
        return TokenRefusal{403, "MissingProviderToken",
                            "the authorization header is not \"bearer <token>\""};
    }
    value.remove_prefix(scheme.size());
    while (!value.empty() && value.front() == ' ') {
        value.remove_prefix(1);
    }
    if (value.empty()) {
        return TokenRefusal{403, "MissingProviderToken", "the authorization header has no token"};
    }
    if (value != token_) {
        std::int64_t issuedAt = pendingIssuedAt_;
        if (value != pending_) {
            const ProviderTokenCheck check = verifier_->check(value);
            if (verifier_->verifiesSignatures()) {
                ++verifiedCount_;
            }
            if (check.outcome != ProviderTokenCheck::Outcome::valid) {
                return TokenRefusal{403, "InvalidProviderToken", check.detail};
            }
            issuedAt = check.issuedAt;
        }
        if (isFromTheFuture(issuedAt, nowSeconds)) {
            return TokenRefusal{403, "InvalidProviderToken",
                                "the token's \"iat\" " + std::to_string(issuedAt) +
                                    " lies more than 5 minutes in the future"};
        }
        if (isStale(issuedAt, nowSeconds)) {
            return TokenRefusal{403, "ExpiredProviderToken",
                                "the new token's \"iat\" " + std::to_string(issuedAt) +
                                    " is more than an hour ago"};
        }
        if (!token_.empty() && nowSeconds - adoptedAt_ < kProviderTokenUpdateIntervalSeconds) {
            pending_.assign(value);
            pendingIssuedAt_ = issuedAt;
            return TokenRefusal{429, "TooManyProviderTokenUpdates",
                                "the connection changed its token less than 20 minutes ago"};
        }
        token_.assign(value);
        issuedAt_ = issuedAt;
        adoptedAt_ = nowSeconds;
        pending_.clear();
    }
    if (isStale(issuedAt_, nowSeconds)) {
        return TokenRefusal{403, "ExpiredProviderToken",
                            "the connection's token was issued more than an hour ago; send a "
                            "new one"};
    }
    return std::nullopt;
}

}  // namespace nimborra::provider
