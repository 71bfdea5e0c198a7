// Provider authentication tokens: ES256 JSON Web Tokens made and checked with OpenSSL 3, and the
// rules one connection's tokens follow (when a token may change, when it goes stale).
#include "NimbOrraProviderApi/ProviderToken.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>

#include "NimbOrraPlatform/JSONSerialization.h"

namespace nimborra::provider {
namespace {

// A key file is a few hundred bytes; anything much larger is not one.
constexpr std::size_t kPemLimit = 64 * 1024;
// Real tokens are about 200 bytes; the bound keeps hostile headers from costing anything.
constexpr std::size_t kTokenLimit = 8 * 1024;
// How far in the future an "iat" may lie and still be taken for clock drift between the push
// server and this service. A later one would let a token outlive its hour, so it is refused.
constexpr std::int64_t kClockDriftSeconds = 5 * 60;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct MdContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct SignatureFree {
    void operator()(ECDSA_SIG* signature) const { ECDSA_SIG_free(signature); }
};
using Bio = std::unique_ptr<BIO, BioFree>;
using MdContext = std::unique_ptr<EVP_MD_CTX, MdContextFree>;
using Signature = std::unique_ptr<ECDSA_SIG, SignatureFree>;

std::shared_ptr<evp_pkey_st> adopt(EVP_PKEY* key) {
    return {key, EVP_PKEY_free};
}

// Keys are never encrypted here; answering "no password" keeps OpenSSL from prompting on a
// terminal for one.
int noPassword(char*, int, int, void*) {
    return 0;
}

bool isP256(EVP_PKEY* key) {
    if (key == nullptr || EVP_PKEY_is_a(key, "EC") != 1) {
        return false;
    }
    std::array<char, 64> group{};
    std::size_t length = 0;
    return EVP_PKEY_get_utf8_string_param(key, OSSL_PKEY_PARAM_GROUP_NAME, group.data(),
                                          group.size(), &length) == 1 &&
           std::string_view(group.data(), length) == SN_X9_62_prime256v1;
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

Bio memoryBio() {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        throw std::bad_alloc();
    }
    return bio;
}

constexpr std::string_view kBase64UrlAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string base64Url(std::string_view bytes) {
    std::string out;
    out.reserve((bytes.size() * 4 + 2) / 3);
    std::uint32_t bits = 0;
    int count = 0;
    for (const char byte : bytes) {
        bits = (bits << 8) | static_cast<unsigned char>(byte);
        count += 8;
        while (count >= 6) {
            count -= 6;
            out += kBase64UrlAlphabet[(bits >> count) & 0x3F];
        }
    }
    if (count > 0) {
        out += kBase64UrlAlphabet[(bits << (6 - count)) & 0x3F];
    }
    return out;
}

// Strict base64url without padding: only the URL alphabet, no "=", and the unused low bits of
// the last character zero, so that each byte string has exactly one accepted text.
std::optional<std::string> fromBase64Url(std::string_view text) {
    if (text.size() % 4 == 1) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(text.size() * 3 / 4);
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : text) {
        const auto index = kBase64UrlAlphabet.find(c);
        if (index == std::string_view::npos) {
            return std::nullopt;
        }
        bits = (bits << 6) | static_cast<std::uint32_t>(index);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    if ((bits & ((1U << count) - 1)) != 0) {
        return std::nullopt;
    }
    return out;
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

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::variant<AuthKey, std::string> AuthKey::load(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return "cannot read " + path.string();
    }
    std::string text;
    char buffer[4096];
    while (file.read(buffer, sizeof buffer) || file.gcount() > 0) {
        text.append(buffer, static_cast<std::size_t>(file.gcount()));
        if (text.size() > kPemLimit) {
            return path.string() + " is too large to be a key file";
        }
    }
    if (file.bad()) {
        return "cannot read " + path.string();
    }
    auto key = fromPem(text);
    if (auto* reason = std::get_if<std::string>(&key)) {
        *reason = path.string() + ": " + *reason;
    }
    return key;
}

std::variant<AuthKey, std::string> AuthKey::fromPem(std::string_view pem) {
    if (pem.size() > kPemLimit) {
        return std::string("the text is too large to be a key");
    }
    EVP_PKEY* key = nullptr;
    {
        Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (!bio) {
            throw std::bad_alloc();
        }
        key = PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr);
    }
    if (key == nullptr) {
        Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (!bio) {
            throw std::bad_alloc();
        }
        key = PEM_read_bio_PUBKEY(bio.get(), nullptr, noPassword, nullptr);
    }
    ERR_clear_error();
    auto shared = adopt(key);
    if (key == nullptr) {
        return std::string("no PEM private or public key found");
    }
    if (!isP256(key)) {
        return std::string("the key is not an EC P-256 key");
    }
    return AuthKey(std::move(shared));
}

AuthKey AuthKey::generate() {
    EVP_PKEY* key = EVP_EC_gen(SN_X9_62_prime256v1);
    if (key == nullptr) {
        throw std::bad_alloc();
    }
    return AuthKey(adopt(key));
}

bool AuthKey::canSign() const {
    BIGNUM* secret = nullptr;
    const bool has = EVP_PKEY_get_bn_param(key_.get(), OSSL_PKEY_PARAM_PRIV_KEY, &secret) == 1;
    BN_clear_free(secret);
    ERR_clear_error();
    return has;
}

std::string AuthKey::pem() const {
    if (!canSign()) {
        return publicKeyPem();
    }
    Bio bio = memoryBio();
    if (PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) !=
        1) {
        throw std::bad_alloc();
    }
    return bioText(bio.get());
}

std::string AuthKey::publicKeyPem() const {
    Bio bio = memoryBio();
    if (PEM_write_bio_PUBKEY(bio.get(), key_.get()) != 1) {
        throw std::bad_alloc();
    }
    return bioText(bio.get());
}

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
    if (textMember(*header, "alg") != "ES256") {
        return invalid("the token's algorithm is not ES256");
    }
    const platform::Value* issuedAt = claims->find("iat");
    if (issuedAt == nullptr || issuedAt->integer() == nullptr) {
        return invalid("the token's \"iat\" is not an integer");
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
        return invalid("the token's \"kid\" is not the key identifier " + keyId_);
    }
    if (check.teamId != teamId_) {
        return invalid("the token's \"iss\" is not the team " + teamId_);
    }
    if (signature->size() != 64) {
        return invalid("the token's signature is not 64 bytes");
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
        return invalid("the token's signature does not verify with the key " + keyId_);
    }
    check.outcome = ProviderTokenCheck::Outcome::valid;
    return check;
}

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
    constexpr std::string_view scheme = "bearer";
    if (!authorization) {
        return TokenRefusal{403, "MissingProviderToken", "the request has no authorization header"};
    }
    std::string_view value = *authorization;
    if (value.size() <= scheme.size() ||
        !equalsIgnoringCase(value.substr(0, scheme.size()), scheme) ||
        value[scheme.size()] != ' ') {
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
        if (issuedAt > nowSeconds + kClockDriftSeconds) {
            return TokenRefusal{403, "InvalidProviderToken",
                                "the token's \"iat\" lies in the future"};
        }
        if (nowSeconds - issuedAt > kProviderTokenLifetimeSeconds) {
            return TokenRefusal{403, "ExpiredProviderToken",
                                "the new token was issued more than an hour ago"};
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
    if (nowSeconds - issuedAt_ > kProviderTokenLifetimeSeconds) {
        return TokenRefusal{403, "ExpiredProviderToken",
                            "the token was issued more than an hour ago"};
    }
    return std::nullopt;
}

}  // namespace nimborra::provider
