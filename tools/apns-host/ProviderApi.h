// apns-host's provider API: wires the push service stand-in (server, request rules) to the
// phone, so that a push server's request reaches the application through the simulated system.
//
// Threads: start() and stop() belong to the host's main flow; in between, the server's and the
// service's threads run (see ProviderServer.h and ProviderService.h).
#pragma once

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "Application.h"
#include "NimbOrraProviderApi/ProviderServer.h"
#include "NimbOrraProviderApi/ProviderService.h"
#include "Options.h"
#include "Output.h"
#include "Phone.h"

namespace nimborra::host {

class ProviderApi {
  public:
    // Reads the certificate and keys, starts serving and writes the start line; the reason when
    // it cannot (the application's identifier unknown, a file unreadable, the port taken).
    // `phone` and `application` must outlive the provider API. `queue` is the plug-in's: the push
    // service delivers on it, so that a notification's trip through the system and the plug-in
    // stays on one thread.
    static std::variant<std::unique_ptr<ProviderApi>, std::string> start(
        const ProviderApiOptions& options, Phone& phone, Application& application,
        OutputWriter& output, std::shared_ptr<platform::DispatchQueue> queue);
    ~ProviderApi();
    ProviderApi(const ProviderApi&) = delete;
    ProviderApi& operator=(const ProviderApi&) = delete;

    // Stops accepting, answers every request received, says goodbye to each connection and lets
    // the device take what was accepted. Once only; the destructor calls it too.
    void stop();

    // The certificate served (PEM, chain included); empty in cleartext.
    const std::string& certificatePem() const { return certificatePem_; }
    // The device's token at start, in lower-case hex.
    const std::string& deviceToken() const { return deviceToken_; }

  private:
    ProviderApi() = default;

    std::unique_ptr<provider::ProviderService> service_;
    std::unique_ptr<provider::ProviderServer> server_;
    // Options::additionalPorts, served by the same service.
    std::vector<std::unique_ptr<provider::ProviderServer>> additionalServers_;
    std::string certificatePem_;
    std::string deviceToken_;
};

// --print-provider-token: a token signed now with the key of `options`, or why there is none.
std::variant<std::string, std::string> printableProviderToken(const ProviderApiOptions& options);

}  // namespace nimborra::host
