// The key a push server signs its provider tokens with: an EC P-256 key, as APNs hands it out.
//
// Threads: immutable once made; may be shared by every thread. Nothing here throws except
// std::bad_alloc; every failure is a value.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

// OpenSSL's key type, kept out of this header.
struct evp_pkey_st;

namespace nimborra::provider {

// A private key (the PKCS#8 ".p8" file APNs hands out), which can sign and verify, or a public
// key only, which can verify.
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

}  // namespace nimborra::provider
