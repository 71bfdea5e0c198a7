#include "NimbOrraProviderApi/TlsServerContext.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <array>
#include <span>
#include <string_view>

#include "NimbOrraPlatform/Hex.h"
#include "NimbOrraPlatform/Logger.h"

namespace nimborra::provider {
namespace {

const platform::Logger& logger() {
    static const platform::Logger* instance = new platform::Logger("com.nimborra.provider", "tls");
    return *instance;
}

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using BnPtr = std::unique_ptr<BIGNUM, Deleter<BIGNUM, BN_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION, X509_EXTENSION_free>>;

// The most recent OpenSSL error in words, and the queue emptied so that it cannot be blamed on
// a later call.
std::string lastOpenSslError() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    if (code == 0) {
        return "unknown OpenSSL error";
    }
    std::array<char, 256> text{};
    ERR_error_string_n(code, text.data(), text.size());
    return text.data();
}

// The names a made certificate answers to: every way a local client reaches the server, and the
// host names of APNs itself so that a client pointed at them (through /etc/hosts, say) agrees.
constexpr const char* kGeneratedNames =
    "DNS:localhost,IP:127.0.0.1,IP:::1,DNS:api.push.apple.com,"
    "DNS:api.sandbox.push.apple.com,DNS:api.development.push.apple.com";
constexpr long kGeneratedValiditySeconds = 365L * 24 * 60 * 60;

bool addExtension(X509* cert, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
    ExtPtr extension(X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    return extension && X509_add_ext(cert, extension.get(), -1) == 1;
}

// A self-signed EC P-256 certificate for the names above, valid from an hour ago (clocks
// disagree) for a year, with a random serial so that clients never see two alike.
std::variant<std::pair<X509Ptr, KeyPtr>, std::string> makeCertificate() {
    KeyPtr key(EVP_EC_gen("P-256"));
    X509Ptr cert(X509_new());
    BnPtr serial(BN_new());
    if (!key || !cert || !serial) {
        return "cannot make a key: " + lastOpenSslError();
    }
    bool ok =
        X509_set_version(cert.get(), X509_VERSION_3) == 1 &&
        BN_rand(serial.get(), 127, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
        BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) != nullptr &&
        X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
        X509_gmtime_adj(X509_getm_notAfter(cert.get()), kGeneratedValiditySeconds) != nullptr &&
        X509_set_pubkey(cert.get(), key.get()) == 1;
    X509_NAME* name = X509_get_subject_name(cert.get());
    ok = ok &&
         X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>("NimbOrra"), -1, -1,
                                    0) == 1 &&
         X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                    reinterpret_cast<const unsigned char*>("localhost"), -1, -1,
                                    0) == 1 &&
         X509_set_issuer_name(cert.get(), name) == 1;
    // Clients are given this certificate as their trust anchor, so it is marked as a CA of its
    // own, with the key identifiers strict verifiers ask for.
    ok = ok && addExtension(cert.get(), NID_basic_constraints, "critical,CA:TRUE") &&
         addExtension(cert.get(), NID_key_usage, "critical,digitalSignature,keyCertSign") &&
         addExtension(cert.get(), NID_ext_key_usage, "serverAuth") &&
         addExtension(cert.get(), NID_subject_key_identifier, "hash") &&
         addExtension(cert.get(), NID_authority_key_identifier, "keyid:always") &&
         addExtension(cert.get(), NID_subject_alt_name, kGeneratedNames) &&
         X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
    if (!ok) {
        return "cannot make a certificate: " + lastOpenSslError();
    }
    return std::pair{std::move(cert), std::move(key)};
}

std::string pemOf(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        return {};
    }
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(length));
}

std::string fingerprintOf(X509* cert) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (X509_digest(cert, EVP_sha256(), digest.data(), &length) != 1) {
        return {};
    }
    return platform::hexEncodedString(std::span(digest.data(), length), platform::HexCase::upper,
                                      ':');
}

// How many offered protocol names, and how much of each, the refusal's log line shows: a client
// decides what it offers, so the line stays short whatever it sends.
constexpr std::size_t kLoggedProtocols = 8;
constexpr std::size_t kLoggedProtocolLength = 32;

std::string describeOffer(const unsigned char* in, unsigned int length) {
    std::string text;
    std::size_t shown = 0;
    std::size_t offered = 0;
    for (unsigned int at = 0; at < length;) {
        const unsigned int size = in[at];
        const unsigned int end = at + 1 + size > length ? length : at + 1 + size;
        ++offered;
        if (shown < kLoggedProtocols) {
            text += shown++ == 0 ? "\"" : ", \"";
            for (unsigned int i = at + 1; i < end && i - at - 1 < kLoggedProtocolLength; ++i) {
                const char c = static_cast<char>(in[i]);
                text += c >= 0x20 && c < 0x7f && c != '"' && c != '\\' ? c : '?';
            }
            text += size > kLoggedProtocolLength ? "...\"" : "\"";
        }
        at = end;
    }
    if (offered > shown) {
        text += " and " + std::to_string(offered - shown) + " more";
    }
    return text;
}

// HTTP/2 is all the provider API speaks. A client that offers it gets it; one that offers only
// other protocols is refused during the handshake: returning SSL_TLSEXT_ERR_ALERT_FATAL makes
// OpenSSL end it with the no_application_protocol alert, which tells the client why, rather
// than letting it send HTTP/1.1 into an HTTP/2 session. (Without any ALPN offer this is not
// called at all and the connection is served HTTP/2.)
int selectApplicationProtocol(SSL*, const unsigned char** out, unsigned char* outLength,
                              const unsigned char* in, unsigned int inLength, void*) {
    for (unsigned int at = 0; at < inLength;) {
        const unsigned int size = in[at];
        if (at + 1 + size > inLength) {
            break;
        }
        if (std::string_view(reinterpret_cast<const char*>(in + at + 1), size) == "h2") {
            *out = in + at + 1;
            *outLength = static_cast<unsigned char>(size);
            return SSL_TLSEXT_ERR_OK;
        }
        at += 1 + size;
    }
    logger().info([&] {
        return "refused a TLS client that offered only other application protocols than h2 (" +
               describeOffer(in, inLength) + ") with the no_application_protocol alert";
    });
    return SSL_TLSEXT_ERR_ALERT_FATAL;
}

}  // namespace

std::variant<std::shared_ptr<TlsServerContext>, std::string> TlsServerContext::create(
    const TlsOptions& options) {
    if (options.certificate.has_value() != options.key.has_value()) {
        return std::string(
            "a TLS certificate and its private key go together: give both or "
            "neither");
    }
    ERR_clear_error();
    std::shared_ptr<TlsServerContext> result(new TlsServerContext());
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    if (context == nullptr) {
        return "cannot make a TLS context: " + lastOpenSslError();
    }
    result->context_ = context;
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    // Renegotiation lets a client make the server repeat its most expensive work at will.
    // A client that closes without close_notify has ended an ordinary connection, not broken
    // one: it reads as the end of the stream rather than as an error.
    SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE |
                                     SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_mode(context, SSL_MODE_RELEASE_BUFFERS);

    if (options.certificate) {
        const std::string certificate = options.certificate->string();
        const std::string key = options.key->string();
        if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
            return "cannot read the TLS certificate " + certificate + ": " + lastOpenSslError();
        }
        BioPtr file(BIO_new_file(key.c_str(), "r"));
        KeyPtr privateKey(file ? PEM_read_bio_PrivateKey(file.get(), nullptr, nullptr, nullptr)
                               : nullptr);
        if (!privateKey) {
            return "cannot read the TLS private key " + key + ": " + lastOpenSslError();
        }
        if (X509_check_private_key(SSL_CTX_get0_certificate(context), privateKey.get()) != 1) {
            ERR_clear_error();
            return "the TLS private key " + key + " does not belong to the certificate " +
                   certificate;
        }
        if (SSL_CTX_use_PrivateKey(context, privateKey.get()) != 1) {
            return "cannot use the TLS private key " + key + ": " + lastOpenSslError();
        }
    } else {
        auto made = makeCertificate();
        if (auto* error = std::get_if<std::string>(&made)) {
            return std::move(*error);
        }
        auto& [cert, key] = std::get<0>(made);
        if (SSL_CTX_use_certificate(context, cert.get()) != 1 ||
            SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
            return "cannot use the made certificate: " + lastOpenSslError();
        }
    }
    X509* leaf = SSL_CTX_get0_certificate(context);
    result->certificatePem_ = pemOf(leaf);
    result->fingerprint_ = fingerprintOf(leaf);

    if (options.clientCa) {
        const std::string ca = options.clientCa->string();
        STACK_OF(X509_NAME)* names = SSL_load_client_CA_file(ca.c_str());
        if (names == nullptr || SSL_CTX_load_verify_locations(context, ca.c_str(), nullptr) != 1) {
            sk_X509_NAME_pop_free(names, X509_NAME_free);
            return "cannot read the client CA " + ca + ": " + lastOpenSslError();
        }
        SSL_CTX_set_client_CA_list(context, names);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        result->requiresClientCertificate_ = true;
    }
    SSL_CTX_set_alpn_select_cb(context, selectApplicationProtocol, nullptr);
    return result;
}

TlsServerContext::~TlsServerContext() {
    SSL_CTX_free(context_);
}

std::optional<std::string> clientCertificateTopic(ssl_st* ssl) {
    if (ssl == nullptr || SSL_get_verify_result(ssl) != X509_V_OK) {
        return std::nullopt;
    }
    X509* peer = SSL_get0_peer_certificate(ssl);
    if (peer == nullptr) {
        return std::nullopt;
    }
    X509_NAME* subject = X509_get_subject_name(peer);
    const int index = X509_NAME_get_index_by_NID(subject, NID_userId, -1);
    if (index < 0) {
        return std::nullopt;
    }
    ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, data);
    if (length < 0) {
        ERR_clear_error();
        return std::nullopt;
    }
    std::string topic(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return topic;
}

}  // namespace nimborra::provider
