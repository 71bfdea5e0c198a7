// The private network a push server runs in under `apns-host -- COMMAND`: the process moves into
// new user, network and mount namespaces (no root needed; as root the user namespace is skipped
// when it cannot be made), where the only network is loopback, APNs's host names resolve to the
// host (a generated hosts file mounted over /etc/hosts), and the host's certificate is trusted by
// the system's CA bundles (each mounted over by a copy with the certificate added) and by the
// files the environment variables of environment() name. Nothing outside the process and its
// children sees any of it: the namespaces end with the last process in them.
//
// Threads: enter() must run while the process has one thread (the kernel refuses a user
// namespace to a process with more), so at the very start of main; every thread started later
// inherits the namespaces and the capabilities they grant. trust() and environment() may then be
// called from any one thread at a time.
//
// Ownership: the generated files live in a private temporary directory, which the destructor
// removes; it must outlive every child that reads them.
//
// Failures are values: one line saying why and what to do. Nothing here throws except
// std::bad_alloc.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace nimborra::host {

class NetworkSandbox {
  public:
    // APNs's host names, which resolve to `address` inside.
    static constexpr std::string_view hostNames[] = {
        "api.push.apple.com", "api.sandbox.push.apple.com", "api.development.push.apple.com"};

    // Enters the namespaces, brings loopback up, makes every mount private to this process and
    // mounts the hosts file, where APNs's names resolve to `address` (the provider API's; IPv4
    // loopback when it is a name or the address of every interface).
    // When the namespaces themselves cannot be made, the reason starts with
    // namespaceFailurePrefix and says which setting allows them.
    static std::variant<std::unique_ptr<NetworkSandbox>, std::string> enter(
        const std::string& address);
    static constexpr std::string_view namespaceFailurePrefix =
        "cannot make private namespaces for COMMAND";

    ~NetworkSandbox();
    NetworkSandbox(const NetworkSandbox&) = delete;
    NetworkSandbox& operator=(const NetworkSandbox&) = delete;

    // Trusts `certificatePem`: each system CA bundle that exists is mounted over by a copy with
    // the certificate appended, and the files of environment() are written. Once; the reason
    // when it cannot.
    std::optional<std::string> trust(std::string_view certificatePem);

    // SSL_CERT_FILE, REQUESTS_CA_BUNDLE (a CA bundle with the certificate) and
    // NODE_EXTRA_CA_CERTS (the certificate alone) once trust() has succeeded; nothing before.
    std::vector<std::pair<std::string, std::string>> environment() const;

    // The text of the hosts file inside: `system` without the lines that name APNs's hosts,
    // a localhost line when it has none, and APNs's hosts at `address`.
    static std::string hostsFile(std::string_view system, std::string_view address);

  private:
    explicit NetworkSandbox(std::filesystem::path directory);

    std::filesystem::path directory_;
    std::filesystem::path bundle_;
    std::filesystem::path certificate_;
};

}  // namespace nimborra::host
