// ES256 JSON Web Tokens made and checked with OpenSSL 3.
#include "NimbOrraProviderApi/ProviderJwt.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <new>
#include <span>

#include "NimbOrraPlatform/Base64.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "Quote.h"

namespace nimborra::provider {
namespace {

using detail::quotedText;

// Real tokens are about 200 bytes; the bound keeps hostile headers from costing anything.
constexpr std::size_t kTokenLimit = 8 * 1024;

struct MdContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct SignatureFree {
    void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
};
using MdContext = std::unique_ptr<EVP_MD_CTX, MdContextFree>;
using Signature = std::unique_ptr<ECDSA_SIG, SignatureFree>;

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string base64Url(std::string_view bytes) {
    return platform::base64URLEncodedString(bytesOf(bytes));
}

std::optional<std::string> fromBase64Url(std::string_view text) {
    auto bytes = platform::base64URLDecodedData(text);
    if (!bytes) {
        return std::nullopt;
    }
    return std::string(bytes->begin(), bytes->end());
}

// The DER signature OpenSSL makes, as the fixed 64-byte R||S pair a JWT carries.
std::optional<std::string> derToRaw(const unsigned char* der, std::size_t length) {
    Signature signature(d2i_ECDSA_SIG(nullptr, &der, static_cast<long>(length)));
    if (!signature) {
        return std::nullopt;
    }
    const BIGNUM* r = nullptr;
    const BIGNUM* s = nullptr;
    ECDSA_SIG_get0(signature.get(), &r, &s);
    std::string raw(64, '\0');
    auto* out = reinterpret_cast<unsigned char*>(raw.data());
    if (BN_bn2binpad(r, out, 32) != 32 || BN_bn2binpad(s, out + 32, 32) != 32) {
        return std::nullopt;
    }
    return raw;
}

std::optional<std::string> rawToDer(std::string_view raw) {
    const auto* in = reinterpret_cast<const unsigned char*>(raw.data());
    Signature signature(ECDSA_SIG_new());
    BIGNUM* r = BN_bin2bn(in, 32, nullptr);
    BIGNUM* s = BN_bin2bn(in + 32, 32, nullptr);
    if (!signature || r == nullptr || s == nullptr || ECDSA_SIG_set0(signature.get(), r, s) != 1) {
        BN_free(r);
        BN_free(s);
        throw std::bad_alloc();
    }
    unsigned char* der = nullptr;
    const int length = i2d_ECDSA_SIG(signature.get(), &der);
    if (length <= 0) {
        return std::nullopt;
    }
    std::string out(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return out;
}

ProviderTokenCheck invalid(std::string detail) {
    ProviderTokenCheck check;
    check.detail = std::move(detail);
    return check;
}

// The text member `name` of a JSON object, or nothing.
std::optional<std::string> textMember(const platform::Value& object, std::string_view name) {
    const platform::Value* member = object.find(name);
    if (member == nullptr || member->text() == nullptr) {
        return std::nullopt;
    }
    return *member->text();
}

}  // namespace

std::optional<std::string> makeProviderToken(const AuthKey& key, std::string_view keyId,
                                             std::string_view teamId, std::int64_t issuedAt) {
    if (!key.canSign()) {
        return std::nullopt;
    }
    std::string header = "{\"alg\":\"ES256\",\"kid\":";
    platform::appendJSONString(header, keyId);
    header += '}';
    std::string claims = "{\"iss\":";
    platform::appendJSONString(claims, teamId);
    claims += ",\"iat\":";
    platform::appendJSONNumber(claims, issuedAt);
    claims += '}';
    std::string token = base64Url(header) + '.' + base64Url(claims);

    MdContext context(EVP_MD_CTX_new());
    std::size_t length = 0;
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key.native()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &length,
                       reinterpret_cast<const unsigned char*>(token.data()), token.size()) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    std::string der(length, '\0');
    auto* out = reinterpret_cast<unsigned char*>(der.data());
    if (EVP_DigestSign(context.get(), out, &length,
                       reinterpret_cast<const unsigned char*>(token.data()), token.size()) != 1) {
        ERR_clear_error();
        return std::nullopt;
    }
    auto raw = derToRaw(out, length);
    if (!raw) {
        return std::nullopt;
    }
    return token + '.' + base64Url(*raw);
}

ProviderTokenVerifier::ProviderTokenVerifier(std::optional<AuthKey> key, std::string keyId,
                                             std::string teamId)
    : key_(std::move(key)), keyId_(std::move(keyId)), teamId_(std::move(teamId)) {}

ProviderTokenCheck ProviderTokenVerifier::check(std::string_view token) const {
    if (token.size() > kTokenLimit) {
        return invalid("the token is longer than 8 KiB");
    }
    const auto firstDot = token.find('.');
    const auto secondDot =
        firstDot == std::string_view::npos ? firstDot : token.find('.', firstDot + 1);
    if (secondDot == std::string_view::npos ||
        token.find('.', secondDot + 1) != std::string_view::npos) {
        return invalid("the token is not three dot-separated parts");
    }
    const auto signingInput = token.substr(0, secondDot);
    const auto headerText = fromBase64Url(token.substr(0, firstDot));
    const auto claimsText = fromBase64Url(token.substr(firstDot + 1, secondDot - firstDot - 1));
    const auto signature = fromBase64Url(token.substr(secondDot + 1));
    if (!headerText || !claimsText || !signature) {
        return invalid("a part of the token is not base64url without padding");
    }
    const auto header = platform::JSONSerialization::jsonObject(*headerText);
    const auto claims = platform::JSONSerialization::jsonObject(*claimsText);
    if (!header || !header->dictionary() || !claims || !claims->dictionary()) {
        return invalid("the token's header or claims are not a JSON object");
    }
    if (const auto algorithm = textMember(*header, "alg"); algorithm != "ES256") {
        return invalid("the token's algorithm is " +
                       (algorithm ? quotedText(*algorithm) : std::string("missing")) +
                       ", not \"ES256\"");
    }
    const platform::Value* issuedAt = claims->find("iat");
    if (issuedAt == nullptr || issuedAt->integer() == nullptr) {
        return invalid("the token's \"iat\" is not a 64-bit integer");
    }
    ProviderTokenCheck check;
    check.keyId = textMember(*header, "kid").value_or("");
    check.teamId = textMember(*claims, "iss").value_or("");
    check.issuedAt = *issuedAt->integer();
    if (!key_) {
        check.outcome = ProviderTokenCheck::Outcome::valid;
        return check;
    }
    if (check.keyId != keyId_) {
        return invalid("the token's key identifier (\"kid\") is " + quotedText(check.keyId) +
                       "; this server verifies key " + quotedText(keyId_));
    }
    if (check.teamId != teamId_) {
        return invalid("the token's team (\"iss\") is " + quotedText(check.teamId) +
                       "; this server expects team " + quotedText(teamId_));
    }
    if (signature->size() != 64) {
        return invalid("the token's signature is " + std::to_string(signature->size()) +
                       " bytes, not the 64 of ES256");
    }
    const auto der = rawToDer(*signature);
    MdContext context(EVP_MD_CTX_new());
    if (!context) {
        throw std::bad_alloc();
    }
    const bool verified =
        der &&
        EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key_->native()) == 1 &&
        EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(der->data()),
                         der->size(), reinterpret_cast<const unsigned char*>(signingInput.data()),
                         signingInput.size()) == 1;
    ERR_clear_error();
    if (!verified) {
        return invalid("the token's signature does not verify with key " + quotedText(keyId_) +
                       " (it was signed by another key, or altered)");
    }
    check.outcome = ProviderTokenCheck::Outcome::valid;
    return check;
}

}  // namespace nimborra::provider
