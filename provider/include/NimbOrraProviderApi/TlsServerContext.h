// The provider API's TLS side: the server certificate (given, or made at start), TLS 1.2 or
// later, the ALPN rule, and optionally client certificates issued by one CA.
//
// ALPN: a client that offers "h2" gets it; a client that offers no ALPN at all is served HTTP/2
// straight after the handshake (as APNs does, and as clients that never negotiate expect); a
// client that offers only other protocols gets TLS's no_application_protocol alert and the log
// says why.
//
// Threads: immutable once created; one context serves every connection on the server's thread.
// Nothing here throws except std::bad_alloc.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <variant>

struct ssl_ctx_st;
struct ssl_st;

namespace nimborra::provider {

struct TlsOptions {
    // PEM certificate (chain) and private key; both or neither. Neither: a self-signed
    // certificate is made whose names cover localhost, 127.0.0.1, ::1 and APNs's host names.
    std::optional<std::filesystem::path> certificate;
    std::optional<std::filesystem::path> key;
    // When set, every client must present a certificate issued by this CA (PEM).
    std::optional<std::filesystem::path> clientCa;
};

class TlsServerContext {
  public:
    // The context, or why it cannot be made (unreadable file, key not matching, ...).
    static std::variant<std::shared_ptr<TlsServerContext>, std::string> create(
        const TlsOptions& options);
    ~TlsServerContext();
    TlsServerContext(const TlsServerContext&) = delete;
    TlsServerContext& operator=(const TlsServerContext&) = delete;

    ssl_ctx_st* native() const { return context_; }
    // The server certificate in PEM, for clients to trust.
    const std::string& certificatePem() const { return certificatePem_; }
    // The certificate's SHA-256 fingerprint: upper-case hex pairs joined by ":".
    const std::string& fingerprint() const { return fingerprint_; }
    bool requiresClientCertificate() const { return requiresClientCertificate_; }

  private:
    TlsServerContext() = default;
    ssl_ctx_st* context_ = nullptr;
    std::string certificatePem_;
    std::string fingerprint_;
    bool requiresClientCertificate_ = false;
};

// The topic of a connection's verified client certificate: its subject's UID; nothing when there
// is no such certificate or it has no UID.
std::optional<std::string> clientCertificateTopic(ssl_st* ssl);

}  // namespace nimborra::provider
