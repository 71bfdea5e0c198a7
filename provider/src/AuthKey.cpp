// EC P-256 keys read, made and written with OpenSSL 3.
#include "NimbOrraProviderApi/AuthKey.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <array>
#include <fstream>
#include <new>

namespace nimborra::provider {
namespace {

// A key file is a few hundred bytes; anything much larger is not one.
constexpr std::size_t kPemLimit = 64 * 1024;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using Bio = std::unique_ptr<BIO, BioFree>;

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

Bio memoryBio() {
    Bio bio(BIO_new(BIO_s_mem()));
    if (!bio) {
        throw std::bad_alloc();
    }
    return bio;
}

std::string bioText(BIO* bio) {
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
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
    const auto read = [&](auto reader) {
        Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
        if (!bio) {
            throw std::bad_alloc();
        }
        return reader(bio.get(), nullptr, noPassword, nullptr);
    };
    EVP_PKEY* key = read(PEM_read_bio_PrivateKey);
    if (key == nullptr) {
        key = read(PEM_read_bio_PUBKEY);
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

}  // namespace nimborra::provider
